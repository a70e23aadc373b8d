// Triangulations of easy and hard inputs, each verified by the exact checker
// and by the library's own validity check, which must agree. Large cavities
// (a centre of cospherical points), hull insertions that see many facets and
// grids put the facet registry and the recycling of records to work.
#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using support::grid;
using support::joined;
using support::numTets;
using support::randomPoints;

namespace {

// Runs f with the standard output captured (the library reports every vector
// insert); an error report in it fails the test.
template <class F> void quiet(F f) { EXPECT_EQ(support::captured(f).find("ERROR"), std::string::npos); }

void insertAll(Velm_3D& vt, std::vector<Point3> v) { quiet([&] { vt.insert(v); }); }

void insertOne(Velm_3D& vt, std::vector<Point3>& vAll, Point3 p) {
  quiet([&] { vt.insert(p); });
  vAll.push_back(p);
}

// The exact checker and checkValidity (with the sphere test) both accept.
void expectDelaunay(Velm_3D& vt, const std::vector<Point3>& vAll, const std::string& what) {
  bool bValid = false;
  quiet([&] { bValid = vt.checkValidity(what, true); });
  EXPECT_TRUE(bValid && vt.is3D() && support::isDelaunayOf(vt, vAll)) << what;
}

void expectBulkDelaunay(std::vector<Point3> v, const std::string& what) {
  Velm_3D vt;
  insertAll(vt, v);
  expectDelaunay(vt, v, what);
}

std::vector<Point3> sphere(int r, double scale = 1.0) {
  std::vector<Point3> v;
  for (int x = -r; x <= r; ++x)
    for (int y = -r; y <= r; ++y) {
      const int zz = r * r - x * x - y * y;
      const int z = static_cast<int>(std::lround(std::sqrt(std::max(zz, 0))));
      if (z * z != zz) continue;
      v.emplace_back(scale * x, scale * y, scale * z);
      if (z != 0) v.emplace_back(scale * x, scale * y, -scale * z);
    }
  return v;
}

std::vector<Point3> scaled(std::vector<Point3> v, double factor) {
  for (Point3& p : v) p = Point3(p.x() * factor, p.y() * factor, p.z() * factor);
  return v;
}

} // namespace

TEST(Uniform, RandomPointsAndIntegerGrids) {
  for (size_t n : {1000, 100000}) expectBulkDelaunay(randomPoints(n, n), "uniform " + std::to_string(n));
  for (int n : {5, 10, 30}) expectBulkDelaunay(grid(n), "grid " + std::to_string(n));
}

// Every tetrahedron of cospherical points conflicts with the centre: its
// insertion empties the whole mesh into one cavity, whose hundreds (r = 25)
// or thousands (r = 125) of inner facets collide in the registry's buckets. Then points far outside see
// many hull facets at once.
TEST(Degenerate, CosphericalPointsTheirCentreAndFarPoints) {
  for (int r : {5, 25, 125}) {
    std::vector<Point3> v = sphere(r, 0.5);
    Velm_3D vt;
    insertAll(vt, v);
    expectDelaunay(vt, v, "sphere " + std::to_string(r));
    insertOne(vt, v, Point3(0, 0, 0));
    expectDelaunay(vt, v, "and its centre");
    EXPECT_EQ(numTets(vt), 2 * v.size() - 6); // one per hull facet: 2(n - 1) - 4
    insertOne(vt, v, Point3(0, 0, 40.0 * r));
    insertOne(vt, v, Point3(3.0 * r, 0.5, -0.25));
    expectDelaunay(vt, v, "and far points");
    v.emplace_back(0.25, -0.5, 0.0);
    expectBulkDelaunay(v, "all in one vector");
  }
  // Cube corners, single inserts, the first four in space so that none waits.
  Velm_3D vt;
  std::vector<Point3> vCube = grid(2, -1.0, 2.0), vAll;
  std::swap(vCube[3], vCube[4]);
  for (const Point3& p : vCube) insertOne(vt, vAll, p);
  expectDelaunay(vt, vAll, "cube corners, single inserts");
  EXPECT_TRUE(numTets(vt) == 5 || numTets(vt) == 6);
}

// A coplanar vector waits in the store, and the next vector brings it in;
// a flat layer with one apex, then a second below, makes all but the first
// tetrahedron over hull facets of the layer.
TEST(Degenerate, CoplanarFirstPointsThenSpace) {
  std::vector<Point3> vFlat;
  for (int i = 0; i < 144; ++i) vFlat.emplace_back(i % 12, i / 12, 0.0);
  Velm_3D vt;
  insertAll(vt, vFlat);
  EXPECT_FALSE(vt.is3D());
  const std::vector<Point3> vMore = randomPoints(300, 7, 0.0, 11.0);
  insertAll(vt, vMore);
  expectDelaunay(vt, joined(vFlat, vMore), "flat then space");
  vFlat.emplace_back(5.5, 5.5, 4.0);
  expectBulkDelaunay(vFlat, "pyramid");
  vFlat.emplace_back(5.5, 5.5, -4.0);
  expectBulkDelaunay(vFlat, "double pyramid");
}

// Ten per cent exact repeats, +0 and -0 (equal positions), and a grid with
// every coordinate moved by one unit in the last place or not.
TEST(NearDegenerate, DuplicatesAndAGridMovedByOneUnitInTheLastPlace) {
  std::vector<Point3> v = randomPoints(5000, 11);
  std::mt19937_64 gen(12);
  for (int i = 0; i < 500; ++i) v.push_back(v[gen() % 5000]);
  v.insert(v.end(), {Point3(-0.0, 0.0, 0.0), Point3(0.0, -0.0, 0.0)});
  std::shuffle(v.begin(), v.end(), gen);
  expectBulkDelaunay(v, "duplicates"); // also: 5001 vertices, no more
  // Offsets keep every coordinate away from zero: a step from zero would be
  // a subnormal number, whose products underflow.
  for (double offset : {-4.5, 100.0}) {
    v = grid(10, offset);
    for (Point3& p : v) {
      const auto step = [&](double x) { return gen() % 3 ? std::nextafter(x, gen() % 2 ? 1e300 : -1e300) : x; };
      p = Point3(step(p.x()), step(p.y()), step(p.z()));
    }
    expectBulkDelaunay(v, "grid moved by an ulp, offset " + std::to_string(offset));
  }
}

// Points exactly on hull facets and hull edges: single ones on the faces of a
// cube (face centres and points on the cube's edges lie on hull edges), a
// vector on the slanted facet and an edge of a simplex; then points beyond a
// grid's face, one of them in the plane of another face.
TEST(Hull, PointsOnHullFacetsAndEdgesAndBeyondAFace) {
  Velm_3D vt;
  std::vector<Point3> vAll = grid(2, 0.0, 4.0);
  insertAll(vt, vAll);
  const double onFaces[][3] = {{2, 2, 0}, {1, 2, 0}, {2, 0, 0}, {4, 2, 2}, {4, 1, 3}, {0, 0, 2}, {3, 4, 1},
                               {2, 2, 4}, {1, 1, 4}, {0, 3, 3}, {4, 4, 3}, {0.5, 0, 3.5}, {2, 4, 0}};
  for (const auto& c : onFaces) {
    insertOne(vt, vAll, Point3(c[0], c[1], c[2]));
    expectDelaunay(vt, vAll, "single on the hull");
  }
  Velm_3D vtSimplex;
  std::vector<Point3> vSimplex = {Point3(0, 0, 0), Point3(8, 0, 0), Point3(0, 8, 0), Point3(0, 0, 8)}, vOn;
  insertAll(vtSimplex, vSimplex);
  for (int i = 0; i < 81; ++i)
    if (i % 9 + i / 9 <= 8) vOn.emplace_back(i % 9, i / 9, 8 - i % 9 - i / 9);
  for (int t = 1; t < 8; ++t) vOn.emplace_back(t, 0, 0);
  insertAll(vtSimplex, vOn);
  expectDelaunay(vtSimplex, joined(vSimplex, vOn), "vector on the hull");
  std::vector<Point3> vGrid = grid(8);
  Velm_3D vtGrid;
  insertAll(vtGrid, vGrid);
  insertOne(vtGrid, vGrid, Point3(3.5, 3.5, 50));
  insertOne(vtGrid, vGrid, Point3(3.5, 20, 7));
  expectDelaunay(vtGrid, vGrid, "grid and points beyond its faces");
}

// Far outside the magnitudes where the published predicates are exact:
// lattices at huge offsets, scaled to 2^-200 and to the ends of the double
// range, subnormal lattices, and sets that span the whole range at once.
TEST(AnyFiniteDouble, LatticesAndRandomSetsAtExtremeScales) {
  std::vector<Point3> vHuge = randomPoints(300, 3, 0.0, 64.0);
  for (Point3& p : vHuge) p = Point3(1e15 + std::floor(p.x()), 1e15 + std::floor(p.y()), 1e15 + std::floor(p.z()));
  expectBulkDelaunay(joined(vHuge, grid(6, 1e15)), "offset 1e15");
  const std::vector<Point3> v = joined(randomPoints(200, 35), grid(5, -2.0)), vSubnormal = scaled(grid(6), 0x1p-1074);
  for (double factor : {0x1p-200, 1e-300, 1e-150, 1e150, 1e300})
    expectBulkDelaunay(scaled(v, factor), "scale " + std::to_string(std::ilogb(factor)));
  expectBulkDelaunay(vSubnormal, "subnormal lattice");
  expectBulkDelaunay(joined(grid(4, -1.0), vSubnormal), "subnormal lattice beside the unit lattice");
  expectBulkDelaunay(scaled(grid(5), 0x1p1000), "lattice times 2^1000");
  expectBulkDelaunay(grid(5, -0x1p1021, 0x1p1020), "lattice from -2^1021 to 2^1022");
}

TEST(AnyFiniteDouble, ExtremesAndMixedMagnitudesInOneSet) {
  std::mt19937_64 gen(36);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const double big = std::numeric_limits<double>::max();
  std::vector<Point3> v;
  for (int i = 0; i < 300; ++i) // z often subnormal: every published filter overflows
    v.emplace_back(u(gen) * big, u(gen) * big, i % 3 == 0 ? u(gen) * big : std::ldexp(double(gen() % 9), -1074));
  for (int i = 0; i < 8; ++i) v.emplace_back(i & 1 ? big : -big, i & 2 ? big : -big, i & 4 ? big : -big);
  expectBulkDelaunay(v, "extremes");
  expectBulkDelaunay(scaled(grid(3, -1.0), big), "{-max, 0, max}^3");
  // The unit cube with points near 1e-200 and near 1e250, shuffled: one
  // sphere test can span 450 orders of magnitude.
  v = joined(randomPoints(300, 31, 0.0, 1.0), joined(scaled(randomPoints(50, 50), 1e-200), scaled(randomPoints(20, 20), 1e250)));
  std::shuffle(v.begin(), v.end(), std::mt19937_64(34));
  expectBulkDelaunay(v, "mixed, bulk");
  Velm_3D vt;
  std::vector<Point3> vAll;
  for (const Point3& p : v) insertOne(vt, vAll, p);
  expectDelaunay(vt, vAll, "mixed, one by one");
}
