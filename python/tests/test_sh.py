"""Spherical harmonics: equal to the C interface bit for bit, and to
scipy.special.sph_harm's functions in the library's real form."""
import numpy as np
import pytest
from scipy.special import sph_harm

import capi
import vekr

METHODS = {"direct": 0, "recurrence": 1}


def directions(n, seed=0):
    d = np.random.default_rng(seed).normal(size=(n, 3))
    return (d / np.linalg.norm(d, axis=1)[:, None]).astype(np.float32)


def real_sh_scipy(d, order):
    """Y_l^m = sqrt(2) Re Y_l^|m| for m > 0, sqrt(2) Im Y_l^|m| for m < 0,
    Y_l^0 for m = 0; scipy's functions carry the Condon-Shortley phase, as
    the library's do. Evaluated in double precision."""
    d = d.astype(np.float64)
    theta = np.arccos(np.clip(d[:, 2], -1, 1))
    phi = np.arctan2(d[:, 1], d[:, 0])
    cols = []
    for l in range(order + 1):
        for m in range(-l, l + 1):
            y = sph_harm(abs(m), l, phi, theta)
            cols.append(np.sqrt(2) * y.imag if m < 0 else np.sqrt(2) * y.real if m > 0 else y.real)
    return np.array(cols).T


@pytest.mark.parametrize("method", list(METHODS))
@pytest.mark.parametrize("order", [0, 1, 3, 8, 15])
def test_sh_eval_equals_c_interface(method, order):
    d = directions(37)
    assert capi.same_bits(vekr.sh_eval(d, order, method=method), capi.sh_eval(d, order, METHODS[method]))


@pytest.mark.parametrize("method", list(METHODS))
def test_sh_eval_matches_scipy_sph_harm(method):
    """Float32 evaluation against scipy in double: within 1e-5 up to order 15
    (the largest value is about 1.5)."""
    d = directions(500, seed=3)
    np.testing.assert_allclose(vekr.sh_eval(d, 15, method=method), real_sh_scipy(d, 15), rtol=0, atol=1e-5)


def test_sh_eval_keeps_leading_shape_and_converts_layout():
    d = directions(24).reshape(2, 3, 4, 3)
    e = vekr.sh_eval(d, 2)
    assert e.shape == (2, 3, 4, 9)
    flat = vekr.sh_eval(np.asfortranarray(d.reshape(24, 3)).astype(np.float64), 2)
    assert capi.same_bits(e.reshape(24, 9), flat)
    assert vekr.sh_eval(np.zeros((0, 3)), 4).shape == (0, 25)


def test_sh_band_is_one_band_of_sh_eval():
    d = directions(20)
    full = vekr.sh_eval(d, 6)
    for band in (0, 1, 4, 6):
        assert np.array_equal(vekr.sh_band(d, band), full[:, band * band: (band + 1) ** 2])


@pytest.mark.parametrize("method", list(METHODS))
def test_transforms_equal_c_interface(method):
    d = directions(50, seed=1)
    rng = np.random.default_rng(2)
    v1 = rng.random(50).astype(np.float32)
    v3 = rng.random((50, 3)).astype(np.float32)
    v1[:5] = [0, 1, 0, 1, 2]  # the transforms' shortcuts for 0 and 1
    kind = METHODS[method]
    c1 = vekr.sh_project(d, v1, 4, method=method)
    assert capi.same_bits(c1, capi.sh_fwd_c1(d, v1, 4, kind))
    c3 = vekr.sh_project(d, v3, 4, method=method)  # interleaved C3 entry vs the planar one
    assert capi.same_bits(c3, capi.sh_fwd_p3(d, v3, 4, kind))
    r3 = vekr.sh_reconstruct(c3, d, method=method)  # interleaved output vs planar
    assert capi.same_bits(r3, np.ascontiguousarray(capi.sh_inv_p3(c3, d, kind)))
    assert capi.same_bits(vekr.sh_reconstruct(c3[1], d, method=method), r3[:, 1].copy())


def test_project_accumulates_into_out_and_roundtrips():
    """Projecting a band-limited function with an equal-area quadrature and
    reconstructing it gives it back (to the quadrature's accuracy)."""
    n = 20000
    i = np.arange(n) + 0.5
    z = 1 - 2 * i / n
    phi = np.pi * (1 + 5 ** 0.5) * i
    r = np.sqrt(1 - z * z)
    d = np.stack([r * np.cos(phi), r * np.sin(phi), z], axis=1)
    truth = np.zeros(16, np.float32)
    truth[[0, 2, 5, 12]] = [1.0, 0.5, -0.25, 0.125]
    f = vekr.sh_reconstruct(truth, d)
    w = np.float32(4 * np.pi / n)
    coeffs = np.zeros(16, np.float32)
    vekr.sh_project(d[: n // 2], f[: n // 2] * w, 3, out=coeffs)  # two batches accumulate
    vekr.sh_project(d[n // 2:], f[n // 2:] * w, 3, out=coeffs)
    np.testing.assert_allclose(coeffs, truth, atol=2e-3)


@pytest.mark.parametrize("call,status", [
    (lambda: vekr.sh_eval(directions(3), 16), "vekStatusBadArgument"),
    (lambda: vekr.sh_eval(directions(3), 16, method="recurrence"), "vekStatusBadArgument"),
    (lambda: vekr.sh_eval(np.zeros((0, 3)), 16), "vekStatusBadArgument"),
    (lambda: vekr.sh_band(directions(3), 16), "vekStatusBadArgument"),
    (lambda: vekr.sh_project(directions(3), np.ones(3), 20), "vekStatusBadArgument"),
    (lambda: vekr.sh_reconstruct(np.ones(17 * 17), directions(3)), "vekStatusBadArgument"),
])
def test_orders_above_15_raise(call, status):
    with pytest.raises(vekr.VekrError, match=status + " in sh_") as e:
        call()
    assert e.value.status_name == status


@pytest.mark.parametrize("call,exc", [
    (lambda: vekr.sh_eval(np.zeros((4, 2)), 2), ValueError),
    (lambda: vekr.sh_eval(directions(2), 2, method="fast"), ValueError),
    (lambda: vekr.sh_eval(directions(2), -1), TypeError),
    (lambda: vekr.sh_project(directions(4), np.ones(5), 2), ValueError),
    (lambda: vekr.sh_reconstruct(np.ones(5), directions(2)), ValueError),
    (lambda: vekr.sh_project(directions(4), np.ones(4), 1, out=np.zeros(4)), TypeError),
    (lambda: vekr.sh_project(directions(4), np.ones(4), 1, out=np.zeros(9, np.float32)), ValueError),
])
def test_bad_sh_arguments_raise(call, exc):
    with pytest.raises(exc):
        call()
