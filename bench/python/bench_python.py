#!/usr/bin/env python3
"""vekr's Python bindings beside scipy in the same process, on equal work.

  PYTHONPATH=build-x86_64/python /usr/bin/python3 bench/python/bench_python.py [--quick]

Each case runs the same inputs through the binding (one thread, then two)
and through scipy (single-threaded), best of several calls, and prints a
markdown table of throughput and the ratio vekr / scipy. Times include what
a Python caller pays: argument conversion, output allocation and, for
convolve, the padded copy of the border.

Equal work:
  zoom             scipy.ndimage.zoom(grid_mode=True, mode='nearest'); linear is
                   order 1, cubic is the cubic B-spline (order 3 with
                   prefilter=False, the same kernel as interpolation='bspline')
  affine_transform the same rotation (scipy gets the inverse matrix), order 1
  map_coordinates  the same float32 coordinates, order 1, prefilter=False
  convolve         int16 volume, integer kernel, mode='constant'
  sph_harm         every function of bands 0..L per direction; scipy returns
                   the complex functions, one ufunc call per (l, m); vekr's
                   closed form (the default) and its recurrence
"""
import os
import sys
import time

import numpy as np
from scipy import ndimage as nd
from scipy.special import sph_harm

import vekr


def best(fn, min_time=0.5, min_runs=2, max_runs=20):
    fn()  # warm-up
    times = []
    while len(times) < min_runs or (sum(times) < min_time and len(times) < max_runs):
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return min(times)


def rotation(n, angle=0.3, scale=1.05):
    """Forward (source -> output) 4 x 4 matrix in z, y, x: scaled rotation
    about the volume's centre, tilted about x."""
    c, s, h = np.cos(angle) * scale, np.sin(angle) * scale, 0.5 * (n - 1)
    m = np.array([[scale, 0, 0], [0, c, -s], [0, s, c]]) @ np.array(
        [[np.cos(0.2), -np.sin(0.2), 0], [np.sin(0.2), np.cos(0.2), 0], [0, 0, 1]])
    fwd = np.eye(4)
    fwd[:3, :3] = m
    fwd[:3, 3] = h - m @ np.full(3, h)
    return fwd


def cases(quick):
    n = 64 if quick else 128
    rng = np.random.default_rng(1)
    f32 = rng.random((n, n, n)).astype(np.float32)
    u8 = (f32 * 250).astype(np.uint8)
    i16 = rng.integers(-20000, 20000, (n, n, n)).astype(np.int16)
    fwd = rotation(n)
    inv = np.linalg.inv(fwd)
    z, y, x = np.indices((n, n, n), dtype=np.float32)
    coords = np.stack([z + 0.3 + 0.8 * np.sin(0.05 * x), y + 0.7 * np.sin(0.1 * z), x + 1.5 * np.sin(0.1 * y)])
    coords = coords.astype(np.float32)
    out2 = (2 * n,) * 3
    k3 = (np.arange(27) % 17 - 8).reshape(3, 3, 3).astype(np.int32)
    k5 = (np.arange(125) % 17 - 8).reshape(5, 5, 5).astype(np.int32)
    i = np.arange(65536 if not quick else 8192)
    zc = -1.0 + 2.0 * (i + 0.5) / len(i)
    theta, phi = np.arccos(zc), np.mod(2.399963 * i, 2 * np.pi)
    dirs = np.stack([np.sin(theta) * np.cos(phi), np.sin(theta) * np.sin(phi), zc], 1).astype(np.float32)

    def scipy_sh(order, count):
        def run():
            for l in range(order + 1):
                for m in range(-l, l + 1):
                    sph_harm(m, l, phi[:count], theta[:count])
        return run

    nd15 = 16384 if not quick else 4096
    vox2 = (2 * n) ** 3
    return [
        (f"zoom {n}^3 -> {2 * n}^3 float32 linear", vox2, "Mvox/s",
         lambda: vekr.resize(f32, out2, interpolation="linear"),
         lambda: nd.zoom(f32, 2, order=1, mode="nearest", grid_mode=True)),
        (f"zoom {n}^3 -> {2 * n}^3 uint8 linear", vox2, "Mvox/s",
         lambda: vekr.resize(u8, out2, interpolation="linear"),
         lambda: nd.zoom(u8, 2, order=1, mode="nearest", grid_mode=True)),
        (f"zoom {n}^3 -> {2 * n}^3 float32 cubic B-spline", vox2, "Mvox/s",
         lambda: vekr.resize(f32, out2, interpolation="bspline"),
         lambda: nd.zoom(f32, 2, order=3, mode="nearest", grid_mode=True, prefilter=False)),
        (f"affine_transform {n}^3 float32 linear", n ** 3, "Mvox/s",
         lambda: vekr.warp_affine(f32, fwd, interpolation="linear"),
         lambda: nd.affine_transform(f32, inv, order=1, prefilter=False)),
        (f"affine_transform {n}^3 uint8 linear", n ** 3, "Mvox/s",
         lambda: vekr.warp_affine(u8, fwd, interpolation="linear"),
         lambda: nd.affine_transform(u8, inv, order=1, prefilter=False)),
        (f"map_coordinates {n}^3 float32 linear", n ** 3, "Mvox/s",
         lambda: vekr.remap(f32, coords, interpolation="linear"),
         lambda: nd.map_coordinates(f32, coords, order=1, prefilter=False)),
        (f"convolve {n}^3 int16 3^3", n ** 3, "Mvox/s",
         lambda: vekr.convolve(i16, k3), lambda: nd.convolve(i16, k3, mode="constant")),
        (f"convolve {n}^3 int16 5^3", n ** 3, "Mvox/s",
         lambda: vekr.convolve(i16, k5), lambda: nd.convolve(i16, k5, mode="constant")),
        (f"sph_harm order 3, {len(i)} directions", len(i), "M dirs/s",
         lambda: vekr.sh_eval(dirs, 3), scipy_sh(3, len(i))),
        (f"sph_harm order 15, {nd15} directions", nd15, "M dirs/s",
         lambda: vekr.sh_eval(dirs[:nd15], 15), scipy_sh(15, nd15)),
        (f"sph_harm order 15, {nd15} directions, method='recurrence'", nd15, "M dirs/s",
         lambda: vekr.sh_eval(dirs[:nd15], 15, method="recurrence"), scipy_sh(15, nd15)),
    ]


def main():
    quick = "--quick" in sys.argv
    saved = vekr.get_num_threads()
    load = " / ".join(f"{x:.1f}" for x in os.getloadavg())
    print(f"vekr {vekr.__version__}, numpy {np.__version__}, scipy {__import__('scipy').__version__}; "
          f"best of >= 2 calls and >= 0.5 s; {time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}; "
          f"{os.cpu_count()} processors, load average {load} at the start\n")
    print("| case | unit | vekr 1 thread | vekr 2 threads | scipy | vekr 1T / scipy |")
    print("|---|---|---:|---:|---:|---:|")
    for name, work, unit, ours, theirs in cases(quick):
        rates = []
        for t in (1, 2):
            vekr.set_num_threads(t)
            rates.append(work / best(ours) * 1e-6)
        vekr.set_num_threads(saved)
        ref = work / best(theirs, min_time=0.5 if "B-spline" not in name else 0.1) * 1e-6
        print(f"| {name} | {unit} | {rates[0]:.1f} | {rates[1]:.1f} | {ref:.3g} | {rates[0] / ref:.0f}x |",
              flush=True)

    # Per-call cost of the binding on tiny inputs (conversion and checks dominate).
    tiny = np.ones((2, 2, 2), np.float32)
    d1 = np.array([[0, 0, 1.0]], np.float32)
    n = 20000
    for label, fn in (("resize 2^3 -> 3^3", lambda: vekr.resize(tiny, (3, 3, 3))),
                      ("sh_eval, 1 direction, order 2", lambda: vekr.sh_eval(d1, 2))):
        t0 = time.perf_counter()
        for _ in range(n):
            fn()
        print(f"\ncall cost, {label}: {(time.perf_counter() - t0) / n * 1e6:.1f} us", end="")
    print()


if __name__ == "__main__":
    main()
