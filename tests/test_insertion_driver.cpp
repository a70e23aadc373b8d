// The insertion driver seen from outside: the level order of a bulk insert,
// its progress and warning lines, the paths before the first tetrahedron,
// handles and duplicates, locate, and the facet registry driven directly.
#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using exact::randomPoints;
using BRIX_TOOLS::SimplePool;
using support::captured;
using support::numTets;

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

std::vector<size_t> range(size_t from, size_t to) {
  std::vector<size_t> v(to - from);
  std::iota(v.begin(), v.end(), from);
  return v;
}

// Triangulates a list of n points inside one big tetrahedron, in which
// elements a and b are twins (same coordinates, two records). The twin that
// is inserted first becomes the vertex, the later one is a duplicate and
// keeps a null incident tetrahedron; so the result tells which came first.
size_t firstInsertedTwin(size_t n, size_t a, size_t b) {
  std::vector<Point3> vRec = randomPoints(n, 1000 + n, 1.0, 30.0);
  vRec[b] = vRec[a];
  Point3 corners[4] = {Point3(0, 0, 0), Point3(100, 0, 0), Point3(0, 100, 0), Point3(0, 0, 100)};
  Dt3 dt(nullptr);
  Tet3* pFirst = dt.createTet(&corners[0], &corners[1], &corners[2], &corners[3]);
  std::vector<Point3*> vList;
  for (Point3& p : vRec) vList.push_back(&p);
  EXPECT_EQ(captured([&] { dt.triangulate(vList, pFirst); }), "");
  for (size_t i = 0; i < n; ++i)
    if (i != a && i != b) {
      EXPECT_NE(vRec[i].getOneTet(), nullptr) << i;
    }
  EXPECT_NE(vRec[a].getOneTet() == nullptr, vRec[b].getOneTet() == nullptr);
  return vRec[a].getOneTet() != nullptr ? a : b;
}

} // namespace

// The debug driver inserts in list order, without levels: of twins 3 and 20
// in a list of 40 (20 is the first level's midpoint) the earlier one wins.
TEST(Levels, DebugDriverKeepsListOrder) {
  std::vector<Point3> vRec = randomPoints(40, 77, 1.0, 30.0);
  vRec[20] = vRec[3];
  Point3 corners[4] = {Point3(0, 0, 0), Point3(100, 0, 0), Point3(0, 100, 0), Point3(0, 0, 100)};
  Dt3 dt(nullptr);
  Tet3* pFirst = dt.createTet(&corners[0], &corners[1], &corners[2], &corners[3]);
  std::vector<Point3*> vList;
  for (Point3& p : vRec) vList.push_back(&p);
  const std::string banner = captured([] { fatBar("This is debug_triangulateInOrder", false, false); });
  EXPECT_EQ(captured([&] { dt.debug_triangulateInOrder(vList, pFirst); }), banner);
  EXPECT_TRUE(vRec[3].getOneTet() != nullptr && vRec[20].getOneTet() == nullptr);
}

TEST(Levels, MidpointsFirstThenTheRestInListOrder) {
  const auto v16 = levels(16, 0);
  ASSERT_EQ(v16.size(), 1u);
  EXPECT_EQ(v16[0], range(0, 16));
  const auto v17 = levels(17, 1);
  EXPECT_EQ(v17[0], std::vector<size_t>{8});
  std::vector<size_t> rest = range(0, 8), upper = range(9, 17);
  rest.insert(rest.end(), upper.begin(), upper.end());
  EXPECT_EQ(v17[1], rest);
  const auto v1000 = levels(1000, 6);
  const size_t sizes[] = {1, 2, 4, 8, 16, 32, 937};
  for (int k = 0; k <= 6; ++k) {
    EXPECT_EQ(v1000[k].size(), sizes[k]);
    EXPECT_TRUE(std::is_sorted(v1000[k].begin(), v1000[k].end()));
  }
  EXPECT_EQ(v1000[0], std::vector<size_t>{500});
  EXPECT_EQ(v1000[1], (std::vector<size_t>{250, 750}));
}

TEST(Levels, EvenLevelsRunBackwardsOddLevelsForwards) {
  // Sixteen points: a single level, walked from its end.
  EXPECT_EQ(firstInsertedTwin(16, 3, 10), 10u);
  // Seventeen: element 8 alone first, then the others from the front.
  EXPECT_EQ(firstInsertedTwin(17, 0, 8), 8u);
  EXPECT_EQ(firstInsertedTwin(17, 2, 12), 2u);
  // A thousand: seven levels; level 5 forwards, level 6 backwards, and a
  // coarse level before any finer one.
  const auto v = levels(1000, 6);
  EXPECT_EQ(firstInsertedTwin(1000, v[6].front(), v[6].back()), v[6].back());
  EXPECT_EQ(firstInsertedTwin(1000, v[5].front(), v[5].back()), v[5].front());
  EXPECT_EQ(firstInsertedTwin(1000, v[6].front(), v[1].back()), v[1].back());
}

TEST(Driver, NumPointsLineOnEveryVectorInsert) {
  Velm_3D vt;
  std::vector<Point3> vNone;
  EXPECT_EQ(captured([&] { vt.insert(vNone); }), "numPoints=0\n");
  std::vector<Point3> v3 = {Point3(0, 0, 0), Point3(1, 0, 0), Point3(0, 1, 0)};
  EXPECT_EQ(captured([&] { vt.insert(v3); }), "numPoints=3\n");
  EXPECT_FALSE(vt.is3D());
  std::vector<Point3> v20 = randomPoints(20, 1, 0.0, 1.0);
  EXPECT_EQ(captured([&] { vt.insert(v20); }), "numPoints=20\n");
  EXPECT_TRUE(vt.is3D());
  EXPECT_EQ(captured([&] { vt.insert(v20); }), "numPoints=20\n"); // nothing new
  EXPECT_EQ(captured([&] { vt.insert(vNone); }), "numPoints=0\n");
  v3.insert(v3.end(), v20.begin(), v20.end());
  EXPECT_TRUE(exact::isDelaunayOf(vt, v3));
}

TEST(Driver, SingleInsertsBeforeTheFirstTetrahedron) {
  // Five points, the first four coplanar: the fifth makes the tetrahedron, and
  // the vertex that is no corner of it stays outside the mesh.
  Velm_3D vt;
  Point3 p[5] = {Point3(0, 0, 0), Point3(4, 0, 0), Point3(0, 4, 0), Point3(4, 4, 0), Point3(1, 1, 3)};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(captured([&] { vt.insert(p[i]); }), "");
  EXPECT_FALSE(vt.is3D());
  EXPECT_EQ(captured([&] { vt.insert(p[4]); }), "Attention: triangulate has got an empty vector\n");
  EXPECT_TRUE(vt.is3D());
  EXPECT_EQ(numTets(vt), 1u);
  std::vector<Point3*> vVtx;
  vt.getVertices(vVtx);
  ASSERT_EQ(vVtx.size(), 5u);
  int numOutside = 0;
  for (Point3* q : vVtx) numOutside += (q->getOneTet() == nullptr && q->z() == 0.0);
  EXPECT_EQ(numOutside, 1);
  // Four points in space: the tetrahedron comes with the fourth, silently.
  Velm_3D vt4;
  std::vector<Point3> v4 = {Point3(0, 0, 0), Point3(1, 0, 0), Point3(0, 1, 0), Point3(0, 0, 1)};
  for (Point3& q : v4) {
    EXPECT_FALSE(vt4.is3D());
    EXPECT_EQ(captured([&] { vt4.insert(q); }), "");
  }
  EXPECT_EQ(numTets(vt4), 1u);
  EXPECT_TRUE(exact::isDelaunayOf(vt4, v4));
}

TEST(Driver, HandlesStandAtInputPositionsAndDuplicatesShareThem) {
  Velm_3D vt;
  std::vector<Point3> v = randomPoints(200, 2, -1.0, 1.0);
  v.push_back(v[5]);
  v.push_back(v[17]);
  std::vector<Point3*> vHandles;
  captured([&] { vt.insert(v, vHandles); });
  ASSERT_EQ(vHandles.size(), v.size());
  for (size_t i = 0; i < v.size(); ++i) EXPECT_TRUE(*vHandles[i] == v[i] && vHandles[i] != &v[i]);
  EXPECT_EQ(vHandles[200], vHandles[5]);
  EXPECT_EQ(vHandles[201], vHandles[17]);
  // Single inserts of a stored point, and of a new point twice: the handle
  // of the first, and no change to the mesh.
  const size_t n0 = numTets(vt);
  Point3 q = v[50], r(0.125, -0.25, 0.375);
  Point3* pHandles[3] = {nullptr, nullptr, nullptr};
  EXPECT_EQ(captured([&] { pHandles[0] = vt.insert(q); }), "");
  EXPECT_EQ(pHandles[0], vHandles[50]);
  EXPECT_EQ(numTets(vt), n0);
  captured([&] { pHandles[1] = vt.insert(r); });
  const size_t n1 = numTets(vt);
  captured([&] { pHandles[2] = vt.insert(r); });
  EXPECT_TRUE(pHandles[1] == pHandles[2] && pHandles[1] != &r);
  EXPECT_EQ(numTets(vt), n1);
  v.push_back(r);
  EXPECT_TRUE(exact::isDelaunayOf(vt, v));
  // A handle vector that is not empty is cleared with a warning and refilled.
  std::vector<Point3> v3 = {v[0], v[1], v[2]};
  EXPECT_EQ(captured([&] { vt.insert(v3, vHandles); }),
            "\n\033[0;33m      Dt3::insert(), WARNING: vUserHandles is not empty as it should be\033[m\n\n"
            "numPoints=3\n");
  ASSERT_EQ(vHandles.size(), 3u);
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(*vHandles[i] == v[i]);
}

// The progress callback of a bulk insertion: counts, and a stop that leaves
// a valid mesh of the vertices inserted so far, completed by a later
// triangulate of the vertices left without a tetrahedron.
namespace {

struct ProgressLog {
  std::vector<std::pair<unsigned long, unsigned long>> vCalls;
  unsigned long stopAt = 0;
  static bool report(void* pUser, unsigned long numDone, unsigned long numTotal) {
    ProgressLog* pLog = static_cast<ProgressLog*>(pUser);
    pLog->vCalls.emplace_back(numDone, numTotal);
    return numDone != pLog->stopAt;
  }
};

::testing::AssertionResult isDelaunayOfInserted(Dt3& dt, std::vector<Point3*>& vInMesh) {
  std::vector<Point3*> vAll;
  dt.getVertexPointers(vAll);
  vInMesh.clear();
  std::vector<Point3> vPositions;
  for (Point3* p : vAll)
    if (p->getOneTet() != nullptr) {
      vInMesh.push_back(p);
      vPositions.push_back(*p);
    }
  std::vector<Tet3*> vTets;
  dt.getAllTetrahedra(vTets);
  return exact::checkMesh(vTets, vInMesh, vPositions);
}

} // namespace

TEST(Progress, ReportsEveryBlockOfInsertionsWithTheListSize) {
  const unsigned long block = Dt3::numInsertionsPerReport;
  std::vector<Point3> v = randomPoints(2 * block + 100, 7);
  Dt3 dt(nullptr);
  ProgressLog log;
  dt.setProgressCallback(&ProgressLog::report, &log);
  std::vector<Point3*> vHandles;
  captured([&] { dt.insertVector(v, vHandles); });
  const std::vector<std::pair<unsigned long, unsigned long>> vExpected = {{block, v.size()},
                                                                          {2 * block, v.size()}};
  EXPECT_EQ(log.vCalls, vExpected);
  std::vector<Point3*> vInMesh;
  EXPECT_TRUE(isDelaunayOfInserted(dt, vInMesh));
  EXPECT_EQ(vInMesh.size(), v.size());
}

TEST(Progress, StopLeavesAValidMeshAndTheRestCanBeInsertedLater) {
  const unsigned long block = Dt3::numInsertionsPerReport;
  std::vector<Point3> v = randomPoints(3 * block, 8);
  Dt3 dt(nullptr);
  ProgressLog log;
  log.stopAt = block;
  dt.setProgressCallback(&ProgressLog::report, &log);
  std::vector<Point3*> vHandles;
  captured([&] { dt.insertVector(v, vHandles); });
  ASSERT_EQ(log.vCalls.size(), 1u);
  std::vector<Point3*> vInMesh;
  EXPECT_TRUE(isDelaunayOfInserted(dt, vInMesh));
  // The first tetrahedron's corners are in the mesh before the list starts,
  // and may be among the insertions done.
  EXPECT_GE(vInMesh.size(), block);
  EXPECT_LE(vInMesh.size(), block + 4);
  std::vector<Point3*> vAll, vLeft;
  dt.getVertexPointers(vAll);
  for (Point3* p : vAll)
    if (p->getOneTet() == nullptr) vLeft.push_back(p);
  EXPECT_EQ(vLeft.size(), v.size() - vInMesh.size());
  dt.setProgressCallback(nullptr, nullptr);
  captured([&] { dt.triangulate(vLeft, vInMesh[0]->getOneTet()); });
  EXPECT_TRUE(isDelaunayOfInserted(dt, vInMesh));
  EXPECT_EQ(vInMesh.size(), v.size());
}

TEST(Locate, InsideOnAVertexOutsideAndBeforeTheFirstTetrahedron) {
  Velm_3D vt;
  EXPECT_EQ(vt.locate(Point3(0, 0, 0)), nullptr);
  std::vector<Point3> v = randomPoints(300, 3, 0.0, 10.0);
  for (double x : {0.0, 10.0})
    for (double y : {0.0, 10.0})
      for (double z : {0.0, 10.0}) v.emplace_back(x, y, z);
  captured([&] { vt.insert(v); });

  for (const Point3& q : {Point3(3.3, 4.1, 7.7), Point3(9.99, 0.01, 5.0), v[17], Point3(10, 10, 10)}) {
    Tet3* pTet = vt.locate(q);
    ASSERT_NE(pTet, nullptr) << q;
    for (int i = 0; i < 4; ++i) { // q is in the closed tetrahedron
      const Point3* f[3] = {pTet->getCorner((i + 1) % 4), pTet->getCorner((i + 2) % 4), pTet->getCorner((i + 3) % 4)};
      EXPECT_NE(exact::orient(*f[0], *f[1], *f[2], q), -exact::orient(*f[0], *f[1], *f[2], *pTet->getCorner(i)));
    }
    if (q == v[17]) {
      EXPECT_TRUE(pTet->hasVertex(q));
    }
  }
  // Outside the hull, and on its boundary (a hull case as well).
  EXPECT_EQ(vt.locate(Point3(11, 5, 5)), nullptr);
  EXPECT_EQ(vt.locate(Point3(-1e3, 0, 0)), nullptr);
  EXPECT_EQ(vt.locate(Point3(10, 3.3, 4.4)), nullptr);
}

// The facet registry, with pairs and tetrahedra chosen by the test so that
// all pairs fall into one bucket.
class FacetRegistry : public ::testing::Test {
protected:
  // Two more pairs of consecutive records whose hash is that of the first
  // pair, from a bounded number of records.
  void SetUp() override {
    points.init(4096, -1);
    tets.init(16, -1);
    std::vector<Point3*> vRec;
    for (int i = 0; i < 4096; ++i) {
      vRec.push_back(points.nextObject());
      vRec.back()->init(Point3(i, i * i, 1.0 / (i + 1)));
    }
    v[0] = vRec[0], v[1] = vRec[1], v[6] = vRec[2], v[7] = vRec[3];
    hash = Dt3::tcsHash(v[0], v[1]);
    size_t k = 2;
    for (size_t j = 4; k < 6 && j + 1 < vRec.size(); ++j)
      if (Dt3::tcsHash(vRec[j], vRec[j + 1]) == hash) v[k++] = vRec[j], v[k++] = vRec[j + 1], ++j;
    ASSERT_EQ(k, 6u) << "no two more pairs with the first pair's hash among " << vRec.size() << " records";
    for (Tet3*& t : t6) t = tets.nextObject();
  }
  // Half h (0 or 1) of pair k is facet 1+h of tetrahedron 2k+h; the halves
  // are numbered 2k+h.
  void offer(int half) { dt.tcsTreatment(hash, t6[half], 1 + half % 2, v[half - half % 2], v[half - half % 2 + 1]); }
  void freshTets() {
    for (Tet3* t : t6) t->setProperties(v[6], v[7], v[0], v[1]);
  }
  bool linked(int k) {
    return t6[2 * k]->getOppTet(1) == t6[2 * k + 1] && t6[2 * k + 1]->getOppTet(2) == t6[2 * k];
  }
  // Offers the halves of `numPairs` pairs in every order; each run ends with
  // the final pass and must leave all pairs linked and the registry empty.
  void everyOrder(int numPairs) {
    std::vector<int> order;
    for (int i = 0; i < 2 * numPairs; ++i) order.push_back(i);
    do {
      freshTets();
      for (int half : order) offer(half);
      dt.tcsFinalPass();
      for (int k = 0; k < numPairs; ++k) EXPECT_TRUE(linked(k)) << "pair " << k;
      EXPECT_TRUE(dt.isRegistryEmpty());
      EXPECT_EQ(dt.getNumStoredTCS(), 0);
    } while (std::next_permutation(order.begin(), order.end()));
  }

  SimplePool<Point3> points;
  SimplePool<Tet3> tets;
  Point3* v[8];
  Tet3* t6[6];
  unsigned long hash = 0;
  Dt3 dt{nullptr};
};

TEST_F(FacetRegistry, CollidingPairsCloseInEveryOrder) {
  // P1 Q1 P2 Q2: Q2 lands in the freed bucket; only the final pass links Q.
  // (P1 Q1 Q2 P2 closes Q through the overflow list at once.)
  freshTets();
  for (int half : {0, 2, 1, 3}) offer(half);
  EXPECT_TRUE(linked(0));
  EXPECT_FALSE(linked(1));
  EXPECT_EQ(dt.getNumStoredTCS(), 2);
  EXPECT_EQ(dt.getNumHashCollisions(), 1u);
  dt.tcsFinalPass();
  EXPECT_TRUE(linked(1));
  EXPECT_TRUE(dt.isRegistryEmpty());
  everyOrder(2);
  everyOrder(3);
}

TEST_F(FacetRegistry, OpenEntriesSurviveTheFinalPassAndTcsResetEmptiesAll) {
  // P1 Q1 P2 R1: R1 takes the bucket, Q1 finds it foreign and stays open.
  freshTets();
  for (int half : {0, 2, 1, 4}) offer(half);
  dt.tcsFinalPass();
  EXPECT_EQ(dt.getNumStoredTCS(), 2);
  EXPECT_EQ(dt.getNumHashCollisions(), 0u);
  EXPECT_FALSE(dt.isRegistryEmpty());
  dt.tcsReset();
  EXPECT_TRUE(dt.isRegistryEmpty());
  EXPECT_EQ(dt.getNumStoredTCS(), 0);
}

TEST_F(FacetRegistry, SamePairTwiceFromOneTetrahedronIsAnAssertion) {
  freshTets();
  dt.tcsTreatment(hash, t6[0], 2, v[0], v[1]);
  std::string out;
  EXPECT_TRUE(support::failsAssertion([&] { dt.tcsTreatment(hash, t6[0], 3, v[0], v[1]); }, "fromTet!=toTet", &out));
  EXPECT_NE(out.find("register tets has been called with fromTet==toTet=="), std::string::npos) << out;
}
