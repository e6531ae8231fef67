"""Reference timings for bench/volume/remap_run.sh, and the table it prints.

  remap_scipy.py time         scipy.ndimage map_coordinates and affine_transform
                              on the benchmark's 128^3 volumes and transforms,
                              one line per case: "op type order Mvox/s"
  remap_scipy.py table DIR    merges DIR/x86_64.txt, DIR/i386.txt (bench_remap
                              output) and DIR/scipy.txt into a markdown table
"""
import sys
import time

N = 128
CODE_TO_ORDER = {1: 0, 2: 1, 6: 3}


def volumes(np):
    i = np.arange(N * N * N, dtype=np.uint64)
    base = ((i * 2654435761) >> 13) % 251 + 0.25 * (i % 7)
    return {"8u": base.astype(np.uint8).reshape(N, N, N), "32f": base.astype(np.float32).reshape(N, N, N)}


def remap_coords(np):
    # The same map as bench_remap: rotation by 0.3 rad about the centre plus
    # a sine displacement; scipy wants (z, y, x) coordinates.
    z, y, x = np.meshgrid(np.arange(N), np.arange(N), np.arange(N), indexing="ij")
    c, s, h = np.cos(0.3), np.sin(0.3), 0.5 * (N - 1)
    dx, dy = x - h, y - h
    mx = (h + c * dx - s * dy + 1.5 * np.sin(0.1 * z)).astype(np.float32)
    my = (h + s * dx + c * dy).astype(np.float32)
    mz = (z + 0.3 + 0.8 * np.sin(0.05 * x)).astype(np.float32)
    return np.stack([mz, my, mx])


def warp_matrix(np, tilt=0.0):
    # bench_remap's map sends source to destination: 1.05 times a rotation
    # about the centre (about z, then by `tilt` about x). scipy wants
    # destination -> source in (z, y, x) order.
    c, s, h = np.cos(0.3) * 1.05, np.sin(0.3) * 1.05, 0.5 * (N - 1)
    rz = np.array([[c, -s, 0], [s, c, 0], [0, 0, 1.05]])
    ct, st = np.cos(tilt), np.sin(tilt)
    rx = np.array([[1, 0, 0], [0, ct, -st], [0, st, ct]])
    m = rx @ rz
    fwd = np.eye(4)
    fwd[:3, :3] = m
    fwd[:3, 3] = h - m @ np.array([h, h, h])
    inv = np.linalg.inv(fwd)
    perm = [2, 1, 0]
    out = np.eye(4)
    out[:3, :3] = inv[:3, :3][np.ix_(perm, perm)]
    out[:3, 3] = inv[:3, 3][perm]
    return out


def best_of(fn, reps=5):
    fn()
    best = 1e300
    for _ in range(reps):
        t = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - t)
    return best


def time_scipy():
    import numpy as np
    import scipy.ndimage as nd

    vols = volumes(np)
    coords = remap_coords(np)
    mats = {"warp": warp_matrix(np), "owarp": warp_matrix(np, 0.2)}
    for name, v in vols.items():
        for order in (0, 1, 3):
            # order 3 without the spline prefilter: a plain cubic kernel per
            # voxel, the work that corresponds to a cubic code here.
            t = best_of(lambda: nd.map_coordinates(v, coords, order=order, prefilter=False))
            print(f"remap {name} {order} {N ** 3 / t / 1e6:.1f}", flush=True)
            for op, mat in mats.items():
                t = best_of(lambda: nd.affine_transform(v, mat, order=order, prefilter=False))
                print(f"{op} {name} {order} {N ** 3 / t / 1e6:.1f}", flush=True)


def read(path):
    rows = {}
    try:
        with open(path) as f:
            for line in f:
                parts = line.split()
                if len(parts) == 5 and not line.startswith("#"):
                    rows[tuple(parts[:4])] = float(parts[4])
                elif len(parts) == 4 and not line.startswith("#"):
                    rows[tuple(parts[:3])] = float(parts[3])
    except OSError:
        pass
    return rows


def table(d):
    x64, x32, sp = read(f"{d}/x86_64.txt"), read(f"{d}/i386.txt"), read(f"{d}/scipy.txt")
    names = {1: "nearest", 2: "linear", 6: "cubic (Catmull-Rom; scipy: order 3, no prefilter)"}
    print("Throughput in Mvox/s (128^3 source and destination; best call of at least 0.25 s of calls,")
    print("scipy best of 5 and single-threaded).\n")
    print("| operation | type | interpolation | x86-64 1T | x86-64 2T | i386 1T | i386 2T | scipy | x86-64 1T / scipy |")
    print("|---|---|---|---:|---:|---:|---:|---:|---:|")
    for op in ("remap", "warp", "owarp"):
        for ty in ("8u", "32f"):
            for code in (1, 2, 6):
                def g(rows, th):
                    return rows.get((op, ty, str(code), str(th)))
                s = sp.get((op, ty, str(CODE_TO_ORDER[code])))
                cells = [g(x64, 1), g(x64, 2), g(x32, 1), g(x32, 2), s]
                txt = ["-" if v is None else f"{v:.1f}" for v in cells]
                ratio = "-" if cells[0] is None or not s else f"{cells[0] / s:.1f}x"
                label = {"remap": "remap (map_coordinates)", "warp": "affine warp, about z (affine_transform)",
                         "owarp": "affine warp, tilted (affine_transform)"}[op]
                print(f"| {label} | {ty} | {names[code]} | " + " | ".join(txt) + f" | {ratio} |")


if __name__ == "__main__":
    if len(sys.argv) >= 2 and sys.argv[1] == "time":
        time_scipy()
    elif len(sys.argv) >= 3 and sys.argv[1] == "table":
        table(sys.argv[2])
    else:
        print(__doc__)
        sys.exit(2)
