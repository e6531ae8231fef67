"""scipy.ndimage.zoom on the sizes of the resize benchmark, for comparison:
128^3 -> 256^3 and 256^3 -> 128^3, uint8, uint16 and float32, spline orders
0, 1 and 3, one thread, in destination Mvoxel/s. Prints tab-separated
records: scipy, type, from, to, order, Mvoxel/s.

grid_mode=True samples at voxel centres (the resize's mapping) and
mode='nearest' repeats edge voxels. Order 3 includes scipy's spline
prefilter, which is part of what a caller pays for a cubic zoom there."""
import sys
import time

import numpy as np
from scipy import ndimage


def best_of(reps, fn):
    best = float("inf")
    for _ in range(reps):
        t0 = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - t0)
    return best


def main():
    rng = np.random.default_rng(1)
    for name, dtype in (("8u", np.uint8), ("16u", np.uint16), ("32f", np.float32)):
        for sn, dn in ((128, 256), (256, 128)):
            src = (rng.random((sn, sn, sn)) * 200).astype(dtype)
            out = np.empty((dn, dn, dn), dtype=dtype)
            for order in (0, 1, 3):
                # The cubic cases take seconds each: one timed run.
                reps = 1 if order == 3 else 2
                t = best_of(reps, lambda: ndimage.zoom(src, dn / sn, output=out, order=order,
                                                       mode="nearest", grid_mode=True))
                print(f"scipy\t{name}\t{sn}\t{dn}\t{order}\t{dn ** 3 / t * 1e-6:.2f}", flush=True)


if __name__ == "__main__":
    sys.exit(main())
