// The insertion driver seen from outside: the level order of a bulk insert,
// its progress and its printed lines, the paths before the first tetrahedron
// and the vertices they leave waiting, the row intake that takes them in,
// handles and duplicates, point location, and the assertion report.
#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using support::captured;
using support::isDelaunayOf;
using support::numTets;
using support::randomPoints;

namespace {

// Levels of a list of n records, as indices into the list.
std::vector<std::vector<size_t>> levels(size_t n, int maxLevel) {
  std::vector<Point3> vRec(n);
  std::vector<Point3*> vList;
  for (Point3& p : vRec) vList.push_back(&p);
  std::vector<std::vector<Point3*>> vvLevels(maxLevel + 1);
  getLevelsRec(vList, 0, n, 0, maxLevel, vvLevels);
  std::vector<std::vector<size_t>> vvIdx(vvLevels.size());
  for (size_t k = 0; k < vvLevels.size(); ++k)
    for (Point3* p : vvLevels[k]) vvIdx[k].push_back(static_cast<size_t>(p - &vRec[0]));
  return vvIdx;
}

// Triangulates a list of n points inside one big tetrahedron, in which
// elements a and b are twins (same coordinates, two records). The twin that
// is inserted first becomes the vertex, the later one is a duplicate and
// keeps a null incident tetrahedron; so the result tells which came first.
size_t firstInsertedTwin(size_t n, size_t a, size_t b, bool bInListOrder = false) {
  std::vector<Point3> vRec = randomPoints(n, 1000 + n, 1.0, 30.0);
  vRec[b] = vRec[a];
  Point3 corners[4] = {Point3(0, 0, 0), Point3(100, 0, 0), Point3(0, 100, 0), Point3(0, 0, 100)};
  Dt3 dt(nullptr);
  Tet3* pFirst = dt.createTet(&corners[0], &corners[1], &corners[2], &corners[3]);
  std::vector<Point3*> vList;
  for (Point3& p : vRec) vList.push_back(&p);
  const std::string banner = bInListOrder ? captured([] { fatBar("This is debug_triangulateInOrder", false, false); }) : "";
  EXPECT_EQ(captured([&] { bInListOrder ? dt.debug_triangulateInOrder(vList, pFirst) : dt.triangulate(vList, pFirst); }),
            banner);
  for (size_t i = 0; i < n; ++i) EXPECT_TRUE(i == a || i == b || vRec[i].getOneTet() != nullptr) << i;
  EXPECT_NE(vRec[a].getOneTet() == nullptr, vRec[b].getOneTet() == nullptr);
  return vRec[a].getOneTet() != nullptr ? a : b;
}

// The coordinates of the points as rows.
std::vector<double> rowsOf(const std::vector<Point3>& v) {
  std::vector<double> vRows;
  for (const Point3& p : v) vRows.insert(vRows.end(), {p.x(), p.y(), p.z()});
  return vRows;
}

} // namespace

TEST(Levels, MidpointsFirstThenTheRestInListOrder) {
  std::vector<size_t> v16(16), v17(16); // 0 to 15, and 0 to 16 but 8
  for (size_t i = 0; i < 16; ++i) v16[i] = i, v17[i] = i < 8 ? i : i + 1;
  EXPECT_EQ(levels(16, 0), std::vector<std::vector<size_t>>{v16});
  EXPECT_EQ(levels(17, 1), (std::vector<std::vector<size_t>>{{8}, v17}));
  const auto v1000 = levels(1000, 6);
  const size_t sizes[] = {1, 2, 4, 8, 16, 32, 937};
  for (int k = 0; k <= 6; ++k) EXPECT_TRUE(v1000[k].size() == sizes[k] && std::is_sorted(v1000[k].begin(), v1000[k].end()));
  EXPECT_TRUE(v1000[0] == std::vector<size_t>{500} && v1000[1] == (std::vector<size_t>{250, 750}));
}

TEST(Levels, EvenLevelsRunBackwardsOddLevelsForwards) {
  EXPECT_EQ(firstInsertedTwin(16, 3, 10), 10u); // a single level, walked from its end
  EXPECT_EQ(firstInsertedTwin(17, 0, 8), 8u);   // element 8 alone first, then the others from the front
  EXPECT_EQ(firstInsertedTwin(17, 2, 12), 2u);
  // A thousand: seven levels; level 5 forwards, level 6 backwards, and a
  // coarse level before any finer one.
  const auto v = levels(1000, 6);
  EXPECT_EQ(firstInsertedTwin(1000, v[6].front(), v[6].back()), v[6].back());
  EXPECT_EQ(firstInsertedTwin(1000, v[5].front(), v[5].back()), v[5].front());
  EXPECT_EQ(firstInsertedTwin(1000, v[6].front(), v[1].back()), v[1].back());
  // The debug driver inserts in list order, without levels; the driver of
  // pending points is switched off and only says so.
  EXPECT_EQ(firstInsertedTwin(40, 3, 20, true), 3u);
  Dt3 dt(nullptr);
  EXPECT_EQ(captured([&] { dt.insertPendingPoints(); }),
            captured([] { fatBar("Dt3::insertPendingPoints() is currently not active", false, false); }));
}

TEST(Driver, VectorInsertsPrintTheirSizeAndGiveOneHandlePerInput) {
  Velm_3D vt;
  std::vector<Point3> vNone, v3 = {Point3(0, 0, 0), Point3(1, 0, 0), Point3(0, 1, 0)};
  EXPECT_EQ(captured([&] { vt.insert(vNone); }), "numPoints=0\n");
  EXPECT_EQ(captured([&] { vt.insert(v3); }), "numPoints=3\n");
  EXPECT_FALSE(vt.is3D());
  std::vector<Point3> v = randomPoints(200, 2, -1.0, 1.0);
  v.insert(v.end(), {v[5], v[17]});
  std::vector<Point3*> vHandles;
  EXPECT_EQ(captured([&] { vt.insert(v, vHandles); }), "numPoints=202\n");
  ASSERT_EQ(vHandles.size(), v.size());
  for (size_t i = 0; i < v.size(); ++i) EXPECT_TRUE(*vHandles[i] == v[i] && vHandles[i] != &v[i]);
  EXPECT_TRUE(vHandles[200] == vHandles[5] && vHandles[201] == vHandles[17]);
  // Single inserts of a stored point, and of a new point twice: the handle
  // of the first, and no change to the mesh.
  const size_t n0 = numTets(vt);
  Point3 q = v[50], r(0.125, -0.25, 0.375), *pStored = nullptr, *pR = vt.insert(r);
  EXPECT_EQ(captured([&] { pStored = vt.insert(q); }), "");
  const size_t n1 = numTets(vt);
  EXPECT_TRUE(pStored == vHandles[50] && n1 > n0 && vt.insert(r) == pR && pR != &r && numTets(vt) == n1);
  v.insert(v.end(), {v3[0], v3[1], v3[2], r});
  EXPECT_TRUE(isDelaunayOf(vt, v));
  // A handle vector that is not empty is cleared with a warning and refilled.
  EXPECT_EQ(captured([&] { vt.insert(v3, vHandles); }),
            "\n\033[0;33m      Dt3::insert(), WARNING: vUserHandles is not empty as it should be\033[m\n\n"
            "numPoints=3\n");
  EXPECT_TRUE(vHandles.size() == 3 && *vHandles[2] == v3[2]);
}

// Single inserts: when the first five are coplanar, the sixth makes the
// tetrahedron, and the vertices that are no corners wait outside the mesh
// until the row intake takes them in.
TEST(Driver, SingleInsertsLeaveVerticesWaitingThatInsertRowsTakesIn) {
  Velm_3D vt;
  std::vector<Point3> p = {Point3(0, 0, 0), Point3(4, 0, 0), Point3(0, 4, 0),
                           Point3(4, 4, 0), Point3(2, 1, 0), Point3(1, 1, 3)};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(captured([&] { vt.insert(p[i]); }), "");
  EXPECT_FALSE(vt.is3D());
  EXPECT_EQ(captured([&] { vt.insert(p[5]); }), "Attention: triangulate has got an empty vector\n");
  EXPECT_EQ(numTets(vt), 1u);
  const MeshFault fault = vt.findFault(true);
  ASSERT_EQ(fault.kind, MeshFault::VERTEX_OUT);
  Point3* pWaiting = fault.pVtx;
  EXPECT_TRUE(pWaiting->getOneTet() == nullptr && pWaiting->z() == 0.0 && !vt.findFault(false));
  std::vector<Point3*> vHandles{pWaiting};
  EXPECT_EQ(captured([&] { vt.insertRows(nullptr, 0, vHandles); }), ""); // no row: the waiting vertex goes in
  EXPECT_TRUE(vHandles.empty() && pWaiting->getOneTet() != nullptr && !vt.findFault(true));
  // Rows: the waiting vertex's position twice and a new point.
  p.push_back(Point3(2, 2, 1));
  EXPECT_EQ(captured([&] { vt.insertRows(rowsOf({*pWaiting, p[6], *pWaiting}).data(), 3, vHandles); }), "");
  EXPECT_TRUE(vHandles.size() == 3 && vHandles[0] == pWaiting && vHandles[2] == pWaiting && *vHandles[1] == p[6]);
  EXPECT_TRUE(isDelaunayOf(vt, p));
}

TEST(Driver, InsertRowsOnAnEmptyThenOnAPopulatedMesh) {
  Velm_3D vt;
  std::vector<Point3> v = support::grid(4, -1.0);
  v.insert(v.end(), {v[7], v[0], v[63]});
  std::vector<Point3*> vHandles(5, nullptr); // refilled, not appended to
  EXPECT_EQ(captured([&] { vt.insertRows(rowsOf(v).data(), v.size(), vHandles); }), "");
  ASSERT_EQ(vHandles.size(), v.size());
  for (size_t i = 0; i < v.size(); ++i) EXPECT_TRUE(*vHandles[i] == v[i]) << i;
  EXPECT_TRUE(vHandles[64] == vHandles[7] && vHandles[65] == vHandles[0] && vHandles[66] == vHandles[63]);
  EXPECT_TRUE(isDelaunayOf(vt, v));
  const std::vector<Point3> vMore = randomPoints(500, 9, -2.0, 3.0);
  EXPECT_EQ(captured([&] { vt.insertRows(rowsOf(vMore).data(), vMore.size(), vHandles); }), "");
  EXPECT_TRUE(vHandles.size() == vMore.size() && isDelaunayOf(vt, support::joined(v, vMore)));
}

// A stop leaves the Delaunay mesh of the vertices inserted so far; the row
// intake, even of no new point, completes it. The batch location reports
// and stops likewise.
TEST(Progress, ReportsEveryBlockAndAStopLeavesAValidMeshThatInsertRowsCompletes) {
  typedef std::vector<std::pair<unsigned long, unsigned long>> Calls;
  const unsigned long block = Dt3::numInsertionsPerReport;
  const Dt3::ProgressCallback stopAtTheSecond = [](void* pUser, unsigned long numDone, unsigned long numTotal) {
    static_cast<Calls*>(pUser)->emplace_back(numDone, numTotal);
    return numDone != 2 * Dt3::numInsertionsPerReport;
  };
  std::vector<Point3> v = randomPoints(3 * block, 8);
  Velm_3D vt;
  Calls vCalls;
  vt.setProgressCallback(stopAtTheSecond, &vCalls);
  captured([&] { vt.insert(v); });
  EXPECT_EQ(vCalls, (Calls{{block, v.size()}, {2 * block, v.size()}}));
  std::vector<Point3*> vStored, vInMesh;
  vt.getVertices(vStored);
  std::copy_if(vStored.begin(), vStored.end(), std::back_inserter(vInMesh), [](Point3* p) { return p->getOneTet(); });
  EXPECT_EQ(exact::checkDelaunay(vt, &vInMesh), "");
  // Exactly the 2 * block insertions reported, and the first tetrahedron's
  // corners, in the mesh before the list starts (none of them among the
  // list's first 2 * block points with this seed).
  EXPECT_EQ(vInMesh.size(), 2 * block + 4);
  vt.setProgressCallback(nullptr, nullptr);
  std::vector<Point3*> vHandles;
  vt.insertRows(rowsOf({v[0]}).data(), 1, vHandles);
  EXPECT_TRUE(isDelaunayOf(vt, v));
  std::vector<Tet3*> vFound;
  for (const bool bReport : {false, true}) { // every vertex is found until the stop, none after it
    vCalls.clear();
    vt.setProgressCallback(bReport ? stopAtTheSecond : nullptr, &vCalls);
    vt.findTetsContaining(rowsOf(v).data(), v.size(), vFound);
    EXPECT_EQ(std::count(vFound.begin(), vFound.end(), nullptr), bReport ? static_cast<long>(block) : 0);
    EXPECT_EQ(vCalls, bReport ? (Calls{{block, v.size()}, {2 * block, v.size()}}) : Calls());
  }
}

TEST(Locate, ClosedHullHoldsVerticesEdgesFacetsAndInside) {
  Velm_3D vt;
  EXPECT_TRUE(vt.locate(Point3(0, 0, 0)) == nullptr && vt.findTetContaining(Point3(0, 0, 0)) == nullptr);
  std::vector<Point3> v = randomPoints(300, 3, 0.0, 10.0);
  const std::vector<Point3> vCorners = support::grid(2, 0.0, 10.0);
  v.insert(v.end(), vCorners.begin(), vCorners.end());
  captured([&] { vt.insert(v); });
  Tet3* pHint = vt.findTetContaining(Point3(1, 1, 1));
  // Inside, on a vertex, on a hull edge, on a hull facet, on the hull's corner.
  // locate finds a point inside or on a vertex; the rest of the hull's
  // boundary is a hull case there.
  const std::pair<Point3, bool> vQueries[] = {{Point3(3.3, 4.1, 7.7), true}, {v[17], true}, {Point3(10, 10, 10), true},
                                              {Point3(10, 10, 3.3), false}, {Point3(10, 3.3, 4.4), false},
                                              {Point3(0, 7, 2.5), false}};
  for (const auto& [q, bLocated] : vQueries) {
    for (Tet3* pTet : {vt.findTetContaining(q), vt.findTetContaining(q, pHint)})
      EXPECT_TRUE(pTet != nullptr && exact::containsClosed(pTet, q)) << q;
    Tet3* pLocated = vt.locate(q);
    EXPECT_TRUE(bLocated ? pLocated != nullptr && exact::containsClosed(pLocated, q) : pLocated == nullptr) << q;
  }
  EXPECT_TRUE(vt.locate(v[17])->hasVertex(v[17]));
  // Outside: beyond a facet by one unit in the last place, in a facet's plane
  // beyond its edge, far away.
  for (const Point3& q : {Point3(std::nextafter(10.0, 11.0), 5, 5), Point3(10, 11, 5), Point3(-1e3, 0, 0),
                          Point3(1e300, -1e300, 1e300), Point3(0, 0, -1e-300)}) {
    EXPECT_TRUE(vt.findTetContaining(q) == nullptr && vt.findTetContaining(q, pHint) == nullptr) << q;
    EXPECT_EQ(vt.locate(q), nullptr) << q;
  }
  // A batch: a NaN or infinite coordinate in any place finds nothing, also
  // when no row is left to locate.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> vRows{nan, 5, 5, 5, nan, 5, 5, 5, -HUGE_VAL, 5, 5, 5};
  std::vector<Tet3*> vFound;
  vt.findTetsContaining(vRows.data(), 4, vFound);
  EXPECT_EQ(vFound, (std::vector<Tet3*>{nullptr, nullptr, nullptr, vt.findTetContaining(Point3(5, 5, 5))}));
  vt.findTetsContaining(vRows.data(), 3, vFound);
  EXPECT_EQ(vFound, std::vector<Tet3*>(3, nullptr));
}

// A damaged mesh whose walk cycles: two records of one tetrahedron, each the
// other's neighbour across facets 0 and 1, and a point beyond facet 1. The
// watchdog gives up after its steps with its line, and leaves the start on
// the tetrahedron or its neighbour (facets 2 and 3 have none).
TEST(Locate, TheWatchdogEndsAWalkThatCycles) {
  Dt3 dt(nullptr);
  Point3 p[4] = {Point3(0, 0, 0), Point3(1, 0, 0), Point3(0, 1, 0), Point3(0, 0, 1)}, q(-1, 0.1, 0.1);
  Tet3* pA = dt.createTet(&p[0], &p[1], &p[2], &p[3]);
  Tet3* pB = dt.createTet(&p[0], &p[1], &p[2], &p[3]);
  for (int i : {0, 1}) pA->setOppTet(i, pB), pB->setOppTet(i, pA);
  for (int k = 0; k < 20; ++k) {
    Tet3* pStart = pA;
    int result = 0;
    EXPECT_EQ(captured([&] { result = dt.locateConflictTet(&q, pStart); }), "watchDog: bad point\n");
    EXPECT_EQ(result, locateStepLimit);
    EXPECT_TRUE(pStart == pA || pStart == pB);
  }
}

// The report of a failed assertion, kept for the calling thread only.
TEST(Report, LastReportNamesTheConditionAndThePlaceOfTheThread) {
  Dt3 dt(nullptr);
  Point3 p[4] = {Point3(0, 0, 0), Point3(1, 0, 0), Point3(0, 1, 0), Point3(0, 0, 1)};
  Tet3* t = dt.createTet(&p[0], &p[1], &p[2], &p[3]);
  std::string out;
  EXPECT_TRUE(support::failsAssertion([&] { dt.registerTets(t, 1, t, 2); }, "fromTet!=toTet", &out));
  EXPECT_TRUE(support::contains(out, "register tets has been called with fromTet==toTet==")) << out;
  std::string inThread = "unset";
  std::thread([&] { inThread = VelmException::lastReport(); }).join();
  EXPECT_EQ(inThread, "");
}
