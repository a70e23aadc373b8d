// exact_checker.h: the one independent exact check of a Delaunay mesh, used
// by the triangulation tests and by the fuzz target fuzz_triangulation.
//
// Nothing here uses the library's predicates. A determinant is evaluated in
// double first and decided there only when every difference is of ordinary
// magnitude and the value exceeds a bound on the rounding error about a
// thousand times Shewchuk's; otherwise it is evaluated again in GMP
// rationals, which hold every double exactly.
//
// Sign conventions (geometric words):
//  - orient(a,b,c,d) > 0 when d lies on the side of the plane through a,b,c
//    to which (b-a) x (c-a) points; this is minus the published orient3d.
//    Every live tetrahedron must have orient(c0,c1,c2,c3) > 0.
//  - lifted(p,e) is the published insphere determinant (rows p_i - e with
//    |p_i - e|^2); e is strictly inside the sphere through p0..p3 exactly
//    when lifted * orient(p0..p3) < 0.
//
// checkDelaunay runs the library's structural self-test first (findFault:
// links back, shared facets, visited marks, stored vertices in the mesh) and
// then proves the geometry here: every tetrahedron positive; across every
// inner facet the neighbour's vertex strictly beyond the facet and not
// strictly inside the sphere; the hull a closed surface, convex at every
// edge; every vertex that must be in the mesh a corner of its incident
// tetrahedron. A fault comes back as one line that names the offending
// tetrahedron.
#pragma once

#include <gmpxx.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <initializer_list>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "Velm_3D.h"

namespace exact {

using VELM3D::Point3;
using VELM3D::Tet3;

template <class T> using Row = std::array<T, 3>;

// p - o; exact for rationals, rounded for doubles (the filter's bound covers it).
template <class T> Row<T> diff(const Point3& p, const Point3& o) {
  return {T(p.x()) - T(o.x()), T(p.y()) - T(o.y()), T(p.z()) - T(o.z())};
}

template <class T> T det3(const Row<T>& a, const Row<T>& b, const Row<T>& c) {
  return T(a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
           a[2] * (b[0] * c[1] - b[1] * c[0]));
}

// The sum of the absolute values of the terms of det3.
inline double perm3(const Row<double>& a, const Row<double>& b, const Row<double>& c) {
  using std::fabs;
  return fabs(a[0]) * (fabs(b[1] * c[2]) + fabs(b[2] * c[1])) + fabs(a[1]) * (fabs(b[0] * c[2]) + fabs(b[2] * c[0])) +
         fabs(a[2]) * (fabs(b[0] * c[1]) + fabs(b[1] * c[0]));
}

// The 4x4 determinant of the rows r[i] extended by w[i], expanded along its
// last column: the published insphere determinant when r[i] = p_i - e and
// w[i] = |r[i]|^2.
template <class T> T liftedRows(const Row<T> r[4], const T w[4]) {
  return T(-w[0] * det3(r[1], r[2], r[3]) + w[1] * det3(r[0], r[2], r[3]) - w[2] * det3(r[0], r[1], r[3]) +
           w[3] * det3(r[0], r[1], r[2]));
}

// The published insphere determinant of (p0, p1, p2, p3, e), expanded along
// its lifted column; with T = double, perm receives the bound of its terms.
template <class T> T lifted(const Point3* const p[4], const Point3& e, double* perm) {
  Row<T> r[4];
  T w[4];
  for (int i = 0; i < 4; ++i) {
    r[i] = diff<T>(*p[i], e);
    w[i] = r[i][0] * r[i][0] + r[i][1] * r[i][1] + r[i][2] * r[i][2];
  }
  if constexpr (std::is_same_v<T, double>) {
    *perm = 0.0;
    for (int i = 0; i < 4; ++i) *perm += std::fabs(w[i]) * perm3(r[(i + 1) % 4], r[(i + 2) % 4], r[(i + 3) % 4]);
  }
  return liftedRows(r, w);
}

// The sign of det in double, when every entry of the rows is 0 or of
// magnitude in [low, 1e40] (with low^degree above 1e-306 no product of
// `degree` of them leaves the normal range, and the evaluation errs only
// relatively) and det is clearly apart from zero against perm, the sum of
// its terms' magnitudes; else -2, and the caller decides in rationals.
inline int filtered(std::initializer_list<Row<double>> vRows, double low, double det, double perm) {
  for (const Row<double>& r : vRows)
    for (double c : r)
      if (c != 0.0 && !(std::fabs(c) >= low && std::fabs(c) <= 1e40)) return -2;
  if (std::isfinite(perm) && perm > 1e-250 && std::fabs(det) > 1e-12 * perm) return (det > 0) - (det < 0);
  return -2;
}

inline int orient(const Point3& a, const Point3& b, const Point3& c, const Point3& d) {
  const Row<double> u = diff<double>(b, a), v = diff<double>(c, a), w = diff<double>(d, a);
  const int s = filtered({u, v, w}, 1e-100, det3(u, v, w), perm3(u, v, w));
  return s != -2 ? s : sgn(det3(diff<mpq_class>(b, a), diff<mpq_class>(c, a), diff<mpq_class>(d, a)));
}

inline bool strictlyInsideSphere(const Point3* const p[4], const Point3& e) {
  double perm = 0.0;
  const double det = lifted<double>(p, e, &perm); // sets perm first
  int s = filtered({diff<double>(*p[0], e), diff<double>(*p[1], e), diff<double>(*p[2], e), diff<double>(*p[3], e)},
                   1e-61, det, perm);
  if (s == -2) s = sgn(lifted<mpq_class>(p, e, nullptr));
  return s * orient(*p[0], *p[1], *p[2], *p[3]) < 0;
}

// Whether the closed tetrahedron holds q: no facet has q strictly on the
// side away from the opposite corner.
inline bool containsClosed(const Tet3* pTet, const Point3& q) {
  for (int i = 0; i < 4; ++i) {
    const Point3 *a = pTet->getCorner((i + 1) % 4), *b = pTet->getCorner((i + 2) % 4), *c = pTet->getCorner((i + 3) % 4);
    if (orient(*a, *b, *c, q) == -orient(*a, *b, *c, *pTet->getCorner(i))) return false;
  }
  return true;
}

inline std::string pointText(const Point3* p) {
  std::ostringstream oss;
  oss.precision(17);
  oss << "(" << p->x() << ", " << p->y() << ", " << p->z() << ")";
  return oss.str();
}

inline std::string tetLine(const Tet3* pTet) {
  std::string text = "tet";
  for (int i = 0; i < 4; ++i) text += " " + pointText(pTet->getCorner(i));
  return text;
}

// The first geometric fault of the mesh made of vTets, which must hold every
// vertex of vRequired, as one line; empty when there is none.
inline std::string meshFault(const std::vector<Tet3*>& vTets, const std::vector<Point3*>& vRequired) {
  if (vTets.empty()) return "no tetrahedra";
  const std::unordered_set<const Tet3*> sLive(vTets.begin(), vTets.end());
  struct HullFacet {
    const Point3* p[3];
    int innerSide;
    const Tet3* pTet;
  };
  std::vector<HullFacet> vHull;
  for (const Tet3* pTet : vTets) {
    const Point3* c[4] = {pTet->getCorner(0), pTet->getCorner(1), pTet->getCorner(2), pTet->getCorner(3)};
    if (orient(*c[0], *c[1], *c[2], *c[3]) <= 0) return "not positive: " + tetLine(pTet);
    for (int i = 0; i < 4; ++i) {
      const Point3* f[3] = {c[(i + 1) % 4], c[(i + 2) % 4], c[(i + 3) % 4]};
      const int side = orient(*f[0], *f[1], *f[2], *c[i]);
      const Tet3* pOpp = pTet->getOppTet(i);
      const auto where = [&] { return "facet " + std::to_string(i) + " of " + tetLine(pTet); };
      if (pOpp == nullptr) {
        vHull.push_back({{f[0], f[1], f[2]}, side, pTet});
        continue;
      }
      if (sLive.count(pOpp) == 0) return "neighbour not live across " + where();
      int k = 0;
      while (k < 4 && pTet->hasVertex(pOpp->getCorner(k))) ++k;
      if (k == 4) return "neighbour with the same corners across " + where();
      if (orient(*f[0], *f[1], *f[2], *pOpp->getCorner(k)) != -side)
        return "neighbour's vertex not strictly beyond " + where();
      if (strictlyInsideSphere(c, *pOpp->getCorner(k))) return "neighbour's vertex inside the sphere across " + where();
    }
  }
  // The hull: each hull edge in two hull facets, convex there; a closed
  // surface convex at every edge bounds a convex body.
  std::map<std::pair<const Point3*, const Point3*>, std::vector<size_t>> mEdges;
  for (size_t h = 0; h < vHull.size(); ++h)
    for (int e = 0; e < 3; ++e) mEdges[std::minmax(vHull[h].p[e], vHull[h].p[(e + 1) % 3])].push_back(h);
  for (const auto& edge : mEdges) {
    const HullFacet& a = vHull[edge.second[0]];
    if (edge.second.size() != 2)
      return "hull edge in " + std::to_string(edge.second.size()) + " hull facets of " + tetLine(a.pTet);
    for (const Point3* q : vHull[edge.second[1]].p)
      if (orient(*a.p[0], *a.p[1], *a.p[2], *q) == -a.innerSide) return "hull not convex at a hull facet of " + tetLine(a.pTet);
  }
  for (const Point3* p : vRequired) {
    const Tet3* pOne = p->getOneTet();
    if (pOne == nullptr || sLive.count(pOne) == 0 || !pOne->hasVertex(p)) return "vertex " + pointText(p) + " not in the mesh";
  }
  return "";
}

// The library's structural self-test, then the exact check. pRequired lists
// the vertices that must be in the mesh where the store may hold others that
// legitimately wait outside it (left by single insertions before the first
// tetrahedron, or by the count comparison of a vector insertion); without
// it every stored vertex must be in the mesh.
inline std::string checkDelaunay(VELM3D::Velm_3D& vt, const std::vector<Point3*>* pRequired = nullptr) {
  std::vector<Point3*> vStored;
  std::vector<Tet3*> vTets;
  vt.getVertices(vStored);
  if (vt.is3D()) vt.getTetrahedra(vTets);
  if (const VELM3D::MeshFault fault = vt.findFault(pRequired == nullptr)) return fault.describe();
  return meshFault(vTets, pRequired != nullptr ? *pRequired : vStored);
}

} // namespace exact
