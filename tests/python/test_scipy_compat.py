"""The scipy.spatial.Delaunay attributes: the same triangulation, neighbours,
hull and vertex neighbours as scipy's on general-position points, find_simplex
against brute force, and the index arrays' types and ownership."""

import itertools

import numpy as np
import pytest
from scipy.spatial import Delaunay as ScipyDelaunay

import velm3d
from velm3d import _core

from conftest import assert_delaunay, contains, exact_ints


def tet_set(simplices):
    return {frozenset(s) for s in simplices.tolist()}


def neighbour_pairs(tri):
    t, j = np.nonzero(tri.neighbors >= 0)
    return {frozenset((frozenset(tri.simplices[a]), frozenset(tri.simplices[b])))
            for a, b in zip(t, tri.neighbors[t, j])}


@pytest.fixture(scope="module")
def random_pair():
    points = np.random.default_rng(7).normal(size=(3000, 3))
    return points, velm3d.Delaunay(points), ScipyDelaunay(points)


def test_same_tetrahedra_neighbours_and_hull_as_scipy(random_pair):
    points, ours, theirs = random_pair
    assert ours.nsimplex == theirs.nsimplex and ours.npoints == theirs.npoints == len(points)
    assert tet_set(ours.simplices) == tet_set(theirs.simplices)
    assert neighbour_pairs(ours) == neighbour_pairs(theirs)
    assert {frozenset(f) for f in ours.convex_hull.tolist()} == {frozenset(f) for f in theirs.convex_hull.tolist()}
    ip, ix = ours.vertex_neighbor_vertices
    jp, jx = theirs.vertex_neighbor_vertices
    assert all(list(ix[ip[k]:ip[k + 1]]) == sorted(jx[jp[k]:jp[k + 1]]) for k in range(len(points)))
    v2s = ours.vertex_to_simplex
    assert all(v in ours.simplices[v2s[v]] for v in range(ours.npoints))
    assert_delaunay(ours, points)


def brute_force(points, tri, queries):
    """For each query: the set of tetrahedra whose closed hull contains it."""
    P = exact_ints(np.vstack([points, queries]))
    Pp, Q = P[:len(points)], P[len(points):]
    return [set(np.nonzero(contains(Pp, tri.simplices, q))[0]) for q in Q]


def test_find_simplex_matches_brute_force_inside_outside_and_on_the_mesh():
    points = np.array(list(itertools.product(range(4), repeat=3)), dtype=np.float64)
    tri = velm3d.Delaunay(points)
    rng = np.random.default_rng(3)
    queries = np.vstack([
        rng.uniform(-0.5, 3.5, (60, 3)),       # inside and outside
        points[::5],                             # vertices
        [[1.5, 1, 1], [1.5, 1.5, 0], [0, 1.5, 3], [3, 3, 1.25]],  # on edges and hull facets
        [[3.0, 3.0, 3.000000000000001], [-2.0 ** -150, 0, 0], [0, 0, 0]],  # just outside, just outside, corner
    ])
    found = tri.find_simplex(queries)
    assert found.dtype == tri.simplices.dtype
    for q, f, expected in zip(queries, found, brute_force(points, tri, queries)):
        assert (f in expected) if expected else f == -1, q
    assert tri.find_simplex(queries.reshape(-1, 1, 3)).shape == (len(queries), 1)


def test_index_arrays_are_int32_until_the_limit_then_int64(rng):
    points = rng.uniform(-1, 1, (200, 3))
    assert velm3d.Delaunay(points).simplices.dtype == np.int32
    try:
        _core._set_int32_limit(100)
        wide = velm3d.Delaunay(points)
    finally:
        _core._set_int32_limit(2 ** 31 - 1)
    for a in (wide.simplices, wide.neighbors, wide.vertex_of_point, wide.coplanar, wide.convex_hull,
              wide.vertex_to_simplex, *wide.vertex_neighbor_vertices, wide.find_simplex(points[:3])):
        assert a.dtype == np.int64
    assert_delaunay(wide, points)
    found = wide.find_simplex(points)  # each point is a corner of the row found for it
    assert (wide.simplices[found] == np.arange(len(points))[:, None]).any(axis=1).all()
    more = rng.uniform(-1.5, 1.5, (50, 3))
    wide.add_points(more)
    assert_delaunay(wide, np.concatenate((points, more)))


def test_output_arrays_own_their_memory_beyond_the_object(rng):
    points = rng.uniform(-1, 1, (500, 3))
    tri = velm3d.Delaunay(points)
    simplices, neighbors = tri.simplices, tri.neighbors
    copy = simplices.copy()
    assert simplices.flags.c_contiguous and simplices.flags.writeable
    del tri
    assert np.array_equal(simplices, copy) and neighbors.shape == simplices.shape
