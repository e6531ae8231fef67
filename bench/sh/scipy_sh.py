#!/usr/bin/env python3
"""Reference throughput: scipy.special.sph_harm evaluating every function of
bands 0..L for a batch of directions (complex values; one ufunc call per
(l, m)). Prints markdown table rows in the same columns as bench_sh."""
import time

import numpy as np
from scipy.special import sph_harm


def rate(order, count, reps=3):
    i = np.arange(count)
    z = -1.0 + 2.0 * (i + 0.5) / count
    theta = np.arccos(z)          # polar angle
    phi = np.mod(2.399963 * i, 2 * np.pi)  # azimuth
    best = float("inf")
    for _ in range(reps):
        t0 = time.perf_counter()
        for l in range(order + 1):
            for m in range(-l, l + 1):
                sph_harm(m, l, phi, theta)
        best = min(best, time.perf_counter() - t0)
    return count / best * 1e-6


# Larger batches than bench_sh uses, so the per-call overhead of the 16 or 256
# ufunc calls does not dominate scipy's figure.
for order, count in ((3, 65536), (15, 16384)):
    print("| scipy | sph_harm | %d | complex | numpy | %.3f |" % (order, rate(order, count)))
