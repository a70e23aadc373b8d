// Inputs found by the fuzz targets (fuzz/), kept as regression tests that
// state the behaviour found. Each names its minimized input in tests/data/,
// which CTest also replays through the fuzz target's own check.
#include <algorithm>
#include <vector>

#include "test_support.h"

namespace {

using VELM3D::Point3;

// fuzz_triangulation-waiting-points-left-out.bin: two points wait (too few
// for a tetrahedron), then a vector with two repeats completes the mesh. The
// number of stored vertices equals the vector's length, and in that case the
// driver triangulates only the vector's new vertices: the count comparison is
// the library's defined rule, so the two waiting points stay out of the mesh
// (with no incident tetrahedron) while the mesh itself is valid. The row
// intake takes them in.
TEST(FuzzTriangulation, WaitingPointsStayOutWhenRepeatsMatchTheirNumber) {
  VELM3D::Velm_3D velm;
  std::vector<Point3> vFirst{Point3(0, 0, 0), Point3(5, 0, 0)};
  std::vector<Point3> vSecond{Point3(0, 5, 0), Point3(0, 0, 5), Point3(1, 1, 1), Point3(0, 5, 0), Point3(0, 5, 0)};
  std::vector<Point3*> vStored, vSecondHandles;
  support::captured([&] { velm.insert(vFirst), velm.insert(vSecond, vSecondHandles); });
  velm.getVertices(vStored);
  EXPECT_TRUE(vStored.size() == 5 && std::count_if(vStored.begin(), vStored.end(), [](Point3* p) { return p->getOneTet(); }) == 4);
  EXPECT_TRUE(exact::checkDelaunay(velm, &vSecondHandles).empty() && velm.findFault(true).kind == VELM3D::MeshFault::VERTEX_OUT);
  const double rows[] = {2, 2, 2, 0, 0, 0};
  velm.insertRows(rows, 2, vSecondHandles);
  EXPECT_TRUE(support::isDelaunayOf(velm, support::joined(support::joined(vFirst, vSecond), {Point3(2, 2, 2)})));
}

} // namespace
