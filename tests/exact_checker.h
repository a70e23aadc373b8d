// exact_checker.h: an independent exact check of a Delaunay tetrahedral mesh.
//
// Nothing here uses the library's predicates. A determinant is evaluated in
// double first and decided there only when its value exceeds a bound on the
// rounding error that is about a thousand times Shewchuk's, and nothing under-
// or overflowed; otherwise it is evaluated again in GMP rationals, which hold
// every input double exactly.
//
// Sign conventions (geometric words):
//  - orient(a,b,c,d) > 0 when d lies on the side of the plane through a,b,c
//    to which (b-a) x (c-a) points; this is minus the published orient3d.
//    Every live tetrahedron must have orient(c0,c1,c2,c3) > 0.
//  - lifted(a,b,c,d,e) is the published insphere determinant (rows p-e with
//    |p-e|^2 for p = a,b,c,d); e is strictly inside the sphere through
//    a,b,c,d exactly when lifted * orient < 0.
#pragma once

#include <gmpxx.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>
#include <sstream>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "Velm_3D.h"

namespace exact {

using VELM3D::Point3;
using VELM3D::Tet3;

template <class T>
T det3(const T& ax, const T& ay, const T& az, const T& bx, const T& by, const T& bz, const T& cx,
       const T& cy, const T& cz) {
  return T(ax * (by * cz - bz * cy) - ay * (bx * cz - bz * cx) + az * (bx * cy - by * cx));
}

inline double perm3(double ax, double ay, double az, double bx, double by, double bz, double cx,
                    double cy, double cz) {
  using std::fabs;
  return fabs(ax) * (fabs(by * cz) + fabs(bz * cy)) + fabs(ay) * (fabs(bx * cz) + fabs(bz * cx)) +
         fabs(az) * (fabs(bx * cy) + fabs(by * cx));
}

inline int sign(double v) { return (v > 0) - (v < 0); }
inline int sign(const mpq_class& v) { return sgn(v); }

// Decides in double when the value is clearly apart from zero, else -2.
inline int filtered(double det, double perm) {
  if (std::isfinite(perm) && perm > 1e-250 && std::fabs(det) > 1e-12 * perm) return sign(det);
  return -2;
}

inline int orient(const Point3& a, const Point3& b, const Point3& c, const Point3& d) {
  const double ux = b.x() - a.x(), uy = b.y() - a.y(), uz = b.z() - a.z();
  const double vx = c.x() - a.x(), vy = c.y() - a.y(), vz = c.z() - a.z();
  const double wx = d.x() - a.x(), wy = d.y() - a.y(), wz = d.z() - a.z();
  const int s = filtered(det3(ux, uy, uz, vx, vy, vz, wx, wy, wz), perm3(ux, uy, uz, vx, vy, vz, wx, wy, wz));
  if (s != -2) return s;
  const mpq_class ax(a.x()), ay(a.y()), az(a.z());
  return sign(det3<mpq_class>(b.x() - ax, b.y() - ay, b.z() - az, c.x() - ax, c.y() - ay, c.z() - az,
                              d.x() - ax, d.y() - ay, d.z() - az));
}

template <class T> T lifted(const std::array<std::array<T, 3>, 4>& r) {
  T w[4];
  for (int i = 0; i < 4; ++i) w[i] = r[i][0] * r[i][0] + r[i][1] * r[i][1] + r[i][2] * r[i][2];
  auto minor = [&](int i, int j, int k) {
    return det3<T>(r[i][0], r[i][1], r[i][2], r[j][0], r[j][1], r[j][2], r[k][0], r[k][1], r[k][2]);
  };
  return T(-w[0] * minor(1, 2, 3) + w[1] * minor(0, 2, 3) - w[2] * minor(0, 1, 3) + w[3] * minor(0, 1, 2));
}

// Sign of the published insphere determinant of (a, b, c, d, e).
inline int liftedSign(const Point3* const p[4], const Point3& e) {
  std::array<std::array<double, 3>, 4> r;
  double perm = 0.0;
  for (int i = 0; i < 4; ++i) r[i] = {p[i]->x() - e.x(), p[i]->y() - e.y(), p[i]->z() - e.z()};
  for (int i = 0; i < 4; ++i) {
    const auto& a = r[(i + 1) % 4];
    const auto& b = r[(i + 2) % 4];
    const auto& c = r[(i + 3) % 4];
    const double w = r[i][0] * r[i][0] + r[i][1] * r[i][1] + r[i][2] * r[i][2];
    perm += w * perm3(a[0], a[1], a[2], b[0], b[1], b[2], c[0], c[1], c[2]);
  }
  const int s = filtered(lifted(r), perm);
  if (s != -2) return s;
  const mpq_class ex(e.x()), ey(e.y()), ez(e.z());
  std::array<std::array<mpq_class, 3>, 4> q;
  for (int i = 0; i < 4; ++i) q[i] = {p[i]->x() - ex, p[i]->y() - ey, p[i]->z() - ez};
  return sign(lifted(q));
}

inline bool strictlyInsideSphere(const Point3* const p[4], const Point3& e) {
  return liftedSign(p, e) * orient(*p[0], *p[1], *p[2], *p[3]) < 0;
}

inline std::string tetLine(const Tet3* pTet) {
  std::ostringstream oss;
  oss.precision(17);
  oss << "tet";
  for (int i = 0; i < 4; ++i) {
    const Point3* p = pTet->getCorner(i);
    oss << " (" << p->x() << ", " << p->y() << ", " << p->z() << ")";
  }
  return oss.str();
}

typedef std::array<const Point3*, 3> Triple;

inline Triple sortedTriple(const Point3* a, const Point3* b, const Point3* c) {
  Triple t = {a, b, c};
  std::sort(t.begin(), t.end());
  return t;
}

// A hull facet and the side of its plane on which its tetrahedron lies.
struct HullFacet {
  const Point3* p[3];
  int innerSide;
  const Tet3* pTet;
};

// Checks the mesh given by its live tetrahedra and its stored vertices
// against the input points: orientation, links, facet counts, the empty
// sphere property, vertex incidence and the convexity of the hull.
inline ::testing::AssertionResult checkMesh(const std::vector<Tet3*>& vTets, const std::vector<Point3*>& vVertices,
                                            const std::vector<Point3>& vInput) {
  using ::testing::AssertionFailure;
  if (vTets.empty()) return AssertionFailure() << "no tetrahedra";
  const std::unordered_set<const Tet3*> sLive(vTets.begin(), vTets.end());
  const std::unordered_set<const Point3*> sVertices(vVertices.begin(), vVertices.end());
  std::vector<std::pair<Triple, bool>> vFacets; // sorted corners, hull facet
  std::vector<std::array<const Point3*, 4>> vQuads;
  std::vector<HullFacet> vHull;
  vFacets.reserve(4 * vTets.size());
  for (const Tet3* pTet : vTets) {
    const Point3* c[4] = {pTet->getCorner(0), pTet->getCorner(1), pTet->getCorner(2), pTet->getCorner(3)};
    if (pTet->hasBeenVisited) return AssertionFailure() << "live tetrahedron marked visited: " << tetLine(pTet);
    for (const Point3* p : c)
      if (sVertices.count(p) == 0) return AssertionFailure() << "corner is no stored vertex: " << tetLine(pTet);
    const int ori = orient(*c[0], *c[1], *c[2], *c[3]);
    if (ori <= 0) return AssertionFailure() << (ori == 0 ? "flat " : "negative ") << tetLine(pTet);
    std::array<const Point3*, 4> quad = {c[0], c[1], c[2], c[3]};
    std::sort(quad.begin(), quad.end());
    vQuads.push_back(quad);
    for (int i = 0; i < 4; ++i) {
      const Point3* f[3] = {c[(i + 1) % 4], c[(i + 2) % 4], c[(i + 3) % 4]};
      const Triple key = sortedTriple(f[0], f[1], f[2]);
      const Tet3* pOpp = pTet->getOppTet(i);
      vFacets.emplace_back(key, pOpp == nullptr);
      if (pOpp == nullptr) {
        vHull.push_back({{f[0], f[1], f[2]}, orient(*f[0], *f[1], *f[2], *c[i]), pTet});
        continue;
      }
      if (sLive.count(pOpp) == 0) return AssertionFailure() << "neighbour " << i << " is not live: " << tetLine(pTet);
      int j = 0;
      while (j < 4 && pOpp->getOppTet(j) != pTet) ++j;
      if (j == 4) return AssertionFailure() << "neighbour " << i << " does not link back: " << tetLine(pTet);
      const Point3* pOppVtx = pOpp->getCorner(j);
      const Point3* g[3] = {pOpp->getCorner((j + 1) % 4), pOpp->getCorner((j + 2) % 4), pOpp->getCorner((j + 3) % 4)};
      if (sortedTriple(g[0], g[1], g[2]) != key)
        return AssertionFailure() << "facet " << i << " differs from the neighbour's: " << tetLine(pTet);
      if (orient(*f[0], *f[1], *f[2], *pOppVtx) != -orient(*f[0], *f[1], *f[2], *c[i]))
        return AssertionFailure() << "neighbour's vertex not strictly beyond facet " << i << ": " << tetLine(pTet);
      if (strictlyInsideSphere(c, *pOppVtx))
        return AssertionFailure() << "neighbour's vertex across facet " << i << " inside the sphere: " << tetLine(pTet);
    }
  }
  std::sort(vQuads.begin(), vQuads.end());
  if (std::adjacent_find(vQuads.begin(), vQuads.end()) != vQuads.end())
    return AssertionFailure() << "a tetrahedron is listed twice";
  std::sort(vFacets.begin(), vFacets.end());
  for (size_t i = 0; i < vFacets.size();) {
    size_t k = i;
    bool bHull = false;
    for (; k < vFacets.size() && vFacets[k].first == vFacets[i].first; ++k) bHull = bHull || vFacets[k].second;
    if (k - i != (bHull ? 1u : 2u))
      return AssertionFailure() << (bHull ? "hull" : "inner") << " facet shared by " << (k - i) << " tetrahedra";
    i = k;
  }
  // Vertices: each distinct input point is a vertex with a live incident
  // tetrahedron that has it as a corner, and the store holds nothing else.
  std::map<std::tuple<double, double, double>, const Point3*> mByPosition;
  for (const Point3* p : vVertices) mByPosition[std::make_tuple(p->x(), p->y(), p->z())] = p;
  std::set<std::tuple<double, double, double>> sInput;
  for (const Point3& p : vInput) {
    const auto key = std::make_tuple(p.x(), p.y(), p.z());
    sInput.insert(key);
    const auto it = mByPosition.find(key);
    if (it == mByPosition.end()) return AssertionFailure() << "input point is no vertex: " << p;
    const Tet3* pOne = it->second->getOneTet();
    if (pOne == nullptr || sLive.count(pOne) == 0 || !pOne->hasVertex(it->second))
      return AssertionFailure() << "vertex without a live incident tetrahedron: " << p;
  }
  if (sInput.size() != vVertices.size())
    return AssertionFailure() << vVertices.size() << " vertices for " << sInput.size() << " distinct points";
  // The hull: a closed surface (each hull edge in two hull facets) that is
  // convex at every edge; for small meshes every vertex is tested against
  // every hull facet as well.
  std::map<std::pair<const Point3*, const Point3*>, std::vector<size_t>> mEdges;
  for (size_t h = 0; h < vHull.size(); ++h)
    for (int e = 0; e < 3; ++e)
      mEdges[std::minmax(vHull[h].p[e], vHull[h].p[(e + 1) % 3])].push_back(h);
  auto outside = [](const HullFacet& hf, const Point3* q) {
    return orient(*hf.p[0], *hf.p[1], *hf.p[2], *q) == -hf.innerSide;
  };
  for (const auto& edge : mEdges) {
    if (edge.second.size() != 2)
      return AssertionFailure() << "hull edge in " << edge.second.size() << " hull facets: " << tetLine(vHull[edge.second[0]].pTet);
    const HullFacet& a = vHull[edge.second[0]];
    const HullFacet& b = vHull[edge.second[1]];
    for (const Point3* q : b.p)
      if (q != edge.first.first && q != edge.first.second && outside(a, q))
        return AssertionFailure() << "hull not convex at a facet of " << tetLine(a.pTet);
  }
  if (vHull.size() * vVertices.size() <= 4000000)
    for (const HullFacet& hf : vHull)
      for (const Point3* q : vVertices)
        if (outside(hf, q)) return AssertionFailure() << "vertex " << *q << " beyond a hull facet of " << tetLine(hf.pTet);
  return ::testing::AssertionSuccess();
}

// The same for a facade. The mesh must have at least one tetrahedron.
inline ::testing::AssertionResult isDelaunayOf(VELM3D::Velm_3D& vt, const std::vector<Point3>& vInput) {
  std::vector<Tet3*> vTets;
  std::vector<Point3*> vVertices;
  vt.getTetrahedra(vTets);
  vt.getVertices(vVertices);
  return checkMesh(vTets, vVertices, vInput);
}

} // namespace exact
