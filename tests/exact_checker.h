// exact_checker.h: an independent exact check of a Delaunay tetrahedral mesh.
//
// Nothing here uses the library's predicates. A determinant is evaluated in
// double first and decided there only when every difference is of ordinary
// magnitude and the value exceeds a bound on the rounding error that is
// about a thousand times Shewchuk's; otherwise it is evaluated again in GMP
// rationals, which hold every input double exactly.
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
#include <initializer_list>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <tuple>
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
  return T(-w[0] * det3(r[1], r[2], r[3]) + w[1] * det3(r[0], r[2], r[3]) - w[2] * det3(r[0], r[1], r[3]) +
           w[3] * det3(r[0], r[1], r[2]));
}

inline int sign(double v) { return (v > 0) - (v < 0); }

// Whether every entry of the rows is 0 or of magnitude in [low, 1e40]: with
// low^degree above 1e-306, no product of `degree` of them leaves the normal
// range, and the double evaluation errs only relatively.
inline bool ordinary(std::initializer_list<Row<double>> vRows, double low) {
  for (const Row<double>& r : vRows)
    for (double c : r)
      if (c != 0.0 && !(std::fabs(c) >= low && std::fabs(c) <= 1e40)) return false;
  return true;
}

// Decides in double when the value is clearly apart from zero, else -2.
inline int filtered(double det, double perm) {
  if (std::isfinite(perm) && perm > 1e-250 && std::fabs(det) > 1e-12 * perm) return sign(det);
  return -2;
}

inline int orient(const Point3& a, const Point3& b, const Point3& c, const Point3& d) {
  const Row<double> u = diff<double>(b, a), v = diff<double>(c, a), w = diff<double>(d, a);
  if (ordinary({u, v, w}, 1e-100)) {
    const int s = filtered(det3(u, v, w), perm3(u, v, w));
    if (s != -2) return s;
  }
  return sgn(det3(diff<mpq_class>(b, a), diff<mpq_class>(c, a), diff<mpq_class>(d, a)));
}

inline int liftedSign(const Point3* const p[4], const Point3& e) {
  const Row<double> r[4] = {diff<double>(*p[0], e), diff<double>(*p[1], e), diff<double>(*p[2], e), diff<double>(*p[3], e)};
  if (ordinary({r[0], r[1], r[2], r[3]}, 1e-61)) {
    double perm = 0.0;
    const double det = lifted<double>(p, e, &perm);  // sets perm first
    const int s = filtered(det, perm);
    if (s != -2) return s;
  }
  return sgn(lifted<mpq_class>(p, e, nullptr));
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
// against the input points: orientation, links, facet counts (a tetrahedron
// listed twice shows there too), the empty sphere property, vertex incidence
// and the convexity of the hull.
inline ::testing::AssertionResult checkMesh(const std::vector<Tet3*>& vTets, const std::vector<Point3*>& vVertices,
                                            const std::vector<Point3>& vInput) {
  using ::testing::AssertionFailure;
  if (vTets.empty()) return AssertionFailure() << "no tetrahedra";
  const std::unordered_set<const Tet3*> sLive(vTets.begin(), vTets.end());
  std::vector<std::pair<Triple, bool>> vFacets; // sorted corners, hull facet
  std::vector<HullFacet> vHull;
  vFacets.reserve(4 * vTets.size());
  for (const Tet3* pTet : vTets) {
    const Point3* c[4] = {pTet->getCorner(0), pTet->getCorner(1), pTet->getCorner(2), pTet->getCorner(3)};
    if (pTet->hasBeenVisited) return AssertionFailure() << "live tetrahedron marked visited: " << tetLine(pTet);
    const int ori = orient(*c[0], *c[1], *c[2], *c[3]);
    if (ori <= 0) return AssertionFailure() << (ori == 0 ? "flat " : "negative ") << tetLine(pTet);
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
        return AssertionFailure() << "neighbour's vertex across facet " << i << " inside the sphere: "
                                  << tetLine(pTet);
    }
  }
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
      return AssertionFailure() << "hull edge in " << edge.second.size()
                                << " hull facets: " << tetLine(vHull[edge.second[0]].pTet);
    const HullFacet& a = vHull[edge.second[0]];
    const HullFacet& b = vHull[edge.second[1]];
    for (const Point3* q : b.p)
      if (q != edge.first.first && q != edge.first.second && outside(a, q))
        return AssertionFailure() << "hull not convex at a facet of " << tetLine(a.pTet);
  }
  if (vHull.size() * vVertices.size() <= 4000000)
    for (const HullFacet& hf : vHull)
      for (const Point3* q : vVertices)
        if (outside(hf, q))
          return AssertionFailure() << "vertex " << *q << " beyond a hull facet of " << tetLine(hf.pTet);
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

// Seeded inputs shared by the tests.
inline std::vector<Point3> randomPoints(size_t n, unsigned long seed, double lo = -1.0, double hi = 1.0) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> d(lo, hi);
  std::vector<Point3> v;
  for (size_t i = 0; i < n; ++i) {
    const double x = d(gen), y = d(gen), z = d(gen);
    v.emplace_back(x, y, z);
  }
  return v;
}

inline std::vector<Point3> grid(int n, double offset = 0.0, double scale = 1.0) {
  std::vector<Point3> v;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < n; ++k) v.emplace_back(offset + scale * i, offset + scale * j, offset + scale * k);
  return v;
}

} // namespace exact
