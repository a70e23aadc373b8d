"""Interpolation of scattered 3D data on the exact Delaunay mesh, with the
signatures of scipy.interpolate: LinearNDInterpolator, NearestNDInterpolator
and griddata.

Queries are located exactly (a query on a facet, an edge or a vertex is
inside), as one batch in the vertex store's curve order. The weights and
values are computed in C++ with the GIL released, on `workers` threads.
"""

import numpy as np

from . import _core
from ._delaunay import Delaunay, _as_rows, resolve_workers

__all__ = ["LinearNDInterpolator", "NearestNDInterpolator", "griddata"]


def _coords(args, what):
    """Query or point coordinates as scipy takes them: one array of shape
    (..., 3), or three arrays (or a tuple of three) broadcast together.
    Answers the (q, 3) float64 rows and the leading shape."""
    if len(args) == 1 and isinstance(args[0], tuple):
        args = args[0]
    if len(args) == 3:
        arr = np.stack(np.broadcast_arrays(*(np.asarray(a, dtype=np.float64) for a in args)), axis=-1)
    elif len(args) == 1:
        arr = np.asarray(args[0])
        if arr.dtype == object:
            return _as_rows(args[0], what), (len(arr),)
    else:
        raise ValueError(f"{what} must be one array of shape (..., 3) or three coordinate arrays")
    if arr.ndim == 0 or arr.shape[-1] != 3:
        raise ValueError(f"{what} must have shape (..., 3); got shape {arr.shape}")
    return _as_rows(arr.reshape(-1, 3), what), arr.shape[:-1]


def _rescaling(points, rescale):
    """scipy's rescale: the centre and the extent of the points (1 where
    the extent is 0), or None."""
    if not rescale:
        return None
    offset = points.mean(axis=0)
    scale = np.ptp(points, axis=0)
    scale[scale == 0] = 1.0
    return offset, scale


def _values_table(values, npoints, complex_ok=True):
    """values as a C-ordered float64 table of one row per point, its value
    shape and whether it holds complex numbers (then as pairs of columns)."""
    values = np.asarray(values)
    if values.ndim == 0 or values.shape[0] != npoints:
        shape = values.shape
        raise ValueError(f"values must have one row per point: {npoints} points, values of shape {shape}")
    is_complex = complex_ok and np.iscomplexobj(values)
    table = np.ascontiguousarray(values.reshape(npoints, -1), dtype=np.complex128 if is_complex else np.float64)
    if is_complex:
        table = table.view(np.float64)
    return table, values.shape[1:], is_complex


class _Interpolator:
    """What both interpolators share: the mesh, the rescaling, the query
    shape handling, and pickling (the mesh rebuilds itself from its points)."""

    def _setup_mesh(self, points, rescale, workers):
        self._workers = resolve_workers(workers)
        if isinstance(points, Delaunay) and not rescale:
            self.tri = points
        else:
            rows = _as_rows(points.points if isinstance(points, Delaunay) else points, "points")
            self._scaling = _rescaling(rows, rescale)
            if self._scaling is not None:
                rows = (rows - self._scaling[0]) / self._scaling[1]
            self.tri = Delaunay(rows, workers=self._workers)
        self.points = self.tri.points if self._scaling is None else self.tri.points * self._scaling[1] + self._scaling[0]

    def _queries(self, args):
        rows, shape = _coords(args, "xi")
        if self._scaling is not None:
            rows = np.ascontiguousarray((rows - self._scaling[0]) / self._scaling[1])
        return rows, shape

    def _shaped(self, flat, shape):
        if self._is_complex:
            flat = flat.view(np.complex128)
        return flat.reshape(shape + self._value_shape)

    _scaling = None


class LinearNDInterpolator(_Interpolator):
    """Piecewise linear interpolation on the Delaunay tetrahedra, as
    ``scipy.interpolate.LinearNDInterpolator``.

    ``LinearNDInterpolator(points, values, fill_value=nan, rescale=False, *, workers=1)``

    points : (n, 3) array or a ``velm3d.Delaunay``
    values : array of shape (n,) or (n, ...), real or complex
    fill_value : the value outside the convex hull and at queries with a NaN
    rescale : scale the points to the unit cube (about their mean) first

    Calling it with xi of shape (..., 3) (or three coordinate arrays) gives
    values of shape (...) + values.shape[1:]. Location is exact: a query on
    the hull is inside. Where the points repeat, the first one's value holds.
    """

    def __init__(self, points, values, fill_value=np.nan, rescale=False, *, workers=1):
        self._setup_mesh(points, rescale, workers)
        self.values, self._value_shape, self._is_complex = _values_table(values, self.tri.npoints)
        self.fill_value = fill_value
        fill = np.full(self.values.shape[1] // (2 if self._is_complex else 1), fill_value,
                       dtype=np.complex128 if self._is_complex else np.float64)
        self._fill = fill.view(np.float64)

    def __call__(self, *args, workers=None):
        rows, shape = self._queries(args)
        workers = self._workers if workers is None else resolve_workers(workers)
        if self.tri.nsimplex == 0:
            flat = np.tile(self._fill, (len(rows), 1))
        else:
            flat = _core.interpolate_linear(self.tri.points, self.tri.simplices, self.tri._locate(rows, workers),
                                            rows, self.values, self._fill, workers)
        return self._shaped(flat, shape)


class NearestNDInterpolator(_Interpolator):
    """The value of the nearest point, as ``scipy.interpolate.NearestNDInterpolator``.

    ``NearestNDInterpolator(x, y, rescale=False, tree_options=None, *, workers=1)``

    The nearest point is found on the Delaunay mesh (which joins every point
    to the points whose cells touch its own): from a corner of the query's
    tetrahedron, to a closer neighbour while there is one. `tree_options`
    is accepted and ignored. A query with a NaN gets NaN (integer values
    then come back as float64); where points repeat, the first one's value
    holds. Input whose points span no volume is searched by brute force.
    """

    def __init__(self, x, y, rescale=False, tree_options=None, *, workers=1):
        self._setup_mesh(x, rescale, workers)
        if self.tri.npoints == 0:
            raise ValueError("NearestNDInterpolator needs at least one point")
        self.values = np.asarray(y)
        if self.values.ndim == 0 or self.values.shape[0] != self.tri.npoints:
            shape = self.values.shape
            raise ValueError(f"values must have one row per point: {self.tri.npoints} points, values of shape {shape}")

    def __call__(self, *args, workers=None):
        rows, shape = self._queries(args)
        workers = self._workers if workers is None else resolve_workers(workers)
        tri = self.tri
        if tri.nsimplex == 0:
            index = self._brute_force(rows)
        else:
            indptr, indices = tri.vertex_neighbor_vertices
            index = _core.nearest_vertex(tri.points, tri.simplices, indptr, indices, tri._locate(rows, workers),
                                         rows, workers)
        missing = index < 0
        result = self.values[np.where(missing, 0, index)]
        if missing.any():
            if not np.issubdtype(result.dtype, np.inexact):
                result = result.astype(np.float64)
            result[missing] = np.nan
        return result.reshape(shape + self.values.shape[1:])

    def _brute_force(self, rows):
        keep = np.unique(self.tri.vertex_of_point)
        points = self.tri.points[keep]
        index = np.empty(len(rows), dtype=np.int64)
        for start in range(0, len(rows), 1024):
            d2 = ((rows[start:start + 1024, None, :] - points[None, :, :]) ** 2).sum(axis=2)
            index[start:start + 1024] = keep[np.argmin(d2, axis=1)]
        index[~np.isfinite(rows).all(axis=1)] = -1
        return index


def griddata(points, values, xi, method="linear", fill_value=np.nan, rescale=False, *, workers=1):
    """Interpolates scattered 3D data at xi, as ``scipy.interpolate.griddata``:
    method 'linear' (fill_value outside the hull and at NaN queries) or
    'nearest'. points and xi may be arrays or tuples of three coordinate
    arrays."""
    rows, _ = _coords((points,) if not isinstance(points, tuple) else points, "points")
    if not isinstance(xi, tuple):
        xi = (xi,)
    if method == "linear":
        return LinearNDInterpolator(rows, values, fill_value=fill_value, rescale=rescale, workers=workers)(*xi)
    if method == "nearest":
        return NearestNDInterpolator(rows, values, rescale=rescale, workers=workers)(*xi)
    raise ValueError(f"Unknown interpolation method {method!r} for 3 dimensional data")
