"""Reference throughput: scipy.ndimage.convolve on int16 volumes of the same
sizes and kernels as bench_filter, in millions of voxels per second (best of a
few runs). Prints one line per measurement: scipy <n> <k> 1 packed <Mvox/s>."""
import sys
import time

import numpy as np
from scipy import ndimage


def best_time(fn, seconds):
    fn()
    best, total, runs = float("inf"), 0.0, 0
    while total < seconds or runs < 2:
        t0 = time.perf_counter()
        fn()
        t = time.perf_counter() - t0
        best, total, runs = min(best, t), total + t, runs + 1
    return best


def main():
    rng = np.random.default_rng(12345)
    for n in (128, 256):
        vol = rng.integers(-32768, 32768, size=(n, n, n), dtype=np.int16)
        for k in (3, 5):
            weights = (np.arange(k ** 3) % 17 - 8).astype(np.int16).reshape(k, k, k)
            out = np.empty_like(vol)
            t = best_time(lambda: ndimage.convolve(vol, weights, output=out, mode="constant"), 1.0 if n == 128 else 2.0)
            print("scipy %d %d 1 packed %.1f" % (n, k, n ** 3 / t / 1e6))
            sys.stdout.flush()


if __name__ == "__main__":
    main()
