"""The Delaunay class: input checks, progress display and the scipy-style
attributes around velm3d._core.Triangulation."""

import os
import sys
import time

import numpy as np

from . import _core

__all__ = ["Delaunay"]


def _as_rows(points, what):
    """An (n, 3) float64 C-ordered view of `points`, copied only when its
    dtype or layout requires it. Raises ValueError naming the first row that
    can't be read as three numbers."""
    try:
        arr = np.asarray(points)
    except ValueError:
        arr = None  # ragged nesting: find the row below
    if arr is not None and arr.dtype != object and arr.size == 0 and arr.ndim in (1, 2) and len(arr) == 0:
        return np.empty((0, 3), dtype=np.float64)
    if arr is not None and arr.ndim == 2 and arr.shape[1] == 3 and arr.dtype != object:
        try:
            return np.ascontiguousarray(arr, dtype=np.float64)
        except (TypeError, ValueError):
            pass  # a row with text that is no number
    if arr is not None and arr.ndim == 1 and arr.dtype != object and arr.shape[0] == 3:
        raise ValueError(f"{what} must have shape (n, 3); got one point of shape (3,): use [[x, y, z]]")
    if arr is not None and arr.ndim != 2 and arr.dtype != object:
        raise ValueError(f"{what} must have shape (n, 3); got shape {arr.shape}")
    try:
        rows = list(points)
    except TypeError:
        raise ValueError(f"{what} must be an array of shape (n, 3); got {type(points).__name__}") from None
    for i, row in enumerate(rows):
        if row is None or (np.ndim(row) == 1 and any(c is None for c in row)):
            raise ValueError(f"{what} row {i}: {row!r} holds None where a number should be")
        try:
            values = np.asarray(row, dtype=np.float64)
        except (TypeError, ValueError):
            raise ValueError(f"{what} row {i}: {row!r} can't be read as three float64 numbers") from None
        if values.shape != (3,):
            raise ValueError(f"{what} row {i}: expected 3 coordinates, got shape {values.shape}")
    return np.ascontiguousarray(np.asarray(rows, dtype=np.float64).reshape(-1, 3))


def resolve_workers(workers):
    """The number of threads for `workers`, as scipy reads it: a positive
    count, or -1 for every core this process may use."""
    if isinstance(workers, (bool, np.bool_)) or not isinstance(workers, (int, np.integer)):
        raise ValueError(f"workers must be an integer; got {workers!r}")
    if workers == -1:
        return len(os.sched_getaffinity(0)) if hasattr(os, "sched_getaffinity") else os.cpu_count() or 1
    if workers < 1:
        raise ValueError(f"workers must be -1 or a positive count; got {workers}")
    return int(workers)


class _ProgressBar:
    """Shows the insertion's progress: tqdm when installed, otherwise one
    line on stderr rewritten at most four times a second."""

    def __init__(self):
        self.done = 0
        self.total = None
        self.bar = None
        self.last_line = 0.0
        try:
            from tqdm import tqdm
        except ImportError:
            self.tqdm = None
        else:
            self.tqdm = tqdm

    def __call__(self, done, total):
        if self.tqdm is not None:
            if self.bar is None or self.total != total:
                self.close()
                self.bar = self.tqdm(total=total, unit="pt", desc="velm3d", file=sys.stderr,
                                     mininterval=0.25)
                self.done = 0
            self.bar.update(done - self.done)
        else:
            now = time.monotonic()
            if now - self.last_line >= 0.25 or done == total:
                self.last_line = now
                sys.stderr.write(f"\rvelm3d: {done} of {total} points inserted ({100 * done // total}%)")
                sys.stderr.flush()
        self.done, self.total = done, total

    def close(self, finished=False):
        if finished and self.total is not None:
            self(self.total, self.total)
        if self.bar is not None:
            self.bar.close()
            self.bar = None
        elif self.tqdm is None and self.total is not None:
            sys.stderr.write("\n")
            sys.stderr.flush()
        self.total = None


class Delaunay:
    """Delaunay triangulation of points in 3D, by exact arithmetic.

    ``Delaunay(points, *, progress=False, check=False, verbose=False, workers=1)``

    points : array_like, shape (n, 3)
        Coordinates, converted to float64; any finite value. NaN and
        infinite values raise ValueError naming the row.
    progress : bool
        Show a progress bar while inserting (tqdm if installed).
    check : bool
        Run ``check()`` after each insertion and raise RuntimeError if it fails.
    verbose : bool
        Let the library print its own lines on standard output.
    workers : int
        Threads, as scipy counts them (a count, or -1 for all cores), for the
        insertion, the arrays derived from the mesh (``transform``,
        ``vertex_neighbor_vertices``) and ``find_simplex``. The rows of
        ``simplices`` come in the order of the library's records: with one
        worker the same for the same points in every run of a program (the
        first triangulation of a process, whose box gets a smaller margin,
        can order them otherwise than later ones), with more (once the
        insertion runs on threads, from a few thousand points) possibly
        another from one run to the next (the set of tetrahedra does not,
        for points in general position).

    Attributes, as in ``scipy.spatial.Delaunay``: ``points``, ``simplices``
    (every tetrahedron positively oriented: corner 3 lies on the side to which
    (p1 - p0) x (p2 - p0) points), ``neighbors`` (entry j across the facet
    opposite corner j, -1 on the hull), ``vertex_to_simplex``,
    ``vertex_neighbor_vertices``, ``convex_hull`` (facets counterclockwise
    seen from outside), ``coplanar`` (rows [point, simplex, vertex] for points
    that repeat an earlier point), ``nsimplex``, ``npoints``, ``ndim``,
    ``min_bound``, ``max_bound``, ``transform``. Beyond scipy: ``vertex_of_point``, ``is_3d``
    and ``check()``.

    Ctrl-C interrupts the construction within a fraction of a second with
    KeyboardInterrupt; the library's memory is freed at once. Interrupting
    ``add_points`` leaves the object's arrays as they were before that call
    and releases the triangulation, so that ``find_simplex``, ``add_points``
    and ``check`` raise RuntimeError from then on.
    """

    def __init__(self, points, *, progress=False, check=False, verbose=False, workers=1):
        self._verbose = verbose
        self._progress = progress
        self._check = check
        self._workers = resolve_workers(workers)
        rows = _as_rows(points, "points")
        self._tri = _core.Triangulation(verbose)
        self.points = np.empty((0, 3), dtype=np.float64)
        self._insert(rows)

    def _insert(self, rows):
        bar = _ProgressBar() if self._progress else None
        try:
            self.simplices, self.neighbors, self.vertex_of_point, self.coplanar = self._tri.insert(
                rows, bar, self._workers)
        finally:
            if bar is not None:
                bar.close(finished=self._tri.is_open)
        # The object keeps its own copy: rows may be a view of the caller's array.
        self.points = np.concatenate((self.points, rows)) if len(self.points) else rows.copy()
        self._vertex_to_simplex = None
        self._vertex_neighbor_vertices = None
        self._convex_hull = None
        self._transform = None
        self._tet_map = None
        if self._check:
            fault = self._tri.check()
            if fault:
                raise RuntimeError(f"the triangulation failed the exact validity check: {fault}")

    @property
    def npoints(self):
        return self.points.shape[0]

    @property
    def nsimplex(self):
        return self.simplices.shape[0]

    @property
    def ndim(self):
        return 3

    @property
    def is_3d(self):
        """False while all points are coplanar or collinear (or fewer than
        four distinct): then ``simplices`` is empty."""
        return self.simplices.shape[0] > 0

    @property
    def min_bound(self):
        return self.points.min(axis=0) if self.npoints else np.full(3, np.nan)

    @property
    def max_bound(self):
        return self.points.max(axis=0) if self.npoints else np.full(3, np.nan)

    @property
    def vertex_to_simplex(self):
        """For each point, a tetrahedron that has it as a corner; -1 for
        points that are no vertex (repeats, or no tetrahedron at all)."""
        if self._vertex_to_simplex is None:
            self._vertex_to_simplex = _core.vertex_to_simplex(self.simplices, self.npoints)
        return self._vertex_to_simplex

    @property
    def vertex_neighbor_vertices(self):
        """(indptr, indices): the vertices joined to vertex k by an edge are
        ``indices[indptr[k]:indptr[k + 1]]``, ascending."""
        if self._vertex_neighbor_vertices is None:
            self._vertex_neighbor_vertices = _core.vertex_neighbor_vertices(
                self.simplices, self.neighbors, self.vertex_to_simplex, self._workers)
        return self._vertex_neighbor_vertices

    @property
    def transform(self):
        """Barycentric transforms, shape (nsimplex, 4, 3), as scipy's: for
        simplex i, ``transform[i, :3]`` is the inverse of T = [p0 - p3, p1 - p3,
        p2 - p3] (columns) and ``transform[i, 3]`` is p3, so that
        ``c = transform[i, :3] @ (x - transform[i, 3])`` are the first three
        barycentric coordinates of x and 1 - c.sum() the fourth. Computed on
        first use."""
        if self._transform is None:
            self._transform = _core.transform(self.points, self.simplices, self._workers)
        return self._transform

    @property
    def convex_hull(self):
        """The hull's triangles as point indices, shape (h, 3), each
        counterclockwise seen from outside."""
        if self._convex_hull is None:
            self._convex_hull = _core.convex_hull(self.simplices, self.neighbors)
        return self._convex_hull

    def find_simplex(self, xi, bruteforce=False, tol=None, *, workers=None):
        """Row of ``simplices`` of a tetrahedron that contains each point of
        `xi` (shape (..., 3)), -1 outside the convex hull and for a query
        with a NaN or infinite coordinate. Decided exactly: points on a
        facet, an edge or a vertex are inside. The queries are located in
        the order of the vertex store's curve, each walk starting from the
        previous answer. `bruteforce` and `tol` are accepted for
        compatibility and have no effect."""
        arr = np.asarray(xi)
        if arr.ndim == 0 or arr.shape[-1] != 3:
            raise ValueError(f"xi must have shape (..., 3); got shape {arr.shape}")
        return self._locate(_as_rows(arr.reshape(-1, 3), "xi"), workers).reshape(arr.shape[:-1])

    def _locate(self, rows, workers=None):
        """find_simplex of (q, 3) float64 rows, in the dtype of simplices."""
        workers = self._workers if workers is None else resolve_workers(workers)
        result = self._tri.find_simplex(rows, workers).astype(self.simplices.dtype, copy=False)
        if self._tet_map is not None:
            result = np.where(result >= 0, self._tet_map[result], -1).astype(self.simplices.dtype)
        return result

    def add_points(self, points, restart=False):
        """Inserts more points. Indices of earlier points, and the meaning of
        ``vertex_of_point`` for them, stay as they were; tetrahedra are
        numbered anew. With `restart` the triangulation is built again from
        all points."""
        rows = _as_rows(points, "points")
        if restart:
            all_rows = np.concatenate((self.points, rows))
            self._tri.close()
            self._tri = _core.Triangulation(self._verbose)
            self.points = np.empty((0, 3), dtype=np.float64)
            rows = all_rows
        self._insert(rows)

    def check(self):
        """Runs the library's exact orientation and sphere tests on every
        tetrahedron and facet; True when the mesh is a valid Delaunay
        triangulation of all points."""
        return not self._tri.check()

    def close(self):
        """Releases the triangulation (its memory); the arrays stay."""
        self._tri.close()

    def __getstate__(self):
        return {"points": self.points, "simplices": self.simplices, "neighbors": self.neighbors,
                "options": (self._progress, self._check, self._verbose, self._workers)}

    def __setstate__(self, state):
        """Rebuilds the triangulation from the points. Should the rebuilt
        mesh number its tetrahedra (or order their corners) otherwise, the
        pickled arrays stay and find_simplex answers in their numbering."""
        self._progress, self._check, self._verbose, self._workers = state["options"]
        self._tri = _core.Triangulation(self._verbose)
        self.points = np.empty((0, 3), dtype=np.float64)
        self._insert(np.ascontiguousarray(state["points"], dtype=np.float64))
        simplices, neighbors = state["simplices"], state["neighbors"]
        if np.array_equal(simplices, self.simplices) and np.array_equal(neighbors, self.neighbors):
            return
        mine = np.lexsort(np.sort(self.simplices, axis=1).T[::-1])
        theirs = np.lexsort(np.sort(simplices, axis=1).T[::-1])
        self._tet_map = np.empty(len(mine), dtype=np.int64)
        self._tet_map[mine] = theirs
        self.simplices, self.neighbors = simplices, neighbors

    def __repr__(self):
        return f"<velm3d.Delaunay: {self.npoints} points, {self.nsimplex} tetrahedra>"
