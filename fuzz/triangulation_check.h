// triangulation_check.h: the check of the fuzz target fuzz_triangulation. It
// triangulates small, mostly degenerate point sets and checks the mesh with
// the tests' exact checker (tests/exact_checker.h, GMP rationals); tests/
// replays the kept inputs through it without libFuzzer.
//
// Input bytes:
//   byte 0     the lattice: coordinates are taken modulo 8 for most values
//              of its low three bits, modulo 2, 4, 16 or 256 for the others;
//              bit 3 sends the last part through the row intake instead of
//              a vector insert;
//   byte 1     the placement: lattice point c goes to (c + offset) * 2^k,
//              exact in double, for one of four offsets and one of 64
//              exponents k spread over the whole range of doubles, from
//              -1074 (subnormal lattices) to the largest k that keeps the
//              set finite (its differences may overflow);
//   bytes 2,3  where the input is cut: points [0,a) go in one vector insert,
//              [a,b) one by one, [b,n) in a second vector insert (or rows);
//   the rest   three bytes per point (at most kMaxPoints points).
// Every coordinate is finite, which is all the library asks.
//
// The check: checkValidity(..., true) is true; every handle stands at its
// input's position; exact::checkDelaunay accepts the mesh, with the set of
// vertices that must be in it (the others may wait outside, see run); and
// findTetContaining of the midpoint of each two consecutive points gives a
// tetrahedron whose closed set holds it, or null with the midpoint strictly
// beyond a hull facet. A violation prints the library's captured output and
// the offending element, then aborts.
#pragma once

#include <Velm_3D.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "exact_checker.h"

namespace triangulationcheck {

using VELM3D::Point3;
using VELM3D::Tet3;

const size_t kMaxPoints = 96;
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

struct Input {
  std::vector<Point3> vPoints;
  size_t cutA = 0, cutB = 0;
  bool bRows = false;
};

inline Input decode(const uint8_t* data, size_t size) {
  Input in;
  if (size < 4) return in;
  const int modulus = kModuli[data[0] % 8];
  in.bRows = (data[0] & 8) != 0;
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
    double c[3];
    for (int k = 0; k < 3; ++k) c[k] = std::ldexp(double(data[4 + 3 * i + k] % modulus) + offset, exponent);
    in.vPoints.emplace_back(c[0], c[1], c[2]);
  }
  in.cutA = data[2] % (n + 1);
  in.cutB = in.cutA + data[3] % (n - in.cutA + 1);
  return in;
}

// Which vertices the mesh must hold. A vector insertion that makes the mesh
// 3D takes every waiting vertex, except where the store's count then equals
// the vector's length (its repeats make up for the waiting ones): the driver
// compares only counts, triangulates the vector's new vertices, and the
// waiting ones stay out (tests/data/fuzz_triangulation-waiting-points-left-out.bin).
// The single insertion that makes the mesh 3D builds one tetrahedron and
// leaves all other vertices out. The row intake leaves nothing out.
inline void run(Input& in) {
  VELM3D::Velm_3D velm;
  std::set<Point3*> sStored, sWaiting, sLeftOut, sRequired;
  const auto expectHandles = [&](const std::vector<Point3*>& vHandles, size_t from) {
    if (vHandles.size() != 0 && vHandles.size() + from > in.vPoints.size()) fail("too many handles");
    for (size_t i = 0; i < vHandles.size(); ++i)
      if (!(*vHandles[i] == in.vPoints[from + i])) fail("handle at another position");
  };
  const auto insertVector = [&](size_t from, size_t to) {
    if (from == to) return;
    std::vector<Point3> vPart(in.vPoints.begin() + from, in.vPoints.begin() + to);
    std::vector<Point3*> vHandles;
    const bool bWas3D = velm.is3D();
    velm.insert(vPart, vHandles);
    if (vHandles.size() != to - from) fail("one handle per input point expected");
    expectHandles(vHandles, from);
    std::set<Point3*> sNew;
    for (Point3* p : vHandles)
      if (sStored.insert(p).second) sNew.insert(p);
    if (!velm.is3D()) {
      sWaiting.insert(sNew.begin(), sNew.end());
      return;
    }
    if (!bWas3D) {
      const bool bCountsMatch = !sWaiting.empty() && sWaiting.size() + sNew.size() == to - from;
      (bCountsMatch ? sLeftOut : sRequired).insert(sWaiting.begin(), sWaiting.end());
      sWaiting.clear();
    }
    for (Point3* p : vHandles)
      if (sLeftOut.count(p) == 0) sRequired.insert(p);
  };

  insertVector(0, in.cutA);
  for (size_t i = in.cutA; i < in.cutB; ++i) {
    const bool bWas3D = velm.is3D();
    Point3* p = velm.insert(in.vPoints[i]);
    if (p == nullptr || !(*p == in.vPoints[i])) fail("single insertion returned another position");
    sStored.insert(p);
    if (bWas3D) {
      if (sLeftOut.count(p) == 0) sRequired.insert(p);
    } else if (velm.is3D()) {
      sLeftOut.insert(sWaiting.begin(), sWaiting.end());
      sLeftOut.insert(p);
      sWaiting.clear();
    } else {
      sWaiting.insert(p);
    }
  }
  bool bAllRequired = false;
  if (in.bRows && in.cutB < in.vPoints.size()) {
    std::vector<double> vRows;
    for (size_t i = in.cutB; i < in.vPoints.size(); ++i)
      vRows.insert(vRows.end(), {in.vPoints[i].x(), in.vPoints[i].y(), in.vPoints[i].z()});
    std::vector<Point3*> vHandles;
    velm.insertRows(vRows.data(), in.vPoints.size() - in.cutB, vHandles);
    if (vHandles.size() != in.vPoints.size() - in.cutB) fail("one handle per row expected");
    expectHandles(vHandles, in.cutB);
    bAllRequired = velm.is3D();
  } else {
    insertVector(in.cutB, in.vPoints.size());
  }

  if (!velm.checkValidity("fuzz", true)) fail("checkValidity returned false");
  if (!velm.is3D()) {
    if (!sRequired.empty()) fail("points must be in the mesh but it is not 3D");
    return;
  }
  const std::vector<Point3*> vRequired(sRequired.begin(), sRequired.end());
  const std::string fault = exact::checkDelaunay(velm, bAllRequired ? nullptr : &vRequired);
  if (!fault.empty()) fail(fault);

  // Location in the closed hull, of midpoints (rounded where they must be).
  std::vector<Tet3*> vTets;
  velm.getTetrahedra(vTets);
  for (size_t i = 0; i + 1 < in.vPoints.size(); ++i) {
    const Point3 &a = in.vPoints[i], &b = in.vPoints[i + 1];
    const Point3 q(a.x() / 2 + b.x() / 2, a.y() / 2 + b.y() / 2, a.z() / 2 + b.z() / 2);
    const Tet3* pTet = velm.findTetContaining(q);
    if (pTet != nullptr && !exact::containsClosed(pTet, q)) fail("findTetContaining: not in " + exact::tetLine(pTet));
    if (pTet != nullptr) continue;
    bool bBeyond = false;
    for (const Tet3* pHull : vTets)
      for (int k = 0; k < 4 && !bBeyond; ++k)
        if (pHull->getOppTet(k) == nullptr) {
          const Point3 *f0 = pHull->getCorner((k + 1) % 4), *f1 = pHull->getCorner((k + 2) % 4),
                       *f2 = pHull->getCorner((k + 3) % 4);
          bBeyond = exact::orient(*f0, *f1, *f2, q) == -exact::orient(*f0, *f1, *f2, *pHull->getCorner(k));
        }
    if (!bBeyond) fail("findTetContaining: null for a point in the hull");
  }
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
