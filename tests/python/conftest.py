"""The independent oracle of the Python tests: exact integer arithmetic.

Every double is a dyadic rational, so one power of two turns all coordinates
of a point set into Python integers (via fractions.Fraction) without changing
any sign of any determinant. The determinants below run elementwise on NumPy
object arrays of those integers; nothing here uses the library's predicates.
"""

from fractions import Fraction

import numpy as np
import pytest


def exact_ints(points):
    """(n, 3) object array of Python ints: the points times one power of two."""
    fr = [Fraction(float(c)) for c in np.asarray(points, dtype=np.float64).ravel()]
    den = max((f.denominator for f in fr), default=1)
    out = np.empty(len(fr), dtype=object)
    out[:] = [f.numerator * (den // f.denominator) for f in fr]
    return out.reshape(-1, 3)


def det3(u, v, w):
    return (u[:, 0] * (v[:, 1] * w[:, 2] - v[:, 2] * w[:, 1])
            - u[:, 1] * (v[:, 0] * w[:, 2] - v[:, 2] * w[:, 0])
            + u[:, 2] * (v[:, 0] * w[:, 1] - v[:, 1] * w[:, 0]))


def sign(values):
    return np.array([(v > 0) - (v < 0) for v in values], dtype=np.int64)


def orient(P, a, b, c, d):
    """Sign of det[b-a, c-a, d-a] for index arrays: +1 when d lies on the side
    to which (b-a) x (c-a) points."""
    return sign(det3(P[b] - P[a], P[c] - P[a], P[d] - P[a]))


def inside_sphere(P, a, b, c, d, e):
    """True where e lies strictly inside the sphere through the positively
    oriented a, b, c, d."""
    r = [P[i] - P[e] for i in (a, b, c, d)]
    lift = [(x * x).sum(axis=1) for x in r]
    det4 = (-lift[0] * det3(r[1], r[2], r[3]) + lift[1] * det3(r[0], r[2], r[3])
            - lift[2] * det3(r[0], r[1], r[3]) + lift[3] * det3(r[0], r[1], r[2]))
    return sign(det4) < 0


def assert_delaunay(tri, points):
    """Checks that tri is the Delaunay triangulation of points, exactly:
    positive tetrahedra, symmetric neighbours across shared facets with the
    far vertices strictly on opposite sides, empty spheres across every inner
    facet, a closed convex hull, and every distinct point a vertex whose index
    is its first occurrence. Fails on the first broken tetrahedron, named."""
    points = np.asarray(points, dtype=np.float64).reshape(-1, 3)
    S, N = tri.simplices, tri.neighbors
    assert S.shape == N.shape == (tri.nsimplex, 4)
    assert np.array_equal(tri.points, points)
    first = {}
    for i, p in enumerate(map(tuple, points + 0.0)):  # + 0.0 makes -0.0 equal 0.0 as a key
        first.setdefault(p, i)
    expected_vop = np.array([first[tuple(p)] for p in points + 0.0], dtype=np.int64)
    assert np.array_equal(tri.vertex_of_point, expected_vop)
    dup = np.nonzero(expected_vop != np.arange(len(points)))[0]
    assert np.array_equal(tri.coplanar[:, 0], dup)
    assert np.array_equal(tri.coplanar[:, 2], expected_vop[dup])
    if tri.nsimplex == 0:
        # Then the distinct points must span no volume: all in the plane of
        # the first two and the first point off their line (if any is).
        assert not tri.is_3d and not tri.simplices.size and not tri.convex_hull.size
        idx, P = sorted(first.values()), exact_ints(points)
        u = P[idx[1]] - P[idx[0]] if len(idx) > 3 else None  # the cross product u x v is zero on u's line
        spans = [i for i in idx[2:] if u is not None and any(np.roll(u, -1) * np.roll(P[i] - P[idx[0]], 1)
                                                             - np.roll(u, 1) * np.roll(P[i] - P[idx[0]], -1))]
        m = len(idx)
        assert not spans or not orient(P, [idx[0]] * m, [idx[1]] * m, [spans[0]] * m, idx).any()
        return
    P = exact_ints(points)
    assert set(np.unique(S)) == set(first.values()), "not every distinct point is a vertex"
    vol = orient(P, S[:, 0], S[:, 1], S[:, 2], S[:, 3])
    bad = np.nonzero(vol <= 0)[0]
    assert len(bad) == 0, f"tetrahedron {bad[0]} {S[bad[0]]} has orientation {vol[bad[0]]}"
    t, j = np.nonzero(N >= 0)
    n = N[t, j]
    k = np.argmax(N[n] == t[:, None], axis=1)
    assert (N[n, k] == t).all(), "neighbour does not link back"
    facets_t = np.sort(np.where(np.arange(4) == j[:, None], -1, S[t]), axis=1)
    facets_n = np.sort(np.where(np.arange(4) == k[:, None], -1, S[n]), axis=1)
    assert np.array_equal(facets_t, facets_n), "neighbours do not share the facet opposite the vertex"
    f = facets_t[:, 1:]
    side_t = orient(P, f[:, 0], f[:, 1], f[:, 2], S[t, j])
    side_n = orient(P, f[:, 0], f[:, 1], f[:, 2], S[n, k])
    bad = np.nonzero(side_t * side_n != -1)[0]
    assert len(bad) == 0, f"tetrahedra {t[bad[0]]} and {n[bad[0]]} overlap"
    ins = inside_sphere(P, S[t, 0], S[t, 1], S[t, 2], S[t, 3], S[n, k])
    bad = np.nonzero(ins)[0]
    assert len(bad) == 0, f"vertex {S[n[bad[0]], k[bad[0]]]} inside the sphere of tetrahedron {t[bad[0]]} {S[t[bad[0]]]}"
    # The hull: each edge in two hull facets, and convex at every edge.
    H = tri.convex_hull
    assert len(H) == (N < 0).sum()
    ht, hj = np.nonzero(N < 0)
    assert (orient(P, H[:, 0], H[:, 1], H[:, 2], S[ht, hj]) < 0).all(), "hull facet not oriented outwards"
    edges = {}
    for h, tri3 in enumerate(H):
        for e in range(3):
            edges.setdefault(frozenset((tri3[e], tri3[(e + 1) % 3])), []).append(h)
    assert all(len(v) == 2 for v in edges.values()), "hull is not closed"
    fa, far = [], []
    for e, (h1, h2) in edges.items():
        fa += [h1, h2]
        far += [next(iter(set(H[h2]) - e)), next(iter(set(H[h1]) - e))]
    fa, far = np.array(fa), np.array(far)
    assert (orient(P, H[fa, 0], H[fa, 1], H[fa, 2], far) <= 0).all(), "hull is not convex"


def contains(P, tet, q):
    """True where the closed tetrahedron (positively oriented index rows)
    contains the point q (exact ints, shape (3,))."""
    Q = np.vstack([P, q[None, :]])
    qi = np.full(len(tet), len(P))
    a, b, c, d = tet.T
    return ((orient(Q, qi, b, c, d) >= 0) & (orient(Q, a, qi, c, d) >= 0)
            & (orient(Q, a, b, qi, d) >= 0) & (orient(Q, a, b, c, qi) >= 0))


@pytest.fixture
def rng():
    return np.random.default_rng(20240614)
