"""Direct calls into the libvekr.so that the vekr module has loaded, through
ctypes, for comparing the bindings with the C interface on the same inputs.

Each helper builds the C arguments itself from the documented C conventions
(x, y, z order, byte steps, plane pointers, level-major ray outputs), so a
binding that swaps axes, mis-computes a step or a factor, or picks another
entry point gives different bytes."""
import ctypes as C

import numpy as np

import vekr


def _mapped(name):
    with open("/proc/self/maps") as f:
        for line in f:
            path = line.split()[-1]
            if "/" + name + ".so" in path:
                return path
    raise RuntimeError(f"{name} is not loaded")


lib = C.CDLL(_mapped("libvekr"))
core = C.CDLL(_mapped("libvekcore"))


class Volume(C.Structure):
    _fields_ = [("width", C.c_int32), ("height", C.c_int32), ("depth", C.c_int32)]


class Cuboid(C.Structure):
    _fields_ = [(n, C.c_int32) for n in ("x", "y", "z", "width", "height", "depth")]


class Point3D(C.Structure):
    _fields_ = [("x", C.c_int32), ("y", C.c_int32), ("z", C.c_int32)]


FP = C.POINTER(C.c_float)
IP = C.POINTER(C.c_int32)
VP = C.c_void_p
D = C.c_double

_ctype = {np.dtype(np.uint8): C.c_uint8, np.dtype(np.uint16): C.c_uint16,
          np.dtype(np.float32): C.c_float, np.dtype(np.int16): C.c_int16}
_suffix = {np.dtype(np.uint8): "8u", np.dtype(np.uint16): "16u", np.dtype(np.float32): "32f"}


def _ptr(a):
    return a.ctypes.data


def _planes(a, first=0):
    """Array of plane pointers of a C-contiguous 3-D array."""
    n = a.shape[0]
    arr = (VP * n)(*[a.ctypes.data + z * a.strides[0] for z in range(n)])
    return C.cast(C.byref(arr, first * C.sizeof(VP)), C.POINTER(VP)), arr


def vol_of(a):
    return Volume(a.shape[2], a.shape[1], a.shape[0])


def cuboid(x, y, z, w, h, d):
    return Cuboid(x, y, z, w, h, d)


def num_threads():
    n = C.c_int()
    core.vekGetNumThreads(C.byref(n))
    return n.value


def resize(src, dst, src_voi, factors_xyz, shifts_xyz, code):
    """vekrResize_<t>_C1PV of src_voi into the whole of dst (zero-filled by the caller)."""
    fn = getattr(lib, f"vekrResize_{_suffix[src.dtype]}_C1PV")
    fn.argtypes = [C.POINTER(VP), Volume, C.c_int, Cuboid, C.POINTER(VP), C.c_int, Cuboid] + [D] * 6 + [C.c_int, VP]
    d, h, w = dst.shape
    dst_voi = Cuboid(0, 0, 0, w, h, d)
    size = C.c_int()
    lib.vekrResizeGetBufSize.argtypes = [Cuboid, Cuboid, C.c_int, C.c_int, IP]
    assert lib.vekrResizeGetBufSize(src_voi, dst_voi, 1, code, C.byref(size)) == 0
    buf = np.zeros(size.value + 64, np.uint8)
    sp, _k1 = _planes(src)
    dp, _k2 = _planes(dst)
    return fn(sp, vol_of(src), src.strides[1], src_voi, dp, dst.strides[1], dst_voi,
              *factors_xyz, *shifts_xyz, code, _ptr(buf))


def warp(src, dst, src_voi, coeffs_xyz, code):
    fn = getattr(lib, f"vekrWarpAffine_{_suffix[src.dtype]}_C1PV")
    fn.argtypes = [C.POINTER(VP), Volume, C.c_int, Cuboid, C.POINTER(VP), C.c_int, Cuboid,
                   C.POINTER(C.c_double), C.c_int, VP]
    c = np.ascontiguousarray(coeffs_xyz, np.float64)
    d, h, w = dst.shape
    sp, _k1 = _planes(src)
    dp, _k2 = _planes(dst)
    return fn(sp, vol_of(src), src.strides[1], src_voi, dp, dst.strides[1], Cuboid(0, 0, 0, w, h, d),
              c.ctypes.data_as(C.POINTER(C.c_double)), code, None)


def remap(src, dst, src_voi, xmap, ymap, zmap, code):
    fn = getattr(lib, f"vekrRemap_{_suffix[src.dtype]}_C1PV")
    fn.argtypes = [C.POINTER(VP), Volume, C.c_int, Cuboid, C.POINTER(VP), C.POINTER(VP), C.POINTER(VP), C.c_int,
                   C.POINTER(VP), C.c_int, Volume, C.c_int]
    sp, _k1 = _planes(src)
    dp, _k2 = _planes(dst)
    xp, _k3 = _planes(xmap)
    yp, _k4 = _planes(ymap)
    zp, _k5 = _planes(zmap)
    return fn(sp, vol_of(src), src.strides[1], src_voi, xp, yp, zp, xmap.strides[1], dp, dst.strides[1],
              vol_of(dst), code)


def filter16s(padded, dst, kernel, anchor_xyz, divisor):
    """vekrFilter_16s_C1PV with the source given as a volume that already holds
    the border (kernel size - 1 - anchor before, anchor after, per axis)."""
    kd, kh, kw = kernel.shape
    ax, ay, az = anchor_xyz
    first = kd - 1 - az
    off = ((kh - 1 - ay) * padded.shape[2] + (kw - 1 - ax)) * 2
    arr = (VP * padded.shape[0])(*[padded.ctypes.data + z * padded.strides[0] + off
                                   for z in range(padded.shape[0])])
    sp = C.cast(C.byref(arr, first * C.sizeof(VP)), C.POINTER(VP))
    dp, _k = _planes(dst)
    k = np.ascontiguousarray(kernel, np.int32)
    size = C.c_int()
    lib.vekrFilterGetBufSize.argtypes = [Volume, Volume, C.c_int, IP]
    assert lib.vekrFilterGetBufSize(vol_of(dst), Volume(kw, kh, kd), 1, C.byref(size)) == 0
    buf = np.zeros(size.value, np.uint8)
    lib.vekrFilter_16s_C1PV.argtypes = [C.POINTER(VP), C.c_int, C.POINTER(VP), C.c_int, Volume, IP, Volume,
                                        Point3D, C.c_int, VP]
    return lib.vekrFilter_16s_C1PV(sp, padded.strides[1], dp, dst.strides[1], vol_of(dst),
                                   k.ctypes.data_as(IP), Volume(kw, kh, kd), Point3D(ax, ay, az), divisor, _ptr(buf))


class SHState:
    """A spherical-harmonics state in 16-byte-aligned numpy memory."""

    def __init__(self, order, kind):
        size = C.c_int()
        lib.vekrSHGetSize_32f.argtypes = [C.c_uint32, C.c_uint32, IP]
        assert lib.vekrSHGetSize_32f(order, kind, C.byref(size)) == 0
        self.raw = np.zeros(size.value + 16, np.uint8)
        start = (-self.raw.ctypes.data) % 16
        self.ptr = self.raw.ctypes.data + start
        assert lib.vekrSHInit_32f(VP(self.ptr), C.c_uint32(order), C.c_uint32(kind)) == 0


def sh_eval(xyz, order, kind):
    st = SHState(order, kind)
    x, y, z = (np.ascontiguousarray(xyz[:, i], np.float32) for i in range(3))
    out = np.zeros((len(x), (order + 1) ** 2), np.float32)
    lib.vekrSH_32f.argtypes = [FP, FP, FP, C.c_int, FP, C.c_uint32, VP]
    s = lib.vekrSH_32f(x.ctypes.data_as(FP), y.ctypes.data_as(FP), z.ctypes.data_as(FP), len(x),
                       out.ctypes.data_as(FP), order, VP(st.ptr))
    assert s == 0
    return out


def sh_fwd_c1(xyz, values, order, kind):
    st = SHState(order, kind)
    x, y, z = (np.ascontiguousarray(xyz[:, i], np.float32) for i in range(3))
    v = np.ascontiguousarray(values, np.float32)
    out = np.zeros((order + 1) ** 2, np.float32)
    lib.vekrSHTFwd_32f_C1I.argtypes = [FP, FP, FP, FP, C.c_int, FP, C.c_uint32, VP]
    assert lib.vekrSHTFwd_32f_C1I(x.ctypes.data_as(FP), y.ctypes.data_as(FP), z.ctypes.data_as(FP),
                                  v.ctypes.data_as(FP), len(x), out.ctypes.data_as(FP), order, VP(st.ptr)) == 0
    return out


def sh_fwd_p3(xyz, values3, order, kind):
    """Planar three-channel forward transform (the binding uses the interleaved one)."""
    st = SHState(order, kind)
    x, y, z = (np.ascontiguousarray(xyz[:, i], np.float32) for i in range(3))
    planes = [np.ascontiguousarray(values3[:, c], np.float32) for c in range(3)]
    out = np.zeros((3, (order + 1) ** 2), np.float32)
    vals = (FP * 3)(*[p.ctypes.data_as(FP) for p in planes])
    co = (FP * 3)(*[out[c].ctypes.data_as(FP) for c in range(3)])
    lib.vekrSHTFwd_32f_P3I.argtypes = [FP, FP, FP, C.POINTER(FP), C.c_int, C.POINTER(FP), C.c_uint32, VP]
    assert lib.vekrSHTFwd_32f_P3I(x.ctypes.data_as(FP), y.ctypes.data_as(FP), z.ctypes.data_as(FP), vals, len(x),
                                  co, order, VP(st.ptr)) == 0
    return out


def sh_inv_p3(coeffs3, xyz, kind):
    order = int(round(np.sqrt(coeffs3.shape[1]))) - 1
    st = SHState(order, kind)
    x, y, z = (np.ascontiguousarray(xyz[:, i], np.float32) for i in range(3))
    c = np.ascontiguousarray(coeffs3, np.float32)
    out = np.zeros((3, len(x)), np.float32)
    cp = (FP * 3)(*[c[i].ctypes.data_as(FP) for i in range(3)])
    op = (FP * 3)(*[out[i].ctypes.data_as(FP) for i in range(3)])
    lib.vekrSHTInv_32f_P3.argtypes = [C.POINTER(FP), C.c_uint32, FP, FP, FP, C.POINTER(FP), C.c_int, VP]
    assert lib.vekrSHTInv_32f_P3(cp, order, x.ctypes.data_as(FP), y.ctypes.data_as(FP), z.ctypes.data_as(FP), op,
                                 len(x), VP(st.ptr)) == 0
    return out.T


class CScene:
    """Accelerator records, box and KD tree made through the C interface."""

    def __init__(self, vertices, triangles, algorithm=0x2D07705B, max_depth=40, cost_balance=0.5, mb=2048):
        self.v = np.ascontiguousarray(vertices, np.float32)
        t = np.zeros((len(triangles), 4), np.int32)
        t[:, :3] = triangles
        self.t = t
        self.accel = np.zeros(max(len(t), 1) * 40, np.uint8)
        lib.vekrTriangleAccelInit(VP(self.accel.ctypes.data), VP(self.v.ctypes.data), VP(t.ctypes.data), len(t))
        self.box = (C.c_float * 6)()
        assert lib.vekrSetBoundBox_32f(VP(self.v.ctypes.data), len(self.v), self.box) == 0

        class Params(C.Structure):
            _fields_ = [("algorithm", C.c_uint32), ("maxDepth", C.c_int32), ("costBalance", C.c_float),
                        ("memoryLimitMB", C.c_uint32), ("pClipBox", VP)]

        self.tree = VP()
        size = C.c_int()
        p = Params(algorithm, max_depth, cost_balance, mb, None)
        assert lib.vekrKDTreeBuildAlloc(C.byref(self.tree), VP(self.v.ctypes.data), VP(t.ctypes.data), len(self.v),
                                        len(t), C.byref(size), C.byref(p)) == 0
        self.ctx = (VP * 3)(C.cast(self.box, VP), VP(self.accel.ctypes.data), self.tree)

    def __del__(self):
        lib.vekrKDTreeFree(self.tree)


def _rays(d):
    planes = [np.ascontiguousarray(d[:, i], np.float32) for i in range(3)]
    return planes, (FP * 3)(*[p.ctypes.data_as(FP) for p in planes])


def intersect(cs, origin, dirs, tmax, per_ray_origin=False):
    """One row of len(dirs) rays (the scalar path)."""
    n = len(dirs)
    _k1, dp = _rays(dirs)
    dist = np.full(n, tmax, np.float32)
    u = np.full(n, np.nan, np.float32)
    v = np.full(n, np.nan, np.float32)
    tri = np.zeros(n, np.int32)
    hit = (FP * 2)(u.ctypes.data_as(FP), v.ctypes.data_as(FP))
    if per_ray_origin:
        _k2, op = _rays(origin)
        lib.vekrIntersectMO_32f(op, dp, dist.ctypes.data_as(FP), hit, tri.ctypes.data_as(IP), cs.ctx, n, 1)
    else:
        o = (C.c_float * 3)(*origin)
        lib.vekrIntersectEyeSO_32f(o, dp, dist.ctypes.data_as(FP), hit, tri.ctypes.data_as(IP), cs.ctx, n, 1)
    return dist, u, v, tri


def any_hit(cs, origin, dirs, mask):
    n = len(dirs)
    _k, dp = _rays(dirs)
    occ = np.zeros(n, np.int32)
    m = np.ascontiguousarray(mask, np.int32).copy()
    o = (C.c_float * 3)(*origin)
    lib.vekrIntersectAnySO_32f(o, dp, occ.ctypes.data_as(IP), m.ctypes.data_as(IP), n, 1, cs.ctx)
    return occ, m


def multiple(cs, origin, dirs, depth, tmax):
    n = len(dirs)
    _k, dp = _rays(dirs)
    dist = np.full((depth, n), np.inf, np.float32)
    dist[0] = tmax
    u = np.full((depth, n), np.nan, np.float32)
    v = np.full((depth, n), np.nan, np.float32)
    tri = np.zeros((depth, n), np.int32)
    hit = (FP * 2)(u.ctypes.data_as(FP), v.ctypes.data_as(FP))
    o = (C.c_float * 3)(*origin)
    lib.vekrIntersectMultipleSO_32f(o, dp, dist.ctypes.data_as(FP), hit, tri.ctypes.data_as(IP), n, 1, depth, cs.ctx)
    return dist.T, u.T, v.T, tri.T


def same_bits(a, b):
    """Equal shapes and equal bytes (NaN patterns and signed zeros included)."""
    a, b = np.asarray(a), np.asarray(b)
    return a.shape == b.shape and a.dtype == b.dtype and a.tobytes() == b.tobytes()


__all__ = ["vekr"]
