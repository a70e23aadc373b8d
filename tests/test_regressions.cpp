// Inputs found by the fuzz targets (fuzz/), kept as regression tests. Each
// names its minimized input in tests/data/.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "Velm_3D.h"

namespace {

using VELM3D::Point3;
using VELM3D::Tet3;

// fuzz_triangulation-waiting-points-left-out.bin: two points wait (too few
// for a tetrahedron), then a vector with two repeats completes the mesh. The
// number of stored vertices equals the vector's length, and the two waiting
// points were left out of the mesh. Every stored vertex must be a corner.
// Disabled until the library is fixed: the vector insertion that starts the
// mesh must triangulate the waiting vertices whatever the vector's repeats.
TEST(FuzzTriangulation, DISABLED_WaitingPointsJoinWhenRepeatsMatchTheirNumber) {
  VELM3D::Velm_3D velm;
  std::vector<Point3> vFirst{Point3(0, 0, 0), Point3(5, 0, 0)};
  std::vector<Point3> vSecond{Point3(0, 5, 0), Point3(0, 0, 5), Point3(1, 1, 1), Point3(0, 5, 0), Point3(0, 5, 0)};
  testing::internal::CaptureStdout();
  velm.insert(vFirst);
  velm.insert(vSecond);
  std::vector<Point3*> vVertices;
  std::vector<Tet3*> vTets;
  velm.getVertices(vVertices);
  velm.getTetrahedra(vTets);
  testing::internal::GetCapturedStdout();
  std::set<Point3*> sCorners;
  for (Tet3* pT : vTets)
    for (int i = 0; i < 4; ++i) sCorners.insert(pT->getCorner(i));
  EXPECT_EQ(vVertices.size(), 5u);
  EXPECT_EQ(sCorners.size(), vVertices.size());
}

} // namespace
