"""Exact 3D Delaunay triangulation for NumPy arrays.

``velm3d.Delaunay`` takes the place of ``scipy.spatial.Delaunay`` for points in
three dimensions. Every orientation and sphere test is exact, so grids,
cospherical sets, duplicates and coplanar input are ordinary input: the result
is a valid Delaunay triangulation without flat tetrahedra, or, for coplanar
input, an empty one.

``velm3d.Voronoi``, ``velm3d.LinearNDInterpolator``,
``velm3d.NearestNDInterpolator`` and ``velm3d.griddata`` take the place of
their scipy namesakes on the same mesh; all of them pickle.
"""

from importlib.metadata import version as _version

from ._delaunay import Delaunay
from ._interpolate import LinearNDInterpolator, NearestNDInterpolator, griddata
from ._voronoi import Voronoi

__all__ = ["Delaunay", "LinearNDInterpolator", "NearestNDInterpolator", "Voronoi", "griddata"]
# The version of the installed distribution, which setup.py takes from the
# file VERSION, as the C++ library's build does.
__version__ = _version("velm3d")
