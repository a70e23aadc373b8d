// triangulation_check.h: the check of the fuzz target fuzz_triangulation. It
// triangulates small, mostly degenerate point sets and checks the mesh
// exactly; tests/ replays the kept inputs through it without libFuzzer.
//
// Input bytes:
//   byte 0     the lattice: coordinates are taken modulo 8 for most values,
//              modulo 2, 4, 16 or 256 for the others;
//   byte 1     the placement: lattice point c goes to (c + offset) * 2^k,
//              exact in double, for one of four offsets and one of 64
//              exponents k spread over the whole range of doubles, from
//              -1074 (subnormal lattices) to the largest k that keeps the
//              set finite (its differences may overflow);
//   bytes 2,3  where the input is cut: points [0,a) go in one vector insert,
//              [a,b) one by one, [b,n) in a second vector insert;
//   the rest   three bytes per point (at most kMaxPoints points).
// Every coordinate is finite, which is all the library asks.
//
// Translation and a positive power-of-two scale keep orientations and sphere
// inclusions, so the check works on the integer lattice coordinates with
// exact integer arithmetic and never uses the library's predicates:
//  - checkValidity(..., true) is true;
//  - every tetrahedron has four distinct known vertices and positive
//    orientation (the fourth corner on the side to which (c1-c0) x (c2-c0)
//    points);
//  - neighbours are mutual and share the facet's three corners; every facet
//    belongs to one or two tetrahedra;
//  - across a hull facet no vertex lies strictly outside (the mesh is convex);
//  - no vertex lies strictly inside the circumsphere of any tetrahedron;
//  - every vertex the mesh must contain is a corner (after a triangulation is
//    started by a single insertion, the points that waited stay out of it).
// A violation prints the library's captured output and the offending
// element, then aborts.
#pragma once

#include <Velm_3D.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace triangulationcheck {

using VELM3D::Point3;
using VELM3D::Tet3;
using Lattice = std::array<int64_t, 3>;

const size_t kMaxPoints = 96;

// Defined behaviour, not a defect: when a vector insertion completes the first
// tetrahedron and the number of stored vertices then equals the vector's
// length (its duplicates make up for the waiting points), only the vector's
// new vertices are triangulated and the waiting ones stay out of the mesh
// (tests/data/fuzz_triangulation-waiting-points-left-out.bin). The check
// accepts it.
const bool kWaitingMayStayOut = true;
const int kModuli[8] = {8, 8, 8, 8, 2, 4, 16, 256};
const double kOffsets[4] = {0.0, -3.5, 1048576.0, -3221225472.0};
// The 64 exponents: -1074 + 33 i for i = 0 to 63, that is up to 1005.
const int kLowestExponent = -1074, kExponentStep = 33, kNumExponents = 64;

inline std::ostringstream gLibraryOutput;

[[noreturn]] inline void fail(const std::string& what) {
  std::fflush(stdout);
  std::cerr << "library output:\n" << gLibraryOutput.str() << "\nFUZZ CHECK FAILED: " << what << std::endl;
  std::abort();
}

inline std::string latticeText(const Lattice& c) {
  return "(" + std::to_string(c[0]) + "," + std::to_string(c[1]) + "," + std::to_string(c[2]) + ")";
}

// det[b-a; c-a; d-a]: positive when d lies on the side of the plane through
// a, b, c to which (b-a) x (c-a) points.
inline __int128 orient(const Lattice& a, const Lattice& b, const Lattice& c, const Lattice& d) {
  const __int128 bx = b[0] - a[0], by = b[1] - a[1], bz = b[2] - a[2];
  const __int128 cx = c[0] - a[0], cy = c[1] - a[1], cz = c[2] - a[2];
  const __int128 dx = d[0] - a[0], dy = d[1] - a[1], dz = d[2] - a[2];
  return bx * (cy * dz - cz * dy) - by * (cx * dz - cz * dx) + bz * (cx * dy - cy * dx);
}

// For a positively oriented a, b, c, d: negative exactly when e lies strictly
// inside their circumsphere (rows p-e with the lifted |p-e|^2, expanded along
// the lifted column).
inline __int128 lifted(const Lattice* p[4], const Lattice& e) {
  Lattice r[4];
  __int128 w[4];
  for (int i = 0; i < 4; ++i) {
    for (int k = 0; k < 3; ++k) r[i][k] = (*p[i])[k] - e[k];
    w[i] = __int128(r[i][0]) * r[i][0] + __int128(r[i][1]) * r[i][1] + __int128(r[i][2]) * r[i][2];
  }
  const Lattice o{0, 0, 0};
  // det3(u,v,w) = orient(0,u,v,w)
  return -w[0] * orient(o, r[1], r[2], r[3]) + w[1] * orient(o, r[0], r[2], r[3]) -
         w[2] * orient(o, r[0], r[1], r[3]) + w[3] * orient(o, r[0], r[1], r[2]);
}

struct Input {
  std::vector<Point3> vPoints;
  std::vector<Lattice> vLattice;
  size_t cutA = 0, cutB = 0;
};

inline Input decode(const uint8_t* data, size_t size) {
  Input in;
  if (size < 4) return in;
  const int modulus = kModuli[data[0] % 8];
  const double offset = kOffsets[data[1] % 4];
  // The largest |c + offset| is below 2^top, and 2^(top + exponent) at most
  // 2^1024: the set stays finite, while its differences may overflow.
  const int top = std::ilogb(std::max(std::fabs(offset), std::fabs(offset + modulus - 1))) + 1;
  // A half-integer offset needs one more bit at the bottom to stay exact.
  const int lowest = offset == std::floor(offset) ? kLowestExponent : kLowestExponent + 1;
  const int exponent = std::max(
      lowest, std::min(kLowestExponent + kExponentStep * ((data[1] / 4) % kNumExponents), 1024 - top));
  const size_t n = std::min((size - 4) / 3, kMaxPoints);
  for (size_t i = 0; i < n; ++i) {
    Lattice c;
    for (int k = 0; k < 3; ++k) c[k] = data[4 + 3 * i + k] % modulus;
    in.vLattice.push_back(c);
    in.vPoints.emplace_back(std::ldexp(double(c[0]) + offset, exponent), std::ldexp(double(c[1]) + offset, exponent),
                            std::ldexp(double(c[2]) + offset, exponent));
  }
  in.cutA = data[2] % (n + 1);
  in.cutB = in.cutA + data[3] % (n - in.cutA + 1);
  return in;
}

inline void checkMesh(VELM3D::Velm_3D& velm, const std::map<Point3*, Lattice>& mLattice,
               const std::set<Point3*>& sRequired) {
  if (!velm.checkValidity("fuzz", true)) fail("checkValidity returned false");
  if (!velm.is3D()) {
    if (!sRequired.empty()) fail("points must be in the mesh but it is not 3D");
    return;
  }
  std::vector<Tet3*> vTets;
  velm.getTetrahedra(vTets);
  if (vTets.empty()) fail("3D mesh without tetrahedra");
  const std::set<Tet3*> sTets(vTets.begin(), vTets.end());
  // The mesh's vertices: every corner and every point that must be one.
  std::set<Point3*> sCorners;
  for (Tet3* pT : vTets)
    for (int i = 0; i < 4; ++i) {
      Point3* p = pT->getCorner(i);
      if (mLattice.count(p) == 0) fail("corner is no inserted vertex");
      sCorners.insert(p);
    }
  for (Point3* p : sRequired)
    if (sCorners.count(p) == 0) fail("vertex " + latticeText(mLattice.at(p)) + " missing from the mesh");
  std::vector<const Lattice*> vMesh;
  for (Point3* p : sCorners) vMesh.push_back(&mLattice.at(p));
  std::map<std::array<Point3*, 3>, int> mFacetUse;

  for (Tet3* pT : vTets) {
    const Lattice* c[4];
    for (int i = 0; i < 4; ++i) c[i] = &mLattice.at(pT->getCorner(i));
    const std::string tetText = latticeText(*c[0]) + latticeText(*c[1]) + latticeText(*c[2]) + latticeText(*c[3]);
    if (orient(*c[0], *c[1], *c[2], *c[3]) <= 0) fail("tetrahedron not positively oriented: " + tetText);

    for (int i = 0; i < 4; ++i) {
      std::array<Point3*, 3> facet;
      for (int j = 1; j < 4; ++j) facet[j - 1] = pT->getCorner((i + j) % 4);
      std::sort(facet.begin(), facet.end());
      ++mFacetUse[facet];
      Tet3* pOpp = pT->getOppTet(i);
      if (pOpp == nullptr) {
        // Hull facet: no vertex strictly on the far side from corner i.
        const Lattice& a = *c[(i + 1) % 4];
        const Lattice& b = *c[(i + 2) % 4];
        const Lattice& d = *c[(i + 3) % 4];
        const __int128 inner = orient(a, b, d, *c[i]);
        for (const Lattice* e : vMesh) {
          const __int128 side = orient(a, b, d, *e);
          if ((inner > 0 && side < 0) || (inner < 0 && side > 0))
            fail("vertex " + latticeText(*e) + " beyond hull facet of " + tetText);
        }
        continue;
      }
      if (sTets.count(pOpp) == 0) fail("neighbour is no live tetrahedron: " + tetText);
      int back = -1;
      for (int j = 0; j < 4; ++j)
        if (pOpp->getOppTet(j) == pT) back = j;
      if (back < 0) fail("neighbourhood not mutual: " + tetText);
      std::array<Point3*, 3> oppFacet;
      for (int j = 1; j < 4; ++j) oppFacet[j - 1] = pOpp->getCorner((back + j) % 4);
      std::sort(oppFacet.begin(), oppFacet.end());
      if (oppFacet != facet) fail("neighbours do not share the facet: " + tetText);
    }

    // A corner gives lifted == 0, so the corners need no exclusion.
    for (const Lattice* e : vMesh)
      if (lifted(c, *e) < 0) fail("vertex " + latticeText(*e) + " inside the sphere of " + tetText);
  }
  for (const auto& [facet, uses] : mFacetUse)
    if (uses > 2) fail("facet used by more than two tetrahedra");
}

inline void run(Input& in) {
  VELM3D::Velm_3D velm;
  std::map<Point3*, Lattice> mLattice;
  std::set<Point3*> sRequired;
  // Handles stored while the mesh was not 3D; if a single insertion starts
  // the mesh, these stay out of it (sLeftOut): the mesh need not contain
  // them, even when they are given again, but a corner is checked as any.
  std::set<Point3*> sWaiting;
  std::set<Point3*> sLeftOut;

  auto record = [&](Point3* p, const Lattice& c, bool bWas3D, bool bWhole) {
    auto it = mLattice.find(p);
    if (it != mLattice.end() && it->second != c) fail("one vertex for two positions " + latticeText(c));
    const bool bNew = it == mLattice.end();
    mLattice[p] = c;
    if ((bWas3D || bWhole) && sLeftOut.count(p) == 0) sRequired.insert(p);
    else if (bNew) sWaiting.insert(p);
  };

  auto insertVector = [&](size_t from, size_t to) {
    if (from == to) return;
    std::vector<Point3> vPart(in.vPoints.begin() + from, in.vPoints.begin() + to);
    std::vector<Point3*> vHandles;
    const bool bWas3D = velm.is3D();
    velm.insert(vPart, vHandles);
    if (vHandles.size() != to - from) fail("one handle per input point expected");
    const bool bNow3D = velm.is3D();
    // A vector insertion that makes the mesh 3D takes every waiting point,
    // except where the store count equals the vector length (see above).
    if (!bWas3D && bNow3D) {
      std::set<Point3*> sNew;
      for (Point3* p : vHandles)
        if (mLattice.count(p) == 0) sNew.insert(p);
      const bool bWaitingLeftOut = kWaitingMayStayOut && !sWaiting.empty() && sWaiting.size() + sNew.size() == to - from;
      if (!bWaitingLeftOut) sRequired.insert(sWaiting.begin(), sWaiting.end());
      else sLeftOut.insert(sWaiting.begin(), sWaiting.end());
      sWaiting.clear();
    }
    for (size_t i = from; i < to; ++i) {
      if (!(*vHandles[i - from] == in.vPoints[i])) fail("handle at another position");
      record(vHandles[i - from], in.vLattice[i], bWas3D, bNow3D);
    }
  };

  insertVector(0, in.cutA);
  for (size_t i = in.cutA; i < in.cutB; ++i) {
    const bool bWas3D = velm.is3D();
    Point3* p = velm.insert(in.vPoints[i]);
    if (p == nullptr || !(*p == in.vPoints[i])) fail("single insertion returned another position");
    // The single insertion that starts the mesh builds one tetrahedron of
    // four stored points; the others, the new one included, stay out of it.
    if (!bWas3D && velm.is3D()) {
      sLeftOut.insert(sWaiting.begin(), sWaiting.end());
      sLeftOut.insert(p);
      sWaiting.clear();
    }
    record(p, in.vLattice[i], bWas3D, velm.is3D());
  }
  insertVector(in.cutB, in.vPoints.size());
  checkMesh(velm, mLattice, sRequired);
}

// Decodes the bytes, triangulates them and checks the mesh; a fault prints
// the library's output and the offending element, then aborts.
inline int checkInput(const uint8_t* data, size_t size) {
  Input in = decode(data, size);
  gLibraryOutput.str("");
  gLibraryOutput.clear();
  std::streambuf* pSaved = std::cout.rdbuf(gLibraryOutput.rdbuf());
  try {
    run(in);
  } catch (const std::exception& e) {
    std::cout.rdbuf(pSaved);
    fail(std::string("exception: ") + e.what());
  }
  std::cout.rdbuf(pSaved);
  std::cout.clear();
  return 0;
}

} // namespace triangulationcheck

