"""Exact 3D Delaunay triangulation for NumPy arrays.

``velm3d.Delaunay`` takes the place of ``scipy.spatial.Delaunay`` for points in
three dimensions. Every orientation and sphere test is exact, so grids,
cospherical sets, duplicates and coplanar input are ordinary input: the result
is a valid Delaunay triangulation without flat tetrahedra, or, for coplanar
input, an empty one.
"""

from ._delaunay import Delaunay

__all__ = ["Delaunay"]
__version__ = "0.99.0"
