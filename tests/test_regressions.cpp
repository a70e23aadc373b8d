// Inputs found by the fuzz targets (fuzz/), kept as regression tests that
// state the behaviour found. Each names its minimized input in tests/data/,
// which CTest also replays through the fuzz target's own check.
#include <set>
#include <vector>

#include "test_support.h"

namespace {

using support::captured;
using VELM3D::Point3;
using VELM3D::Tet3;

// fuzz_triangulation-waiting-points-left-out.bin: two points wait (too few
// for a tetrahedron), then a vector with two repeats completes the mesh. The
// number of stored vertices equals the vector's length, and in that case the
// driver triangulates only the vector's new vertices: the count comparison is
// the library's defined rule, so the two waiting points stay out of the mesh
// (with no incident tetrahedron) while the mesh itself is valid.
TEST(FuzzTriangulation, WaitingPointsStayOutWhenRepeatsMatchTheirNumber) {
  VELM3D::Velm_3D velm;
  std::vector<Point3> vFirst{Point3(0, 0, 0), Point3(5, 0, 0)};
  std::vector<Point3> vSecond{Point3(0, 5, 0), Point3(0, 0, 5), Point3(1, 1, 1), Point3(0, 5, 0), Point3(0, 5, 0)};
  std::vector<Point3*> vVertices;
  std::vector<Tet3*> vTets;
  captured([&] {
    velm.insert(vFirst);
    velm.insert(vSecond);
    velm.getVertices(vVertices);
    velm.getTetrahedra(vTets);
  });
  std::set<Point3*> sCorners;
  for (Tet3* pT : vTets)
    for (int i = 0; i < 4; ++i) sCorners.insert(pT->getCorner(i));
  EXPECT_EQ(vVertices.size(), 5u);
  EXPECT_EQ(sCorners.size(), 4u);
  for (Point3* pVtx : vVertices) EXPECT_EQ(pVtx->getOneTet() != nullptr, sCorners.count(pVtx) == 1);
  captured([&] { EXPECT_TRUE(velm.checkValidity("regression", true)); });
}

} // namespace
