"""The Voronoi diagram in 3D, dual of the exact Delaunay mesh, with the
attributes of scipy.spatial.Voronoi.

Tetrahedra whose circumspheres are exactly the same sphere (grid cells,
cospherical shells) give one Voronoi vertex: the exact sphere test decides,
not a tolerance. The arrays are computed in C++ with the GIL released.
"""

import numpy as np

from . import _core
from ._delaunay import Delaunay, resolve_workers

__all__ = ["Voronoi"]


class Voronoi:
    """Voronoi diagram of points in 3D, as ``scipy.spatial.Voronoi``.

    ``Voronoi(points, furthest_site=False, incremental=False, qhull_options=None, *, workers=1)``

    Attributes, as scipy's: ``points``, ``vertices`` (the circumcentres,
    one per distinct circumsphere), ``ridge_points`` (the two points each
    ridge separates), ``ridge_vertices`` (each ridge's Voronoi vertices in
    turn around it; -1 first for a ridge that reaches infinity; ridges with
    fewer than three entries are left out, as scipy does), ``regions`` (the
    vertices of each cell, ascending, -1 first for an unbounded cell),
    ``point_region``, ``ridge_dict``, ``ndim``, ``npoints``, ``min_bound``,
    ``max_bound``. Beyond scipy: ``volumes``, the volume of each point's
    cell (inf where it is unbounded). A point that repeats an earlier one
    shares its region and volume. ``ridge_vertices``, ``regions`` and
    ``ridge_dict`` are Python lists made on first use from the arrays
    ``ridge_indptr``/``ridge_indices`` and ``region_indptr``/``region_indices``.

    Points that span no volume (all coplanar) raise ValueError.
    `incremental` and `qhull_options` are accepted and ignored;
    `furthest_site` is not offered.
    """

    def __init__(self, points, furthest_site=False, incremental=False, qhull_options=None, *, workers=1):
        if furthest_site:
            raise ValueError("furthest_site is not offered")
        tri = Delaunay(points, workers=workers)
        tri.close()  # the arrays are all that is needed
        if not tri.is_3d:
            raise ValueError("the points span no volume (all coplanar, collinear or fewer than four distinct): "
                             "no 3D Voronoi diagram")
        self._build(tri.points, tri.simplices, tri.neighbors, tri.vertex_of_point, tri._workers)

    def _build(self, points, simplices, neighbors, vertex_of_point, workers):
        self.points, self._workers = points, workers
        self._simplices, self._neighbors, self._vertex_of_point = simplices, neighbors, vertex_of_point
        v2s = _core.vertex_to_simplex(simplices, len(points))
        (self.vertices, self.ridge_points, self.ridge_indptr, self.ridge_indices, self.region_indptr,
         self.region_indices, self.point_region, self.volumes) = _core.voronoi(
            points, simplices, neighbors, v2s, vertex_of_point, workers)
        self._ridge_vertices = self._regions = self._ridge_dict = None

    @property
    def ridge_vertices(self):
        if self._ridge_vertices is None:
            self._ridge_vertices = _core.csr_to_lists(self.ridge_indptr, self.ridge_indices)
        return self._ridge_vertices

    @property
    def regions(self):
        if self._regions is None:
            self._regions = _core.csr_to_lists(self.region_indptr, self.region_indices)
        return self._regions

    @property
    def ridge_dict(self):
        if self._ridge_dict is None:
            self._ridge_dict = dict(zip(map(tuple, self.ridge_points.tolist()), self.ridge_vertices))
        return self._ridge_dict

    @property
    def ndim(self):
        return 3

    @property
    def npoints(self):
        return self.points.shape[0]

    @property
    def furthest_site(self):
        return False

    @property
    def min_bound(self):
        return self.points.min(axis=0)

    @property
    def max_bound(self):
        return self.points.max(axis=0)

    def __getstate__(self):
        return {"points": self.points, "simplices": self._simplices, "neighbors": self._neighbors,
                "vertex_of_point": self._vertex_of_point, "workers": self._workers}

    def __setstate__(self, state):
        """Derives the diagram again from the points and their tetrahedra."""
        self._build(state["points"], state["simplices"], state["neighbors"], state["vertex_of_point"],
                    state["workers"])

    def __repr__(self):
        return f"<velm3d.Voronoi: {self.npoints} points, {len(self.vertices)} vertices>"
