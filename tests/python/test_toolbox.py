"""The scipy toolbox on the exact mesh: transform, interpolation, Voronoi and
pickling, against scipy on general-position points and against exact
rational arithmetic on grids and cospherical sets; the README's examples."""

import itertools
import pickle
import re
import subprocess
import sys
from fractions import Fraction
from pathlib import Path

import numpy as np
import pytest
import scipy.interpolate as si
from scipy.spatial import ConvexHull, Voronoi as ScipyVoronoi

import velm3d

from conftest import contains, exact_ints
from test_exact import grid, shell_points


@pytest.fixture(scope="module")
def cloud():
    rng = np.random.default_rng(11)
    return rng.normal(size=(1500, 3)), rng.normal(size=(400, 3)) * 1.3


def test_transform_inverts_each_tetrahedron_as_scipy_defines_it(cloud):
    tri = velm3d.Delaunay(cloud[0])
    P = tri.points[tri.simplices]
    T = tri.transform
    assert T.shape == (tri.nsimplex, 4, 3) and np.array_equal(T[:, 3], P[:, 3])
    assert np.allclose(np.einsum("ijk,ilk->ilj", T[:, :3], P[:, :3] - P[:, 3:]), np.eye(3), atol=1e-9)
    assert tri.transform is T  # computed once


@pytest.mark.parametrize("shape, dtype, rescale", [((), float, False), ((2, 2), complex, True), ((3,), int, False)])
def test_linear_and_nearest_match_scipy_in_general_position(cloud, shape, dtype, rescale):
    points, xi = cloud
    rng = np.random.default_rng(5)
    values = (rng.normal(size=(len(points),) + shape) * 10).astype(dtype)
    if dtype is complex:
        values = values + 1j * rng.normal(size=values.shape)
    q = xi.reshape(10, 40, 3)
    ours = velm3d.LinearNDInterpolator(points * [1, 1e3, 1], values, fill_value=-7, rescale=rescale)(q * [1, 1e3, 1])
    theirs = si.LinearNDInterpolator(points * [1, 1e3, 1], values, fill_value=-7, rescale=rescale)(q * [1, 1e3, 1])
    assert ours.shape == theirs.shape == (10, 40) + shape and ours.dtype == theirs.dtype
    assert np.allclose(ours, theirs, rtol=0, atol=1e-9)
    near = velm3d.griddata(points, values, tuple(xi.T), method="nearest", rescale=rescale)
    assert np.array_equal(near, si.griddata(points, values, tuple(xi.T), method="nearest", rescale=rescale))
    assert np.allclose(velm3d.griddata(points, values, xi, workers=2), si.griddata(points, values, xi), equal_nan=True)


def test_linear_is_exact_at_vertices_and_fills_exactly_outside_the_closed_hull():
    points = grid(4)
    values = points @ [3.0, -2.0, 0.5] + 1  # linear: every tetrahedron reproduces it
    rng = np.random.default_rng(2)
    queries = np.vstack([points, rng.uniform(-0.5, 3.5, (200, 3)), [[1.5, 1, 0], [3, 3, 3.0000000000000004],
                                                                     [-2.0 ** -60, 1, 1], [np.nan, 1, 1]]])
    f = velm3d.LinearNDInterpolator(points, values, fill_value=99)
    got = f(queries)
    assert np.array_equal(got[:len(points)], values)
    P = exact_ints(np.vstack([points, queries[:-1]]))
    T = f.tri.simplices
    inside = np.array([contains(P[:len(points)], T, q).any() for q in P[len(points):]] + [False])
    assert np.array_equal(got == 99, ~inside)
    assert np.allclose(got[inside], queries[inside] @ [3.0, -2.0, 0.5] + 1, rtol=0, atol=1e-12)
    assert np.isnan(velm3d.NearestNDInterpolator(points, values)([[np.nan, 0, 0], [0.1, 0, 2.9]])).tolist() == [True, False]


def exact_centres(points, simplices):
    """The set of circumcentres of the tetrahedra, as exact fractions."""
    P = [[Fraction(float(x)) for x in p] for p in points]
    centres = set()
    for s in simplices:
        a = P[s[0]]
        rows = [[x - y for x, y in zip(P[i], a)] for i in s[1:]]
        rhs = [sum(x * x for x in r) / 2 for r in rows]
        det = lambda m: (m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0])
                         + m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]))
        d = det(rows)
        centres.add(tuple(a[k] + det([[r[j] if j != k else b for j in range(3)] for r, b in zip(rows, rhs)]) / d
                          for k in range(3)))
    return centres


@pytest.mark.parametrize("points", [grid(4), shell_points(101), np.vstack([shell_points(50), [[0, 0, 0]]]),
                                    np.vstack([grid(3), grid(3)[:5]]) * [1, 2, 3]])
def test_voronoi_gives_one_vertex_per_exactly_distinct_circumsphere(points):
    vor = velm3d.Voronoi(points)
    centres = exact_centres(vor.points, velm3d.Delaunay(points).simplices)
    assert len(vor.vertices) == len(centres)
    assert {tuple(np.round(v, 9)) for v in vor.vertices} == {tuple(round(float(c), 9) for c in v) for v in centres}
    for (a, b), ridge in zip(vor.ridge_points, vor.ridge_vertices):
        assert len(ridge) >= 3 and len(set(ridge)) == len(ridge) and a < b
    first = velm3d.Delaunay(points).vertex_of_point
    assert np.array_equal(vor.point_region, vor.point_region[first])
    bounded = np.isfinite(vor.volumes)
    assert np.allclose(vor.volumes[bounded].sum(), sum(
        ConvexHull(vor.vertices[vor.regions[r]]).volume for r in np.unique(vor.point_region[bounded])))
    assert all((-1 in vor.regions[r]) != b for r, b in zip(vor.point_region, bounded))


def test_voronoi_matches_scipy_in_general_position(cloud):
    points = cloud[0]
    ours, theirs = velm3d.Voronoi(points), ScipyVoronoi(points)

    def by_ridge(vor):
        return {frozenset(p): sorted(tuple(np.round(vor.vertices[v], 8)) if v >= 0 else () for v in r)
                for p, r in zip(vor.ridge_points.tolist(), vor.ridge_vertices)}

    def by_point(vor):
        return [sorted(tuple(np.round(vor.vertices[v], 8)) if v >= 0 else () for v in vor.regions[r])
                for r in vor.point_region]

    assert by_ridge(ours) == by_ridge(theirs) and by_point(ours) == by_point(theirs)
    bounded = np.nonzero(np.isfinite(ours.volumes))[0][:100]
    hulls = [ConvexHull(theirs.vertices[theirs.regions[theirs.point_region[i]]]).volume for i in bounded]
    assert np.allclose(ours.volumes[bounded], hulls, rtol=1e-9)


def test_threads_and_pickling_change_no_array(cloud):
    points, xi = cloud
    one, four = velm3d.Delaunay(points), velm3d.Delaunay(points, workers=4)
    for a, b in zip((one.transform, one.find_simplex(xi), *one.vertex_neighbor_vertices),
                    (four.transform, four.find_simplex(xi), *four.vertex_neighbor_vertices)):
        assert np.array_equal(a, b)
    vor = velm3d.Voronoi(points, workers=-1)
    objects = [one, vor, velm3d.LinearNDInterpolator(one, points[:, 0]), velm3d.NearestNDInterpolator(points, points)]
    for obj in objects:
        copy = pickle.loads(pickle.dumps(obj))
        for name, value in vars(obj).items():
            if isinstance(value, np.ndarray) and not name.startswith("_"):
                assert np.array_equal(getattr(copy, name), value), name
    assert np.array_equal(copy(xi), objects[3](xi))
    assert np.array_equal(pickle.loads(pickle.dumps(one)).find_simplex(xi), one.find_simplex(xi))
    assert pickle.loads(pickle.dumps(vor)).ridge_vertices == velm3d.Voronoi(points).ridge_vertices


@pytest.mark.parametrize("call, match", [
    (lambda p: velm3d.LinearNDInterpolator(p, np.ones(len(p) - 1)), "one row per point"),
    (lambda p: velm3d.NearestNDInterpolator(p, np.ones((2, len(p)))), "one row per point"),
    (lambda p: velm3d.LinearNDInterpolator(p, np.ones(len(p)))(np.ones((4, 2))), r"shape \(\.\.\., 3\)"),
    (lambda p: velm3d.griddata(np.vstack([p, [[0, np.inf, 0]]]), np.ones(len(p) + 1), p), f"row {20}: .*not finite"),
    (lambda p: velm3d.griddata(p, np.ones(len(p)), p, method="cubic"), "Unknown interpolation method 'cubic'"),
    (lambda p: velm3d.Voronoi(p * [1, 1, 0]), "span no volume"),
    (lambda p: velm3d.Delaunay(p, workers=0), "workers"),
    (lambda p: velm3d.Voronoi(p, workers=-2), "workers"),
])
def test_bad_input_raises_value_error(call, match):
    with pytest.raises(ValueError, match=match):
        call(np.random.default_rng(0).uniform(size=(20, 3)))


def test_exit_while_a_daemon_thread_is_inside_the_library_is_clean():
    code = ("import threading, time, numpy as np, velm3d\n"
            "p = np.random.default_rng(0).uniform(size=(800000, 3))\n"
            "threading.Thread(target=velm3d.Voronoi, args=(p,), daemon=True).start()\n"
            "time.sleep(0.5)\n")
    child = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)
    assert (child.returncode, child.stdout, child.stderr) == (0, "", "")


def test_readme_python_examples_print_what_the_readme_says():
    readme = (Path(__file__).parents[2] / "README.md").read_text()
    section = readme.split("\n## Python\n")[1].split("\n## ")[0]
    examples = re.findall(r"```python\n(.*?)```\s*\n\s*prints\s*\n\s*```text\n(.*?)```", section, re.S)
    assert len(examples) >= 3
    for code, expected in examples:
        child = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
        assert child.stdout == expected, child.stderr
