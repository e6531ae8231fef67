"""Reference counts and memory stay flat over 10,000 calls of every binding,
on the success path and on the error path."""
import gc
import sys
import warnings

import numpy as np
import pytest

import vekr

CALLS = 10000


def rss_kib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * 4096 // 1024


def cases():
    f32 = np.random.default_rng(0).random((6, 7, 8)).astype(np.float32)
    u8 = (f32 * 200).astype(np.uint8)
    i16 = (f32 * 1000).astype(np.int16)
    coords = np.random.default_rng(1).uniform(0, 6, (3, 4, 5, 6))
    strided = np.repeat(f32, 2, axis=2)[:, :, ::2]  # converted on every call
    m = np.array([[1.0, 0.1, 0, 0.5], [0, 0.9, 0.2, 1], [0.1, 0, 1.1, -1]])
    k = np.ones((3, 3, 3), np.int32)
    d = np.random.default_rng(2).normal(size=(20, 3))
    vals = np.ones(20, np.float32)
    coeffs = np.ones((3, 16), np.float32)
    v = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0]], np.float32)
    tris = np.array([[0, 1, 2]])
    scene = vekr.Scene(v, tris)
    out = np.zeros((5, 5, 5), np.float32)
    return {
        "resize": ((f32, strided, out), lambda: vekr.resize(strided, out=out, interpolation="cubic")),
        "resize_u8": ((u8,), lambda: vekr.resize(u8, (3, 9, 4))),
        "warp_affine": ((u8, m), lambda: vekr.warp_affine(u8, m)),
        "remap": ((f32, coords), lambda: vekr.remap(f32, coords)),
        "convolve": ((i16, k), lambda: vekr.convolve(i16, k, 3, mode="reflect")),
        "sh_eval": ((d,), lambda: vekr.sh_eval(d, 5, method="recurrence")),
        "sh_project": ((d, vals), lambda: vekr.sh_project(d, vals, 3)),
        "sh_reconstruct": ((coeffs, d), lambda: vekr.sh_reconstruct(coeffs, d)),
        "scene_build": ((v, tris), lambda: vekr.Scene(v, tris)),
        "intersect": ((scene, d), lambda: scene.intersect([0.1, 0.1, 1], d)),
        "occluded": ((scene, d), lambda: scene.occluded([0.1, 0.1, 1], d)),
        "intersect_multiple": ((scene, d), lambda: scene.intersect_multiple([0.1, 0.1, 1], d, 3)),
        "error_path": ((f32,), lambda: vekr.resize(f32, (0, 2, 2))),
        "warning_path": ((f32,), lambda: vekr.resize(f32, (2, 2, 2), region=((9, 10), (0, 2), (0, 2)))),
    }


@pytest.mark.parametrize("name", list(cases()))
def test_flat_over_10000_calls(name):
    inputs, call = cases()[name]

    def run(n):
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", vekr.VekrWarning)
            for _ in range(n):
                try:
                    call()
                except vekr.VekrError:
                    pass

    run(200)  # warm-up: caches, the spherical-harmonics states, allocator pools
    gc.collect()
    refs = [sys.getrefcount(x) for x in inputs]
    before = rss_kib()
    run(CALLS)
    gc.collect()
    grown = rss_kib() - before
    assert [sys.getrefcount(x) for x in inputs] == refs
    # A leak of one small array per call would add at least 10,000 * 100 bytes.
    assert grown < 512, f"RSS grew by {grown} KiB over {CALLS} calls"
