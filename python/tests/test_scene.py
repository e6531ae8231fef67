"""Scene and its ray queries: equal to the C interface bit for bit, nearest
hits equal to a brute-force search, and the index checks that keep the
unchecked C queries safe."""
import numpy as np
import pytest

import capi
import vekr


def sphere_mesh(nu=24, nv=16, centre=(0, 0, 0), r=1.0):
    """A closed UV sphere: rings of quads split into two triangles each."""
    th = np.linspace(0, np.pi, nv + 1)
    ph = np.linspace(0, 2 * np.pi, nu, endpoint=False)
    t, p = np.meshgrid(th, ph, indexing="ij")
    v = np.stack([np.sin(t) * np.cos(p), np.sin(t) * np.sin(p), np.cos(t)], -1).reshape(-1, 3) * r + centre
    tris = []
    for i in range(nv):
        for j in range(nu):
            a, b = i * nu + j, i * nu + (j + 1) % nu
            c, d = a + nu, b + nu
            tris += [[a, c, b], [b, c, d]]
    tris = np.array(tris)
    area = np.linalg.norm(np.cross(v[tris[:, 1]] - v[tris[:, 0]], v[tris[:, 2]] - v[tris[:, 0]]), axis=1)
    return v.astype(np.float32), tris[area > 1e-9]


@pytest.fixture(scope="module")
def mesh():
    v1, t1 = sphere_mesh()
    v2, t2 = sphere_mesh(12, 8, centre=(1.2, 0.3, -0.4), r=0.5)
    return np.concatenate([v1, v2]), np.concatenate([t1, t2 + len(v1)])


def rays(n, seed=0, origin=(0.3, -0.2, 4.0)):
    rng = np.random.default_rng(seed)
    target = rng.uniform(-1.6, 1.6, (n, 3))
    return np.asarray(origin, np.float32), (target - origin).astype(np.float32)


def brute_force(v, t, o, d):
    """Nearest t > 0 over all triangles (Moller-Trumbore in double) and the
    gap to the second nearest, per ray."""
    v = v.astype(np.float64)
    a, b, c = v[t[:, 0]], v[t[:, 1]], v[t[:, 2]]
    e1, e2 = b - a, c - a
    o = np.broadcast_to(o, d.shape).astype(np.float64)
    d = d.astype(np.float64)
    p = np.cross(d[:, None], e2[None])
    det = np.einsum("rtk,tk->rt", p, e1)
    with np.errstate(divide="ignore", invalid="ignore"):
        inv = 1 / det
        s = o[:, None] - a[None]
        u = np.einsum("rtk,rtk->rt", s, p) * inv
        q = np.cross(s, e1[None])
        w = np.einsum("rk,rtk->rt", d, q) * inv
        dist = np.einsum("rtk,tk->rt", q, e2) * inv
    ok = (u >= -1e-7) & (w >= -1e-7) & (u + w <= 1 + 1e-7) & (dist > 0) & np.isfinite(dist)
    dist = np.where(ok, dist, np.inf)
    order = np.argsort(dist, axis=1)
    near = order[:, 0]
    rows = np.arange(len(d))
    with np.errstate(invalid="ignore"):  # inf - inf for rays that miss
        gap = dist[rows, order[:, 1]] - dist[rows, near]
    return near, dist[rows, near], gap


@pytest.mark.parametrize("n", [1, 15, 16, 100, 203])  # tails only, vector blocks only, both
def test_intersect_equals_c_interface(mesh, n):
    v, t = mesh
    s = vekr.Scene(v, t)
    cs = capi.CScene(v, t)
    o, d = rays(n)
    got = s.intersect(o, d, tmax=10.0)
    ref = capi.intersect(cs, o, d, 10.0)
    assert all(capi.same_bits(a, b) for a, b in zip(got, ref))
    # Per-ray origins (vekrIntersectMO_32f).
    po = (np.broadcast_to(o, d.shape) + np.random.default_rng(1).normal(0, 0.1, d.shape)).astype(np.float32)
    got = s.intersect(po, d, tmax=10.0)
    ref = capi.intersect(cs, po, d, 10.0, per_ray_origin=True)
    assert all(capi.same_bits(a, b) for a, b in zip(got, ref))


def test_occluded_and_multiple_equal_c_interface(mesh):
    v, t = mesh
    s = vekr.Scene(v, t)
    cs = capi.CScene(v, t)
    o, d = rays(150, seed=4)
    active = np.arange(150) % 5 != 0
    got = s.occluded(o, d * 0.8, active=active)
    occ, mask = capi.any_hit(cs, o, d * 0.8, np.where(active, 0, -1))
    assert capi.same_bits(got.triangle, occ)
    assert np.array_equal(got.occluded, occ >= 0) and np.array_equal(mask == -1, got.occluded | ~active)
    assert not got.occluded[~active].any() and got.occluded.any() and not got.occluded.all()
    got = s.intersect_multiple(o, d, 5, tmax=10.0)
    ref = capi.multiple(cs, o, d, 5, 10.0)
    assert all(capi.same_bits(a, np.ascontiguousarray(b)) for a, b in zip(got, ref))


def test_nearest_hit_matches_brute_force(mesh):
    """Rays whose two nearest hits are more than 1e-3 apart report the nearest
    triangle at a distance within 1e-5 relative of the double-precision one."""
    v, t = mesh
    s = vekr.Scene(v, t)
    o, d = rays(400, seed=2)
    h = s.intersect(o, d)
    near, dist, gap = brute_force(v, t, o, d)
    hit = np.isfinite(dist)
    assert np.array_equal(h.triangle >= 0, hit)
    clear = hit & (gap > 1e-3)
    assert clear.sum() > 100
    assert np.array_equal(h.triangle[clear], near[clear])
    np.testing.assert_allclose(h.t[clear], dist[clear], rtol=1e-5)
    assert np.all(h.t[~hit] == np.inf) and np.all(np.isnan(h.u[~hit]))
    # Barycentrics give the hit point back.
    i = np.flatnonzero(clear)
    tri = t[h.triangle[i]]
    w = np.stack([h.u[i], h.v[i], 1 - h.u[i] - h.v[i]], 1)[:, :, None]
    p = (w * v[tri]).sum(1)
    np.testing.assert_allclose(p, o + h.t[i, None] * d[i], atol=1e-5)


def test_multiple_hits_go_through_the_sphere(mesh):
    v, t = mesh
    s = vekr.Scene(v, t)
    d = np.array([[0, 0, -1.0], [0, 0, 1.0]], np.float32)
    h = s.intersect_multiple([0.01, 0.02, 3.0], d, 3)
    assert h.t.shape == (2, 3)
    np.testing.assert_allclose(h.t[0, :2], [2.0, 4.0], atol=5e-3)  # in and out of the faceted unit sphere
    assert h.triangle[0, 2] == -1 and np.all(h.triangle[1] == -1)


def test_simple_build_and_empty_scene(mesh):
    v, t = mesh
    o, d = rays(40, seed=6)
    a = vekr.Scene(v, t, algorithm="simple").intersect(o, d)
    b = vekr.Scene(v, t).intersect(o, d)
    assert np.array_equal(a.triangle >= 0, b.triangle >= 0)
    e = vekr.Scene(np.zeros((0, 3), np.float32), np.zeros((0, 3), int))
    assert e.num_triangles == 0 and np.all(e.intersect(o, d).triangle == -1)
    assert not e.occluded(o, d).occluded.any()


@pytest.mark.parametrize("tris,text", [
    ([[0, 1, 3]], "vertex index 3"),
    ([[0, -1, 2]], "vertex index -1"),
    ([[0, 1, 2 ** 40]], "vertex index"),
])
def test_out_of_range_indices_are_rejected(tris, text):
    v = np.eye(3, dtype=np.float32)
    with pytest.raises(ValueError, match=text):
        vekr.Scene(v, tris)


def test_non_finite_vertices_build_and_answer():
    """The library builds a tree over NaN and infinite vertices; rays through
    such a scene end like any other and never report a hit on a triangle
    with a NaN corner."""
    v = np.array([[0, 0, np.nan], [1, 0, 0], [0, 1, 0], [np.inf, 0, 0], [2, 0, 0], [2, 1, 0]], np.float32)
    s = vekr.Scene(v, [[0, 1, 2], [3, 4, 5]])
    h = s.intersect([0.2, 0.2, 1.0], [[0, 0, -1], [1.5, -0.1, -1]])
    assert h.triangle[0] == -1


def test_nan_rays_are_answered_without_harm(mesh):
    """The traversal's stack is bounded by the tree depth (at most 50), so
    rays of NaN or infinite components end like any other."""
    v, t = mesh
    s = vekr.Scene(v, t)
    d = np.array([[np.nan, 0, -1], [0, 0, np.inf], [0, 0, -1], [np.nan] * 3], np.float32)
    h = s.intersect([0.01, 0.02, 3.0], d)
    assert h.triangle[2] >= 0
    s.intersect(np.full((4, 3), np.nan), d)
    s.occluded([0.01, 0.02, 3.0], d)
    s.intersect_multiple([np.nan, 0, 3], d, 4)


@pytest.mark.parametrize("call,exc,text", [
    (lambda s: s.intersect([0, 0, 1], np.zeros((4, 2))), ValueError, "(..., 3)"),
    (lambda s: s.intersect(np.zeros((3, 3)), np.zeros((4, 3))), ValueError, "origins"),
    (lambda s: s.intersect([0, 0, 1], np.zeros((4, 3)), tmax=np.ones(3)), ValueError, "tmax"),
    (lambda s: s.occluded(np.zeros((4, 3)), np.zeros((4, 3))), ValueError, "origin"),
    (lambda s: s.occluded([0, 0, 1], np.zeros((4, 3)), active=np.ones(5, bool)), ValueError, "active"),
    (lambda s: s.intersect_multiple([0, 0, 1], np.zeros((4, 3)), -1), ValueError, "depth"),
])
def test_bad_ray_arguments_raise(call, exc, text):
    s = vekr.Scene(np.eye(3, dtype=np.float32), [[0, 1, 2]])
    with pytest.raises(exc, match=None) as e:
        call(s)
    assert text in str(e.value)


@pytest.mark.parametrize("kw,status", [
    (dict(max_depth=51), "vekStatusOutOfRange"),
    (dict(cost_balance=1.5), "vekStatusOutOfRange"),
    (dict(memory_limit_mb=31), "vekStatusNoMemory"),
])
def test_bad_build_parameters_raise(kw, status):
    with pytest.raises(vekr.VekrError, match=status + " in Scene"):
        vekr.Scene(np.eye(3, dtype=np.float32), [[0, 1, 2]], **kw)
