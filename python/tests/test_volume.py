"""resize, warp_affine, remap and convolve: equal to the C interface bit for
bit, in agreement with scipy.ndimage where the conventions match, and the
known differences where they do not."""
import threading
import time
import warnings

import numpy as np
import pytest
from scipy import ndimage as nd

import capi
import vekr

CODES = {"nearest": 1, "linear": 2, "cubic": 4, "bspline": 5, "catmull-rom": 6, "b05c03": 7}
DTYPES = [np.uint8, np.uint16, np.float32]


def volume(shape, dtype, seed=1):
    rng = np.random.default_rng(seed)
    if dtype == np.float32:
        return rng.random(shape).astype(np.float32)
    hi = 250 if dtype == np.uint8 else 65000
    return rng.integers(0, hi, shape).astype(dtype)


@pytest.fixture
def threads():
    """Restores the thread count after a test that changes it."""
    saved = vekr.get_num_threads()
    yield
    vekr.set_num_threads(saved)


# ------------------------------------------------------------------ C interface, bit for bit

@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("interp", list(CODES))
@pytest.mark.parametrize("region", [None, (slice(2, 9), slice(1, 12), slice(3, 10))])
def test_resize_equals_c_interface(dtype, interp, region):
    src = volume((11, 13, 12), dtype)
    out_shape = (17, 9, 20)
    got = vekr.resize(src, out_shape, interpolation=interp, region=region)
    if region is None:
        z0, y0, x0, d, h, w = 0, 0, 0, 11, 13, 12
    else:
        (z0, z1), (y0, y1), (x0, x1) = [(s.start, s.stop) for s in region]
        d, h, w = z1 - z0, y1 - y0, x1 - x0
    f = (out_shape[2] / w, out_shape[1] / h, out_shape[0] / d)
    ref = np.zeros(out_shape, dtype)
    st = capi.resize(src, ref, capi.cuboid(x0, y0, z0, w, h, d), f, (-x0 * f[0], -y0 * f[1], -z0 * f[2]),
                     CODES[interp])
    assert st == 0
    assert capi.same_bits(got, ref)


@pytest.mark.parametrize("zoom,expect", [(2.0, (22, 26, 24)), ((0.5, 1.5, 1.0), (6, 20, 12)), (0.3, (3, 4, 4))])
def test_resize_zoom_output_extent_rounds_half_up(zoom, expect):
    """With zoom the factors are the given ones (not output / input extent)."""
    src = volume((11, 13, 12), np.float32)
    got = vekr.resize(src, zoom=zoom)
    assert got.shape == expect
    fz, fy, fx = np.broadcast_to(zoom, 3)
    ref = np.zeros(expect, np.float32)
    assert capi.resize(src, ref, capi.cuboid(0, 0, 0, 12, 13, 11), (fx, fy, fz), (0, 0, 0), 2) == 0
    assert capi.same_bits(got, ref)


@pytest.mark.parametrize("zoom", [0.37, 1.0, 1.5, (2.9, 0.61, 1.13), 3.3])
@pytest.mark.parametrize("region", [None, ((1, 10), (2, 13), (0, 5))])
def test_resize_writes_every_output_voxel(zoom, region):
    """New outputs are not cleared first: the extents chosen must make the
    library write all of them. A NaN-filled out= shows any voxel it skips."""
    src = volume((11, 13, 12), np.float32)
    shape = vekr.resize(src, zoom=zoom, region=region).shape
    for kw in (dict(zoom=zoom), dict(shape=shape)):
        out = np.full(shape, np.nan, np.float32)
        vekr.resize(src, out=out, region=region, interpolation="cubic", **kw)
        assert not np.isnan(out).any()


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("interp", ["nearest", "linear", "catmull-rom", "bspline"])
def test_warp_affine_equals_c_interface(dtype, interp):
    src = volume((12, 14, 13), dtype)
    # Forward map in (z, y, x): a rotation about z by 0.3 rad, scaled, shifted.
    c, s = np.cos(0.3) * 1.1, np.sin(0.3) * 1.1
    m = np.array([[1.05, 0, 0, 0.5], [0, c, -s, 2.0], [0, s, c, -1.25]])
    got = vekr.warp_affine(src, m, (10, 15, 16), interpolation=interp)
    # The C matrix is in x, y, z order: reverse both axes of the 3 x 3 part.
    cx = np.zeros((3, 4))
    cx[:, :3] = m[::-1, 2::-1]
    cx[:, 3] = m[::-1, 3]
    ref = np.zeros((10, 15, 16), dtype)
    assert capi.warp(src, ref, capi.cuboid(0, 0, 0, 13, 14, 12), cx, CODES[interp]) == 0
    assert capi.same_bits(got, ref)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("interp", ["nearest", "linear", "cubic", "b05c03"])
def test_remap_equals_c_interface(dtype, interp):
    src = volume((9, 10, 11), dtype)
    rng = np.random.default_rng(5)
    coords = rng.uniform(-1.0, 11.0, (3, 6, 7, 8))
    region = (slice(1, 8), slice(0, 10), slice(2, 11))
    got = vekr.remap(src, coords, interpolation=interp, region=region)
    c32 = coords.astype(np.float32)
    ref = np.zeros((6, 7, 8), dtype)
    assert capi.remap(src, ref, capi.cuboid(2, 0, 1, 9, 10, 7), c32[2], c32[1], c32[0], CODES[interp]) == 0
    assert capi.same_bits(got, ref)


@pytest.mark.parametrize("kshape,anchor", [((3, 3, 3), None), ((2, 4, 3), (0, 3, 1)), ((5, 1, 2), (4, 0, 0))])
@pytest.mark.parametrize("divisor", [1, 3, -7])
def test_convolve_equals_c_interface(kshape, anchor, divisor):
    rng = np.random.default_rng(2)
    src = rng.integers(-3000, 3000, (7, 9, 8)).astype(np.int16)
    k = rng.integers(-40, 40, kshape).astype(np.int32)
    got = vekr.convolve(src, k, divisor, anchor=anchor, mode="valid")
    a = anchor if anchor is not None else tuple(n // 2 for n in kshape)
    out_shape = tuple(n - kn + 1 for n, kn in zip(src.shape, kshape))
    ref = np.zeros(out_shape, np.int16)
    assert capi.filter16s(src, ref, k, a[::-1], divisor) == 0
    assert capi.same_bits(got, ref)


# ------------------------------------------------------------------ agreement with scipy.ndimage

def test_resize_matches_scipy_zoom():
    """Voxel-centre mapping with edge repetition is scipy's grid_mode=True,
    mode='nearest'. Linear and the cubic B-spline (scipy order 3 without its
    prefilter, which is the same kernel) agree to float32 rounding of the
    library's float rows and weights (2e-6 on values in [0, 1]); nearest
    agrees exactly where no source coordinate is a tie (factor 2 up)."""
    src = volume((12, 13, 14), np.float32)
    for interp, order in (("linear", 1), ("bspline", 3)):
        got = vekr.resize(src, (24, 26, 28), interpolation=interp)
        ref = nd.zoom(src.astype(np.float64), 2, order=order, mode="nearest", grid_mode=True, prefilter=False)
        np.testing.assert_allclose(got, ref, rtol=0, atol=2e-6)
    got = vekr.resize(src, (24, 26, 28), interpolation="nearest")
    assert np.array_equal(got, nd.zoom(src, 2, order=0, mode="nearest", grid_mode=True))


def test_resize_nearest_downsampling_ties_go_down_unlike_scipy():
    """At factor 1/2 every output voxel sits exactly between two source voxels:
    the library takes the lower one, scipy's zoom the upper one."""
    src = volume((8, 10, 12), np.float32)
    got = vekr.resize(src, (4, 5, 6), interpolation="nearest")
    assert np.array_equal(got, src[::2, ::2, ::2])
    sp = nd.zoom(src, 0.5, order=0, mode="nearest", grid_mode=True)
    assert np.array_equal(sp, src[1::2, 1::2, 1::2])


def _inside(coords, shape, margin):
    return np.all([(c >= margin) & (c <= n - 1 - margin) for c, n in zip(coords, shape)], axis=0)


def test_warp_affine_matches_scipy_affine_transform():
    """scipy takes the inverse (output -> input) matrix. Points inside the
    source box are interpolated alike (linear: 2e-6 on values in [0, 1]; the
    library forms the fraction in float32); points outside keep cval, as
    scipy's mode='constant'. Points within 1e-3 of the box faces, where the
    two differ by float rounding of the coordinate, are left out."""
    src = volume((14, 15, 16), np.float32)
    c, s = np.cos(0.4), np.sin(0.4)
    fwd = np.array([[0.9, 0, 0, 1.0], [0, c, -s, 3.0], [0, s, c, -2.0], [0, 0, 0, 1]])
    inv = np.linalg.inv(fwd)
    idx = np.indices(src.shape).reshape(3, -1).astype(np.float64)
    srcpts = inv[:3, :3] @ idx + inv[:3, 3:4]
    near_face = ~_inside(srcpts, src.shape, 1e-3) & _inside(srcpts, src.shape, -1e-3)
    for interp, order in (("linear", 1), ("nearest", 0)):
        got = vekr.warp_affine(src, fwd, interpolation=interp, cval=-1).reshape(-1)
        ref = nd.affine_transform(src.astype(np.float64), inv, order=order, mode="constant", cval=-1,
                                  prefilter=False).reshape(-1)
        keep = ~near_face
        if order == 0:  # ties of the rounding are decided differently
            frac = np.abs(srcpts - np.round(srcpts))
            keep &= np.all(np.abs(frac - 0.5) > 1e-4, axis=0)
        np.testing.assert_allclose(got[keep], ref[keep], rtol=0, atol=2e-6)
        assert (got == -1).sum() > 100  # the map leaves part of the output outside the source


def test_remap_matches_scipy_map_coordinates():
    """Linear and nearest inside the source box, cval outside; the cubic
    B-spline (code 5; scipy order 3 without prefilter) where all four taps lie
    inside the box (scipy's border rules for cubic taps differ from the
    library's clamping)."""
    src = volume((10, 11, 12), np.float32)
    rng = np.random.default_rng(7)
    coords = rng.uniform(-2, 13, (3, 20, 20, 20))
    margin_ok = ~(_inside(coords, src.shape, 1e-3) ^ _inside(coords, src.shape, -1e-3))
    for interp, order in (("linear", 1), ("nearest", 0)):
        got = vekr.remap(src, coords, interpolation=interp, cval=-1)
        ref = nd.map_coordinates(src.astype(np.float64), coords, order=order, mode="constant", cval=-1,
                                 prefilter=False)
        np.testing.assert_allclose(got[margin_ok], ref[margin_ok], rtol=0, atol=2e-6)
    interior = _inside(coords, src.shape, 1.0) & np.all([c <= n - 3 for c, n in zip(coords, src.shape)], axis=0)
    got = vekr.remap(src, coords, interpolation="bspline")
    ref = nd.map_coordinates(src.astype(np.float64), coords, order=3, prefilter=False)
    assert interior.sum() > 500
    np.testing.assert_allclose(got[interior], ref[interior], rtol=0, atol=2e-6)


@pytest.mark.parametrize("mode", ["constant", "nearest", "reflect", "mirror", "wrap"])
@pytest.mark.parametrize("kshape", [(3, 3, 3), (2, 4, 5)])
def test_convolve_matches_scipy(mode, kshape):
    """Divisor 1: the integer sums, saturated to int16, equal scipy's convolve
    on the same data in float64 exactly (odd and even kernels: the default
    anchor kernel.shape // 2 is scipy's centre). Divisor 5: equal to the sum
    scaled by float32(1/5) in float32 and rounded half to even."""
    rng = np.random.default_rng(3)
    src = rng.integers(-20000, 20000, (9, 10, 11)).astype(np.int16)
    k = rng.integers(-9, 10, kshape).astype(np.int32)
    s = nd.convolve(src.astype(np.float64), k.astype(np.float64), mode=mode, cval=17)
    got = vekr.convolve(src, k, mode=mode, cval=17)
    assert np.array_equal(got, np.clip(s, -32768, 32767))
    scaled = np.rint(s.astype(np.float32) * np.float32(1 / np.float32(5)))
    got5 = vekr.convolve(src, k, 5, mode=mode, cval=17)
    assert np.array_equal(got5, np.clip(scaled, -32768, 32767))


# ------------------------------------------------------------------ argument conversion

@pytest.mark.parametrize("make", [
    lambda v: np.asfortranarray(v),
    lambda v: v.astype(v.dtype.newbyteorder(">")),
    lambda v: np.frombuffer(b"\0" + v.tobytes(), v.dtype, offset=1).reshape(v.shape),  # unaligned
    lambda v: np.repeat(v, 2, axis=2)[:, :, ::2],  # strided view
])
def test_any_layout_gives_the_contiguous_result(make):
    for dtype in DTYPES:
        src = volume((6, 7, 8), dtype)
        other = make(src)
        assert np.array_equal(other, src)
        assert capi.same_bits(vekr.resize(other, (9, 5, 11)), vekr.resize(src, (9, 5, 11)))
        assert capi.same_bits(vekr.warp_affine(other, np.eye(4)), src)
    s16 = volume((6, 7, 8), np.uint16).astype(np.int16)
    assert capi.same_bits(vekr.convolve(make(s16), np.ones((1, 2, 3), np.int32)), vekr.convolve(s16, np.ones((1, 2, 3), np.int32)))


def test_out_is_written_and_returned():
    src = volume((6, 7, 8), np.float32)
    out = np.full((9, 5, 11), 7, np.float32)
    r = vekr.resize(src, out=out)
    assert r is out and capi.same_bits(out, vekr.resize(src, (9, 5, 11)))
    # Voxels that map outside the source keep the caller's values.
    out = np.full(src.shape, 5.0, np.float32)
    shift = np.array([[1, 0, 0, 3], [0, 1, 0, 0], [0, 0, 1, 0.0]])
    vekr.warp_affine(src, shift, out=out)
    assert np.all(out[:3] == 5.0) and np.array_equal(out[3:], src[:-3])


@pytest.mark.parametrize("call,exc,text", [
    (lambda: vekr.resize(np.zeros(8, np.float32), (2, 2, 2)), ValueError, "3-D"),
    (lambda: vekr.resize(np.zeros((2, 2, 2)), (2, 2, 2)), TypeError, "float64"),
    (lambda: vekr.resize(np.zeros((2, 2, 2), np.float32), (2, 2, 2), interpolation="cubicish"), ValueError,
     "unknown interpolation"),
    (lambda: vekr.resize(np.zeros((2, 2, 2), np.float32), out=np.zeros((2, 2, 2))), TypeError, "float32"),
    (lambda: vekr.resize(np.zeros((2, 2, 2), np.float32), out=np.zeros((4, 4, 4), np.float32)[:, ::2, ::2]),
     ValueError, "C-contiguous"),
    (lambda: vekr.warp_affine(np.zeros((2, 2, 2), np.uint8), np.eye(3)), ValueError, "3 x 4"),
    (lambda: vekr.remap(np.zeros((2, 2, 2), np.uint8), np.zeros((2, 5))), ValueError, "(3, ...)"),
    (lambda: vekr.convolve(np.zeros((2, 2, 2), np.float32), np.ones((1, 1, 1))), TypeError, "int16"),
    (lambda: vekr.convolve(np.zeros((2, 2, 2), np.int16), np.ones((1, 1, 1)) * 0.5), TypeError, "integers"),
    (lambda: vekr.convolve(np.zeros((2, 2, 2), np.int16), np.ones((3, 3, 3), int), anchor=(0, 3, 0)), ValueError,
     "inside the kernel"),
    (lambda: vekr.convolve(np.zeros((2, 2, 2), np.int16), np.ones((1, 1, 1), int), mode="same"), ValueError, "mode"),
    (lambda: vekr.warp_affine(np.zeros((4, 4, 4), np.uint8), np.eye(4), cval=-1), ValueError, "cval"),
])
def test_bad_arguments_raise_before_the_library(call, exc, text):
    with pytest.raises(exc, match=None) as e:
        call()
    assert text in str(e.value)


@pytest.mark.parametrize("call,status,text", [
    (lambda: vekr.resize(np.zeros((0, 4, 4), np.float32), (2, 2, 2)), "vekStatusBadSize",
     "vekStatusBadSize in resize: volume depth must be at least 1"),
    (lambda: vekr.resize(np.zeros((2, 2, 2), np.float32), (2, 0, 2)), "vekStatusBadSize", "output shape"),
    (lambda: vekr.resize(np.zeros((2, 2, 2), np.uint8), (2, 2, 2), interpolation=3), "vekStatusBadInterpolation",
     "in resize"),
    (lambda: vekr.resize(np.zeros((2, 2, 2), np.uint8), zoom=-1.0), "vekStatusBadResizeFactor", "in resize"),
    (lambda: vekr.resize(np.zeros((4, 4, 4), np.uint8), (2, 2, 2), region=((-1, 2), (0, 2), (0, 2))),
     "vekStatusBadSize", "region"),
    (lambda: vekr.warp_affine(np.zeros((4, 4, 4), np.uint16), np.diag([1, 1e-11, 1, 1.0])),
     "vekStatusSingularTransform", "singular"),
    (lambda: vekr.warp_affine(np.zeros((4, 4, 4), np.uint16), np.eye(4), interpolation=0),
     "vekStatusBadInterpolation", "warp_affine"),
    (lambda: vekr.remap(np.zeros((4, 4, 4), np.float32), np.zeros((3, 2, 0, 2))), "vekStatusBadSize", "remap"),
    (lambda: vekr.convolve(np.zeros((4, 4, 4), np.int16), np.ones((1, 1, 1), int), 0), "vekStatusBadSize",
     "divisor must not be 0"),
    (lambda: vekr.convolve(np.zeros((2, 2, 2), np.int16), np.ones((3, 3, 3), int), mode="valid"),
     "vekStatusBadSize", "'valid'"),
])
def test_library_errors_raise_vekr_error_naming_the_status(call, status, text):
    with pytest.raises(vekr.VekrError) as e:
        call()
    assert e.value.status_name == status and e.value.status < 0
    assert str(e.value).startswith(status) and text in str(e.value)


def test_warning_statuses_warn_and_write_nothing():
    src = volume((4, 4, 4), np.float32)
    out = np.full((4, 4, 4), 3.0, np.float32)
    with pytest.warns(vekr.VekrWarning, match="vekStatusVoiOutsideSrc in warp_affine"):
        vekr.warp_affine(src, np.eye(4), region=((4, 6), (0, 4), (0, 4)), out=out)
    assert np.all(out == 3.0)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(vekr.VekrWarning):
            vekr.resize(src, (2, 2, 2), region=((0, 4), (0, 4), (4, 5)))
    with pytest.warns(vekr.VekrWarning, match="vekStatusVoiOutsideSrc in resize"):
        assert not vekr.resize(src, (5, 6, 7), region=((0, 4), (0, 4), (4, 5))).any()


# ------------------------------------------------------------------ threads

def test_results_do_not_depend_on_the_thread_count(threads):
    src = volume((20, 21, 22), np.float32)
    s16 = (volume((20, 21, 22), np.uint16) // 2).astype(np.int16)
    coords = np.random.default_rng(4).uniform(0, 20, (3, 18, 19, 20))
    m = np.array([[1.0, 0.1, 0, 0.5], [0, 0.9, 0.2, 1], [0.1, 0, 1.1, -1]])
    runs = []
    for n in (1, 2, 3):
        vekr.set_num_threads(n)
        assert vekr.get_num_threads() == n
        runs.append([vekr.resize(src, (33, 34, 35), interpolation="catmull-rom"),
                     vekr.warp_affine(src, m, interpolation="linear"),
                     vekr.remap(src, coords, interpolation="cubic"),
                     vekr.convolve(s16, np.arange(27).reshape(3, 3, 3) - 13)])
    for other in runs[1:]:
        assert all(capi.same_bits(a, b) for a, b in zip(runs[0], other))
    with pytest.raises(vekr.VekrError, match="vekStatusBadSize in set_num_threads"):
        vekr.set_num_threads(0)


def test_the_gil_is_released_during_a_call():
    """While one thread is inside an affine warp (about 0.1 to 0.2 s), another Python thread keeps waking
    up: it records times, and some fall between the moments the worker
    entered and left the call. Had the call kept the GIL, none could."""
    src = volume((128, 128, 128), np.float32)
    m = np.array([[1, 0.1, 0, 0], [0, 1, 0.1, 0], [0.1, 0, 1, 0]])
    window, started = [], threading.Event()

    def work():
        started.set()
        t0 = time.perf_counter()
        vekr.warp_affine(src, m, interpolation="cubic")
        window.extend([t0, time.perf_counter()])

    t = threading.Thread(target=work)
    t.start()
    started.wait()
    stamps = []
    while t.is_alive():
        stamps.append(time.perf_counter())
        time.sleep(0.0005)
    t.join()
    inside = sum(window[0] < s < window[1] for s in stamps)
    assert inside >= 5, (inside, window[1] - window[0])


def test_concurrent_callers_get_the_serial_results():
    """Python threads run the library at the same time (the GIL is released);
    each gets what it gets alone, including the first use of an SH state."""
    from concurrent.futures import ThreadPoolExecutor

    src = volume((20, 21, 22), np.float32)
    dirs = np.random.default_rng(9).normal(size=(64, 3))
    jobs = [lambda i=i: vekr.resize(src, (30 + i, 25, 19), interpolation="catmull-rom") for i in range(6)]
    jobs += [lambda o=o: vekr.sh_eval(dirs, o, method="recurrence") for o in (9, 10, 11, 12, 13, 14)]
    with ThreadPoolExecutor(4) as pool:
        together = list(pool.map(lambda f: f(), jobs * 3))
    alone = [f() for f in jobs * 3]
    assert all(capi.same_bits(a, b) for a, b in zip(together, alone))


def test_non_finite_maps_matrices_and_factors_reach_the_library():
    """Not-a-number and infinite coordinates, coefficients and factors are
    passed on unchanged: the library keeps every read inside the source
    region (a NaN map coordinate reads a voxel of the region with nearest
    sampling and is outside for the others), and refuses factors it cannot
    use with its own status."""
    src = np.arange(64, dtype=np.uint8).reshape(4, 4, 4)
    nan_maps = np.full((3, 2, 2, 2), np.nan)
    got = vekr.remap(src, nan_maps, interpolation="nearest")
    assert got.shape == (2, 2, 2) and np.isin(got, src).all()
    assert (vekr.remap(src, nan_maps, interpolation="linear", cval=7) == 7).all()
    assert (vekr.remap(np.zeros((1, 4, 4), np.uint8), nan_maps) == 0).all()
    got = vekr.warp_affine(src, np.full((3, 4), np.nan), cval=9)
    assert got.shape == src.shape and (got == 9).all()
    with pytest.raises(vekr.VekrError, match="vekStatusBadSize"):
        vekr.resize(src, zoom=np.inf)
    with pytest.raises(vekr.VekrError, match="vekStatusBadResizeFactor"):
        vekr.resize(src, zoom=np.nan)
