// Triangulations of easy and hard inputs, each verified by the exact checker
// and by the library's own validity check, which must agree.
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using exact::grid;
using exact::randomPoints;
using support::numTets;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// Runs f with the standard output captured (the library reports every vector
// insert) and fails on any error report or lost walk in it.
template <class F> std::string quiet(F f) {
  CaptureStdout();
  try {
    f();
  } catch (...) {
    ADD_FAILURE() << "exception; output:\n" << GetCapturedStdout().substr(0, 3000);
    return "";
  }
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(out.find("ERROR"), std::string::npos) << out.substr(0, 3000);
  return out;
}

void insertAll(Velm_3D& vt, std::vector<Point3> v) {
  quiet([&] { vt.insert(v); });
}

// The exact checker and checkValidity (with the sphere test) both accept.
void expectDelaunay(Velm_3D& vt, const std::vector<Point3>& vAll, const std::string& what) {
  SCOPED_TRACE(what);
  EXPECT_TRUE(vt.is3D());
  EXPECT_TRUE(exact::isDelaunayOf(vt, vAll));
  bool bValid = false;
  const std::string out = quiet([&] { bValid = vt.checkValidity(what, true); });
  EXPECT_TRUE(bValid) << out.substr(0, 3000);
}

void expectBulkDelaunay(const std::vector<Point3>& v, const std::string& what) {
  Velm_3D vt;
  insertAll(vt, v);
  expectDelaunay(vt, v, what);
}

std::vector<Point3> sphere(int r) {
  std::vector<Point3> v;
  for (int x = -r; x <= r; ++x)
    for (int y = -r; y <= r; ++y)
      for (int z = -r; z <= r; ++z)
        if (x * x + y * y + z * z == r * r) v.emplace_back(x, y, z);
  return v;
}

} // namespace

TEST(Uniform, RandomPointsInACube) {
  for (size_t n : {1000, 10000, 100000}) expectBulkDelaunay(randomPoints(n, n), "uniform " + std::to_string(n));
}

// The tetrahedra around a vertex are exactly those that have it as a corner,
// in ascending address order, on a random mesh and on a grid.
TEST(Queries, TetsAroundEachVertexAreItsStar) {
  for (const std::vector<Point3>& v : {randomPoints(300, 41), grid(5)}) {
    Velm_3D vt;
    insertAll(vt, v);
    std::vector<Tet3*> vTets;
    std::vector<Point3*> vVertices;
    quiet([&] { vt.getTetrahedra(vTets); });
    vt.getVertices(vVertices);
    for (Point3* pVtx : vVertices) {
      std::vector<Tet3*> vStar, vAround;
      for (Tet3* pTet : vTets)
        if (pTet->hasVertex(pVtx)) vStar.push_back(pTet);
      std::sort(vStar.begin(), vStar.end());
      quiet([&] { vt.getTetsAroundVertex(pVtx, vAround); });
      ASSERT_EQ(vAround, vStar) << *pVtx;
    }
  }
}

TEST(Degenerate, IntegerGrids) {
  for (int n : {5, 10, 30}) expectBulkDelaunay(grid(n), "grid " + std::to_string(n));
}

TEST(Degenerate, ExactlyCosphericalIntegerPointsAndCubeCorners) {
  for (int r : {5, 7, 25}) {
    const std::vector<Point3> v = sphere(r);
    ASSERT_GT(v.size(), 6u);
    expectBulkDelaunay(v, "sphere " + std::to_string(r));
  }
  expectBulkDelaunay(grid(2), "cube corners");
  // Single inserts, the first four in space, so that none waits outside.
  Velm_3D vt;
  std::vector<Point3> vCube = grid(2, -1.0, 2.0);
  std::swap(vCube[3], vCube[4]);
  for (Point3& p : vCube) quiet([&] { vt.insert(p); });
  expectDelaunay(vt, vCube, "cube corners, single inserts");
  EXPECT_GE(numTets(vt), 5u);
  EXPECT_LE(numTets(vt), 6u);
}

TEST(Degenerate, FullyCoplanarOrCollinearSetsMakeNoTetrahedron) {
  std::vector<Point3> vPlane, vLine, vSame(20, Point3(1, 2, 3));
  for (int i = 0; i < 20; ++i)
    for (int j = 0; j < 20; ++j) vPlane.emplace_back(i + 0.5 * j, 3.0 * j - i, 2.0 * i + j);
  for (int i = 0; i < 50; ++i) vLine.emplace_back(i, 2.0 * i, -3.0 * i);
  for (auto* pv : {&vPlane, &vLine, &vSame}) {
    Velm_3D vt;
    insertAll(vt, *pv);
    Point3 single(35.0, 0.0, 70.0); // in the plane of vPlane, on no line of vLine
    quiet([&] { vt.insert(single); });
    EXPECT_FALSE(vt.is3D());
    EXPECT_EQ(numTets(vt), 0u);
  }
}

TEST(Degenerate, CoplanarFirstPointsThenSpace) {
  // A coplanar vector waits in the store; the next vector brings it in.
  std::vector<Point3> vFlat;
  for (int i = 0; i < 12; ++i)
    for (int j = 0; j < 12; ++j) vFlat.emplace_back(i, j, 0.0);
  Velm_3D vt;
  insertAll(vt, vFlat);
  EXPECT_FALSE(vt.is3D());
  const std::vector<Point3> vMore = randomPoints(300, 7, 0.0, 11.0);
  insertAll(vt, vMore);
  std::vector<Point3> vAll(vFlat);
  vAll.insert(vAll.end(), vMore.begin(), vMore.end());
  expectDelaunay(vt, vAll, "flat then space");

  // One vector whose points are coplanar except a single apex: everything
  // but the first tetrahedron goes over hull facets of a flat layer.
  std::vector<Point3> vPyramid(vFlat);
  vPyramid.emplace_back(5.5, 5.5, 4.0);
  expectBulkDelaunay(vPyramid, "pyramid");
  vPyramid.emplace_back(5.5, 5.5, -4.0);
  expectBulkDelaunay(vPyramid, "double pyramid");
}

TEST(Duplicates, TenPercentExactRepeatsShareTheirHandles) {
  std::vector<Point3> v = randomPoints(5000, 11);
  std::mt19937_64 gen(12);
  for (int i = 0; i < 500; ++i) v.push_back(v[gen() % 5000]);
  v.push_back(Point3(-0.0, 0.0, 0.0));
  v.push_back(Point3(0.0, -0.0, 0.0)); // equal positions: +0 and -0 compare equal
  std::shuffle(v.begin(), v.end(), gen);
  Velm_3D vt;
  std::vector<Point3*> vHandles;
  quiet([&] { vt.insert(v, vHandles); });
  ASSERT_EQ(vHandles.size(), v.size());
  for (size_t i = 0; i < v.size(); ++i) EXPECT_TRUE(*vHandles[i] == v[i]);
  expectDelaunay(vt, v, "duplicates"); // also: 5001 vertices, no more
}

TEST(NearDegenerate, GridMovedByOneUnitInTheLastPlace) {
  std::mt19937_64 gen(5);
  // Offsets keep every coordinate away from zero: a step from zero would be
  // a subnormal number, whose products underflow.
  for (double offset : {-4.5, 100.0}) {
    std::vector<Point3> v = grid(10, offset);
    for (Point3& p : v) {
      double c[3] = {p.x(), p.y(), p.z()};
      for (double& x : c) {
        const int r = static_cast<int>(gen() % 3);
        if (r == 1) x = std::nextafter(x, 1e300);
        if (r == 2) x = std::nextafter(x, -1e300);
      }
      p = Point3(c[0], c[1], c[2]);
    }
    expectBulkDelaunay(v, "grid moved by an ulp, offset " + std::to_string(offset));
  }
}

TEST(Hull, PointsExactlyOnHullFacetsAndHullEdges) {
  // Cube corners, then points on the cube's faces: face centres and points
  // on the cube's edges lie on hull edges, the others inside hull facets.
  Velm_3D vt;
  std::vector<Point3> vAll = grid(2, 0.0, 4.0);
  insertAll(vt, vAll);
  const double onFaces[][3] = {{2, 2, 0}, {1, 2, 0}, {2, 0, 0}, {4, 2, 2}, {4, 1, 3}, {0, 0, 2}, {3, 4, 1},
                               {2, 2, 4}, {1, 1, 4}, {0, 3, 3}, {4, 4, 3}, {0.5, 0, 3.5}, {2, 4, 0}};
  for (const auto& c : onFaces) {
    Point3 p(c[0], c[1], c[2]);
    quiet([&] { vt.insert(p); });
    vAll.push_back(p);
    expectDelaunay(vt, vAll, "single on the hull");
  }
  // The same as a vector, on a simplex: points on its slanted facet x+y+z=8
  // and on its edges.
  Velm_3D vt2;
  std::vector<Point3> vSimplex = {Point3(0, 0, 0), Point3(8, 0, 0), Point3(0, 8, 0), Point3(0, 0, 8)};
  insertAll(vt2, vSimplex);
  std::vector<Point3> vOn;
  for (int x = 0; x <= 8; ++x)
    for (int y = 0; x + y <= 8; ++y) vOn.emplace_back(x, y, 8 - x - y);
  for (int t = 1; t < 8; ++t) vOn.emplace_back(t, 0, 0);
  insertAll(vt2, vOn);
  vSimplex.insert(vSimplex.end(), vOn.begin(), vOn.end());
  expectDelaunay(vt2, vSimplex, "vector on the hull");
}

TEST(Mixed, SingleInsertsInterleavedWithVectors) {
  Velm_3D vt;
  std::vector<Point3> vPool = randomPoints(2000, 21, 0.0, 10.0), vGrid = grid(6, -1.0, 2.4);
  vPool.insert(vPool.begin() + 1000, vGrid.begin(), vGrid.end());
  for (size_t next = 0; next < 2040; next += 340) {
    insertAll(vt, std::vector<Point3>(vPool.begin() + next, vPool.begin() + next + 300));
    for (size_t k = next + 300; k < next + 340; ++k) quiet([&] { vt.insert(vPool[k]); });
    expectDelaunay(vt, std::vector<Point3>(vPool.begin(), vPool.begin() + next + 340), "mixed");
  }
}

TEST(Scale, HugeOffsetLatticeAndTinyCoordinates) {
  std::vector<Point3> vHuge = grid(6, 1e15);
  std::mt19937_64 gen(3);
  for (int i = 0; i < 300; ++i)
    vHuge.emplace_back(1e15 + static_cast<double>(gen() % 64), 1e15 + static_cast<double>(gen() % 64),
                       1e15 + static_cast<double>(gen() % 64));
  expectBulkDelaunay(vHuge, "offset 1e15");
  std::vector<Point3> vTiny = randomPoints(2000, 4);
  const std::vector<Point3> vTinyGrid = grid(5, -2.0);
  vTiny.insert(vTiny.end(), vTinyGrid.begin(), vTinyGrid.end());
  // 2^-200 keeps the products of the sphere test (degree five) normal.
  for (Point3& p : vTiny) p = Point3(std::ldexp(p.x(), -200), std::ldexp(p.y(), -200), std::ldexp(p.z(), -200));
  expectBulkDelaunay(vTiny, "scale 2^-200");
}

namespace {

std::vector<Point3> scaled(std::vector<Point3> v, double factor) {
  for (Point3& p : v) p = Point3(p.x() * factor, p.y() * factor, p.z() * factor);
  return v;
}

// 300 points of the unit cube, 50 near 1e-200 and 20 near 1e250, shuffled:
// one sphere test can span 450 orders of magnitude.
std::vector<Point3> mixedMagnitudes() {
  std::vector<Point3> v = randomPoints(300, 31, 0.0, 1.0);
  const std::vector<Point3> vTiny = scaled(randomPoints(50, 32), 1e-200);
  const std::vector<Point3> vHuge = scaled(randomPoints(20, 33), 1e250);
  v.insert(v.end(), vTiny.begin(), vTiny.end());
  v.insert(v.end(), vHuge.begin(), vHuge.end());
  std::shuffle(v.begin(), v.end(), std::mt19937_64(34));
  return v;
}

} // namespace

// Far outside the magnitudes where the published predicates are exact: the
// mesh stays valid, by the exact checker and by checkValidity.
TEST(AnyFiniteDouble, RandomAndLatticeSetsAtExtremeScales) {
  std::vector<Point3> v = randomPoints(200, 35);
  const std::vector<Point3> vLattice = grid(5, -2.0);
  v.insert(v.end(), vLattice.begin(), vLattice.end());
  for (double factor : {1e-300, 1e-150, 1e150, 1e300})
    expectBulkDelaunay(scaled(v, factor), "scale " + std::to_string(std::ilogb(factor)));
}

// A lattice of subnormal coordinates (0 to 5 units of 2^-1074), the same
// next to ordinary points, and lattices near 2^1000 whose differences
// overflow: every sphere test of them has ties.
TEST(AnyFiniteDouble, SubnormalLatticesAndLatticesNear2To1000) {
  const std::vector<Point3> vSubnormal = scaled(grid(6), 0x1p-1074);
  expectBulkDelaunay(vSubnormal, "subnormal lattice");
  std::vector<Point3> vBeside = grid(4, -1.0);
  vBeside.insert(vBeside.end(), vSubnormal.begin(), vSubnormal.end());
  expectBulkDelaunay(vBeside, "subnormal lattice beside the unit lattice");
  expectBulkDelaunay(scaled(grid(5), 0x1p1000), "lattice times 2^1000");
  expectBulkDelaunay(grid(5, -0x1p1021, 0x1p1020), "lattice from -2^1021 to 2^1022");
}

// Coordinates up to the largest double, z often subnormal: every filter in
// the published form overflows, and no one power of two fits the set.
TEST(AnyFiniteDouble, ExtremesOfTheDoubleRangeInOneSet) {
  std::mt19937_64 gen(36);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const double big = std::numeric_limits<double>::max();
  std::vector<Point3> v;
  for (int i = 0; i < 300; ++i)
    v.emplace_back(u(gen) * big, u(gen) * big, i % 3 == 0 ? u(gen) * big : std::ldexp(double(gen() % 9), -1074));
  for (int i = 0; i < 8; ++i) v.emplace_back(i & 1 ? big : -big, i & 2 ? big : -big, i & 4 ? big : -big);
  expectBulkDelaunay(v, "extremes");
  expectBulkDelaunay(scaled(grid(3, -1.0), big), "{-max, 0, max}^3");
}

TEST(AnyFiniteDouble, MixedMagnitudesInBulkAndOneByOne) {
  const std::vector<Point3> v = mixedMagnitudes();
  expectBulkDelaunay(v, "mixed, bulk");
  Velm_3D vt;
  quiet([&] {
    for (Point3 p : v) vt.insert(p);
  });
  expectDelaunay(vt, v, "mixed, one by one");
}
