"""Exactness: the extension's arithmetic, and valid Delaunay triangulations of
the degenerate inputs, checked against exact integer arithmetic."""

import itertools
from fractions import Fraction

import numpy as np
import pytest

import velm3d
from velm3d import _core

from conftest import assert_delaunay, exact_ints, orient


def test_product_error_term_is_exact_so_no_multiply_add_was_contracted(rng):
    # a*b - fl(a*b) is a double, and Two_Product finds it only with plain
    # multiplications; a contracted multiply-add changes these values.
    a = rng.uniform(-1e3, 1e3, 2000) * (1 + 2.0 ** -30)
    b = rng.uniform(-1e3, 1e3, 2000) / 3.0
    for x, y in itertools.chain(zip(a, b), [(1 + 2.0 ** -52, 1 - 2.0 ** -52), (0.1, 0.3), (3.0, 1 / 3)]):
        expected = Fraction(x) * Fraction(y) - Fraction(float(x) * float(y))
        assert Fraction(_core._two_product_tail(x, y)) == expected, (x, y)


def test_orientation_of_nearly_flat_quadruples_matches_exact_sign(rng):
    # Points on a plane through non-representable coefficients, the fourth
    # moved by 0, +1 or -1 units in the last place: a plain double
    # determinant gets many of these wrong.
    for _ in range(300):
        a, b, c = rng.uniform(-1, 1, (3, 3))
        s, t = rng.uniform(0.1, 0.9, 2)
        d = a + s * (b - a) + t * (c - a)
        d[2] = np.nextafter(d[2], rng.choice([-np.inf, np.inf])) if rng.random() < 0.6 else d[2]
        P = exact_ints([a, b, c, d])
        expected = orient(P, [0], [1], [2], [3])[0]
        assert _core._orientation_sign(np.array([a, b, c, d])) == expected


def grid(k):
    return np.array(list(itertools.product(range(k), repeat=3)), dtype=np.float64)


def shell_points(r2):
    """All integer points with x^2 + y^2 + z^2 == r2: exactly cospherical."""
    r = int(np.sqrt(r2)) + 1
    return np.array([p for p in itertools.product(range(-r, r + 1), repeat=3)
                     if p[0] ** 2 + p[1] ** 2 + p[2] ** 2 == r2], dtype=np.float64)


@pytest.mark.parametrize("name, points", [
    ("grid 6^3", grid(6)),
    ("grid 2x3x9 stretched", grid(9)[:, [0, 1, 2]][(grid(9)[:, 0] < 2) & (grid(9)[:, 1] < 3)] * [1, 1e3, 1e-3]),
    ("shell r^2=101", shell_points(101)),
    ("shell and centre", np.vstack([shell_points(50), [[0, 0, 0]]])),
    ("cube corners", grid(2)),
])
def test_degenerate_sets_give_valid_triangulations(name, points):
    tri = velm3d.Delaunay(points, check=True)  # raises if the library's own check fails
    assert_delaunay(tri, points)


def test_random_points_and_power_of_two_scalings_agree(rng):
    # Multiplying by a power of two changes no sign, so huge and tiny copies
    # of the set have the same tetrahedra, down to subnormal numbers.
    points = rng.uniform(1, 2, (1500, 3))
    base = velm3d.Delaunay(points)
    assert_delaunay(base, points)
    key = {tuple(sorted(s)) for s in base.simplices}
    for scale in (2.0 ** 995, 2.0 ** -1000, -(2.0 ** 100), 2.0 ** -1022):
        scaled = velm3d.Delaunay(points * scale)
        assert {tuple(sorted(s)) for s in scaled.simplices} == key
        assert scaled.check()
    # Below that, points lose bits and some coincide: still exact and valid.
    tiny = points[:500] * 2.0 ** -1070
    assert_delaunay(velm3d.Delaunay(tiny), tiny)
    mixed = np.vstack([points[:300] * 4e299, points[300:600] * 1e-300, points[600:900] - 1.5])
    assert_delaunay(velm3d.Delaunay(mixed), mixed)
    # Up to the largest double, where coordinate differences overflow.
    extreme = np.vstack([(points[:200] - 1.5) * np.finfo(float).max, np.eye(3) * np.finfo(float).max])
    assert_delaunay(velm3d.Delaunay(extreme), extreme)


def test_duplicates_collapse_onto_their_first_occurrence(rng):
    base = rng.integers(0, 4, (60, 3)).astype(np.float64)  # many repeats on a small lattice
    points = np.vstack([base, base[::7], [[0.0, -0.0, 0.0]], [[-0.0, 0.0, -0.0]]])
    tri = velm3d.Delaunay(points)
    assert_delaunay(tri, points)
    assert len(tri.coplanar) == len(points) - len(np.unique(points + 0.0, axis=0))
    # coplanar rows name a tetrahedron that has the kept vertex as a corner.
    for point, simplex, vertex in tri.coplanar:
        assert vertex < point and vertex in tri.simplices[simplex]
        assert tri.vertex_to_simplex[point] == -1


@pytest.mark.parametrize("points", [
    np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [1, 1, 0], [0.5, 0.25, 0]]),  # coplanar
    np.array([[i, 2 * i, 3 * i] for i in range(10)], dtype=float),  # collinear
    np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0]]),  # three points
    np.array([[1, 1, 1]] * 5),  # one point five times
    np.empty((0, 3)), [], np.empty(0),  # nothing at all
])
def test_input_without_volume_gives_an_empty_triangulation(points):
    tri = velm3d.Delaunay(points)
    assert tri.nsimplex == 0 and tri.convex_hull.shape == (0, 3)
    assert_delaunay(tri, np.reshape(points, (-1, 3)))
    assert (tri.find_simplex(tri.points) == -1).all() and (tri.vertex_to_simplex == -1).all()


def test_add_points_completes_a_plane_with_earlier_points_in_the_mesh():
    # Four points in a plane wait in the store; the batch that brings
    # volume repeats all four, so it has as many repeats as the store held:
    # the earlier points must still become vertices.
    plane = np.array([[0, 0, 0], [4, 0, 0], [0, 4, 0], [4, 4, 0]], dtype=float)
    tri = velm3d.Delaunay(plane)
    assert not tri.is_3d
    batch = np.vstack([plane, [[1, 1, 3], [2, 1, -2], [3, 3, 1]]])
    tri.add_points(batch)
    allpts = np.vstack([plane, batch])
    assert_delaunay(tri, allpts)
    assert tri.check()


def test_add_points_keeps_indices_and_gives_the_union_triangulation(rng):
    first = rng.uniform(-1, 1, (300, 3))
    second = np.vstack([rng.uniform(-2, 2, (200, 3)), first[:10]])  # outside the hull, and repeats
    tri = velm3d.Delaunay(first)
    tri.add_points(second)
    union = np.vstack([first, second])
    assert_delaunay(tri, union)
    assert np.array_equal(tri.vertex_of_point[300 + 200:], np.arange(10))
    once = velm3d.Delaunay(union)
    assert {tuple(sorted(s)) for s in tri.simplices} == {tuple(sorted(s)) for s in once.simplices}
    tri.add_points(second[:5], restart=True)
    assert_delaunay(tri, np.vstack([union, second[:5]]))
