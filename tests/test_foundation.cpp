// Tests of the foundation: console texts and the assertion report, timers and
// counters, block pools, point records and the Hilbert vertex store.
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using BRIX_TOOLS::SimplePool;
using support::captured;

namespace {

const std::string ESC = "\033";

template <class T> std::vector<int> blockSizesAfter(int first, int growth, int numObjects) {
  SimplePool<T> pool;
  pool.init(first, growth);
  for (int i = 0; i < numObjects; ++i) pool.nextObject();
  return pool.getBlockSizes();
}

// Makes the store's box exactly [lo, hi]: the second point widens the box of
// the first by half its extent at both ends.
void setBox(HC3& h, const Point3& lo, const Point3& hi) {
  Point3 a(0.75 * lo.x() + 0.25 * hi.x(), 0.75 * lo.y() + 0.25 * hi.y(), 0.75 * lo.z() + 0.25 * hi.z());
  Point3 b(0.25 * lo.x() + 0.75 * hi.x(), 0.25 * lo.y() + 0.75 * hi.y(), 0.25 * lo.z() + 0.75 * hi.z());
  h.addPoint(a);
  h.addPoint(b);
}

// Whether h keys random points in and around the box [lo, hi] as a store
// whose box is exactly that one does.
bool keysAsInBox(HC3& h, const Point3& lo, const Point3& hi) {
  HC3 ref(27);
  setBox(ref, lo, hi);
  std::mt19937 gen(1);
  std::uniform_real_distribution<double> f(-0.1, 1.1);
  for (int i = 0; i < 4096; ++i) {
    const Point3 p(lo.x() + f(gen) * (hi.x() - lo.x()), lo.y() + f(gen) * (hi.y() - lo.y()), lo.z() + f(gen) * (hi.z() - lo.z()));
    if (h.iReset(p) != ref.iReset(p)) return false;
  }
  return true;
}

// The first addPoints of the process widens the box by (extent * 0.1) * 0.5
// at both ends, every later one by extent * 0.5; addPoint neither reads nor
// sets the flag.
bool firstMarginIsSmallOnlyOnce() {
  HC3 single(27), first(27), second(27);
  Point3 p(0, 0, 0), q(2, 2, 2);
  single.addPoint(p);
  single.addPoint(q);
  std::vector<Point3> v{Point3(0, 0, 0), Point3(10, 20, 40)};
  std::vector<Point3*> vHandles, vNew, vHandles2, vNew2;
  first.addPoints(v, vHandles, vNew);
  second.addPoints(v, vHandles2, vNew2);
  return keysAsInBox(first, Point3(-0.5, -1, -2), Point3(10.5, 21, 42)) &&
         keysAsInBox(second, Point3(-5, -10, -20), Point3(15, 30, 60));
}

} // namespace

TEST(Console, ColourWrappersMessagesBarsAndVersion) {
  EXPECT_EQ(redString("", 0), ESC + "[0;31m" + ESC + "[m");
  EXPECT_EQ(redString("x", 1), ESC + "[1;31mx" + ESC + "[m");
  EXPECT_EQ(greenString("g", 0) + yellowString("y", 0) + magentaString("m", 0),
            ESC + "[0;32mg" + ESC + "[m" + ESC + "[0;33my" + ESC + "[m" + ESC + "[0;35mm" + ESC + "[m");
  EXPECT_EQ(captured([] { warning("T", "m"); }), "\n" + ESC + "[0;33m      T, WARNING: m" + ESC + "[m\n\n");
  EXPECT_EQ(captured([] { error("T", "m"); }), "\n" + ESC + "[0;31m      T, ERROR: m" + ESC + "[m\n\n");
  EXPECT_EQ(captured([] { info("T", "m"); }), "\n" + ESC + "[0;35m      T, INFO: m" + ESC + "[m\n\n");
  EXPECT_EQ(captured([] { info("", "m"); }), "\n      INFO: m\n\n");
  const std::string s38(38, '*'), s36(36, '*'), indent(16, ' ');
  EXPECT_EQ(captured([] { fatBar("ab", false, false); }),
            "\n\n" + s38 + "\n" + s38 + "\n" + indent + "ab\n" + s38 + "\n" + s38 + "\n");
  EXPECT_EQ(captured([] { fatBar("", false, false); }),
            "\n\n" + s36 + "\n" + s36 + "\n" + indent + "\n" + s36 + "\n" + s36 + "\n");
  EXPECT_EQ(repstr("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(getVelm3DVersion(), "Velm3D, RELEASE, v0.99.0");
  EXPECT_TRUE(getMajorVersionNumber() == 0 && getMinorVersionNumber() == 99 && getRevisionNumber() == 0);
}

TEST(Console, GlobalPrefixCountsFromZeroInEachProcess) {
  EXPECT_IN_FRESH_PROCESS(globalPrefix() == "00000_" && globalPrefix() == "00001_");
}

TEST(Console, AssertionReportPrintsConditionAndPositionThenThrows) {
  HC3 h(27);
  std::vector<Point3> vPoints{Point3(1, 2, 3)};
  std::vector<Point3*> vHandles{nullptr}, vNew;
  std::string out, what;
  auto add = [&] {
    try {
      h.addPoints(vPoints, vHandles, vNew);
    } catch (const VelmException& e) {
      what = e.what();
      throw;
    }
  };
  EXPECT_TRUE(support::failsAssertion(add, "vUserHandles.empty()", &out));
  EXPECT_EQ(out.rfind("\n" + ESC + "[0;31m      Velm, , ERROR: Condition [ ", 0), 0u) << out; // the report comes first
  EXPECT_TRUE(std::regex_search(out, std::regex("\n      dt3Library/HC3\\.cpp:[0-9]+\n$"))) << out;
  EXPECT_EQ(h.getNumStoredVtx(), 0u); // the store is unchanged
  const std::string fixed = "\n  VELM EXCEPTION due to a bug _or_ wrong usage of Velm. If you think it is a \n"
                            "  bug then please report this incident and it will be fixed quickly: ";
  EXPECT_TRUE(what.size() > fixed.size() && what.rfind(fixed, 0) == 0 && what == VelmException().what());
}

TEST(Timers, StartStopRestartOverlapAndTheLastingNumberFormat) {
  const std::ios_base::fmtflags flags = std::cout.flags();
  const std::streamsize precision = std::cout.precision();
  std::vector<double> t;
  const std::string out = captured([&] {
    for (const char* name : {"tA", "tA", "tA", "tP", "tQ", "tP", "tQ"}) t.push_back(timer(name));
    std::cout << 2.0 << "|";
  });
  std::cout.flags(flags);
  std::cout.precision(precision);
  EXPECT_TRUE(t[0] == -1.0 && t[1] >= 0.0 && t[2] == -1.0 && t[3] == -1.0 && t[4] == -1.0);
  EXPECT_TRUE(t[5] >= 0.0 && t[6] >= 0.0);
  const std::string start = "\n\\*\\*\\* Timer \\[t.\\] start\n";
  const std::string stop = "\\*\\*\\* Timer \\[t.\\] stop, elapsed time: [0-9]+\\.[0-9]{3} s\n\n";
  EXPECT_TRUE(std::regex_match(out, std::regex(start + stop + start + start + start + stop + stop + "2\\.000\\|")))
      << out;
}

TEST(Timers, CountersListInKeyOrderAndStopWatchReportsZeroBytes) {
  const std::string counters = captured([] {
    for (const char* name : {"fooB", "fooB", "fooA", "GETCOUNTERS", "fooB", "GETCOUNTERS"}) benchCounter(name);
  });
  EXPECT_EQ(counters, "\nCounters: \nfooA\t1\nfooB\t2\n\n\nCounters: \nfooA\t1\nfooB\t3\n\n");
  const std::string sw = captured([] { stopWatch("sw"), stopWatch("sw"); });
  EXPECT_TRUE(std::regex_match(sw, std::regex("\x1b\\[0;31m\\*\\* stopWatch\\(\\) START: sw\x1b\\[m\n"
                                              "\x1b\\[0;31m\\*\\* stopWatch\\(\\) STOP: Time for sw: \\[[-+.e0-9]+ s\\], "
                                              "Memory difference is: 0 Bytes=0 MB\n\x1b\\[m\n")))
      << sw;
}

TEST(Pools, BlocksHalveOnceThenDoubleUpToTheByteLimit) {
  EXPECT_EQ(blockSizesAfter<Tet3>(28, -1, 28), std::vector<int>{28});
  EXPECT_EQ(blockSizesAfter<Tet3>(28, -1, 29), (std::vector<int>{28, 14}));
  EXPECT_EQ(blockSizesAfter<Tet3>(28, -1, 42), (std::vector<int>{28, 14}));
  EXPECT_EQ(blockSizesAfter<Tet3>(28, -1, 43), (std::vector<int>{28, 14, 28}));
  EXPECT_EQ(blockSizesAfter<Point3>(4, -1, 19), (std::vector<int>{4, 2, 4, 8, 16}));
  EXPECT_EQ(blockSizesAfter<TwoTetStruct>(1024, 512, 1024 + 3 * 512), (std::vector<int>{1024, 512, 512, 512}));
  struct Big {
    char bytes[12500000]; // at most 8 in a block of 100,000,000 bytes
  };
  EXPECT_EQ(blockSizesAfter<Big>(4, -1, 27), (std::vector<int>{4, 2, 4, 8, 8, 8}));
  SimplePool<Tet3> tets;
  SimplePool<Point3> points;
  tets.init(28, -1);
  points.init(4, -1);
  EXPECT_TRUE(tets.getMaxBlockSize() == 1250000 && points.getMaxBlockSize() == 2500000);
}

TEST(Pools, ResetHandsOutTheFirstBlockAgain) {
  SimplePool<Point3> single, grown;
  single.init(8, -1);
  Point3* p0 = single.nextObject();
  Point3* p1 = single.nextObject();
  single.reset();
  EXPECT_TRUE(single.nextObject() == p0 && single.nextObject() == p1);
  grown.init(4, -1);
  Point3* first = grown.nextObject();
  for (int i = 0; i < 5; ++i) grown.nextObject();
  grown.reset();
  EXPECT_EQ(grown.getNumBlocks(), 1u);
  EXPECT_EQ(grown.nextObject(), first);
  for (int i = 0; i < 4; ++i) grown.nextObject();
  EXPECT_EQ(grown.getBlockSizes(), (std::vector<int>{4, 2, 4})); // doubling goes on from the last size
  EXPECT_EQ(grown.getBlockSize(1), 4);
}

TEST(Pools, DestructorReportsFromFiftyOneBlocksAndSecondInitIsFatal) {
  EXPECT_EQ(captured([] { blockSizesAfter<int>(1, 1, 50); }), "");
  EXPECT_EQ(captured([] { blockSizesAfter<int>(1, 1, 51); }),
            "SimplePool::~SimplePool: Number of containers to release: 51\n");
  SimplePool<int> pool;
  pool.init(4, -1);
  EXPECT_FATAL(pool.init(4, -1), "SimplePool::init\\(\\.\\.\\), ERROR: This pool is already initialized");
}

TEST(Point3Records, DefaultsCopiesOrderAndBoxGrowth) {
  const Point3 d;
  EXPECT_TRUE(d.x() == -1.7976931348623157e308 && d.y() == d.x() && d.z() == d.x() && !d.getOneTet());
  Point3 v(1, 2, 3);
  v.setOneTet(reinterpret_cast<Tet3*>(&v));
  const Point3 copy(v);
  EXPECT_TRUE(copy.getOneTet() == nullptr && copy == v && !(v < copy) && !(copy < v));
  EXPECT_TRUE(Point3(1, 2, 3) < Point3(1, 2, 4) && Point3(1, 2, 4) < Point3(1, 3, 0) &&
              Point3(1, 3, 0) < Point3(2, 0, 0) && !(Point3(2, 0, 0) < Point3(1, 3, 0)));
  EXPECT_TRUE(Point3(0.0, -0.0, 0.0) == Point3(-0.0, 0.0, -0.0));

  Bbox3 box;
  EXPECT_TRUE(!box.add(std::vector<Point3>()) && box.minX == 1.7976931348623157e308); // stays empty
  EXPECT_TRUE(box.add(std::vector<Point3>{Point3(0, 0, 0)}) && box.add(Point3(1, 1, 1)));
  EXPECT_FALSE(box.add(Point3(0.5, 0.5, 0.5)) || box.add(Point3(1, 0, 1)));
  EXPECT_TRUE(box.add(Point3(0.5, -1, 0.5)));
  // The vector form answers whether any one of the six limits moved.
  for (int k = 0; k < 6; ++k) {
    Bbox3 unit;
    unit.add(std::vector<Point3>{Point3(0, 0, 0), Point3(1, 1, 1)});
    double c[3] = {0.5, 0.5, 0.5};
    c[k % 3] = k < 3 ? -1.0 : 2.0;
    EXPECT_TRUE(unit.add(std::vector<Point3>{Point3(0.5, 0.5, 0.5), Point3(c[0], c[1], c[2])})) << k;
    EXPECT_FALSE(unit.add(std::vector<Point3>{Point3(c[0], c[1], c[2])})) << k;
  }
}

TEST(VertexStore, WorkedKeys) {
  HC3 h(27), tall(27);
  setBox(h, Point3(0, 0, 0), Point3(1, 1, 1));
  EXPECT_EQ(h.iReset(Point3(0, 0, 0)), 0u);
  EXPECT_EQ(h.iReset(Point3(0.3, 0.6, 0.9)), 39683436u);
  EXPECT_EQ(h.iReset(Point3(0.5, 0.5, 0.5)), 97733940u);
  EXPECT_EQ(h.iReset(Point3(1, 1, 1)), 90543705u);
  setBox(tall, Point3(0, 0, 0), Point3(1, 4, 1));
  EXPECT_EQ(tall.iReset(Point3(0.3, 3, 0.9)), 44390741u);
}

TEST(VertexStore, KeysOrderTheCellsOfACubeIntoAFaceConnectedPath) {
  for (int depth = 1; depth <= 4; ++depth) {
    HC3 h(3 * depth);
    setBox(h, Point3(0, 0, 0), Point3(1, 1, 1));
    const int n = 1 << depth;
    std::vector<std::pair<unsigned int, std::array<int, 3>>> vCells;
    for (int i = 0; i < n * n * n; ++i) {
      const std::array<int, 3> c{i / (n * n), (i / n) % n, i % n};
      vCells.push_back({h.iReset(Point3((c[0] + 0.5) / n, (c[1] + 0.5) / n, (c[2] + 0.5) / n)), c});
    }
    std::sort(vCells.begin(), vCells.end());
    EXPECT_EQ(vCells[0].second, (std::array<int, 3>{0, 0, 0}));
    for (size_t k = 1; k < vCells.size(); ++k) {
      ASSERT_EQ(vCells[k].first, k) << "depth " << depth; // every key once
      int dist = 0;
      for (int a = 0; a < 3; ++a) dist += std::abs(vCells[k].second[a] - vCells[k - 1].second[a]);
      ASSERT_EQ(dist, 1) << "depth " << depth << ", key " << k;
    }
  }
}

// A point on a cell boundary belongs to the upper cell at every level, so its
// key is that of a point a little above it in the same finest cell. Each
// value k/512 lies on a boundary at the level of the lowest bit of k.
TEST(VertexStore, PointsOnCellBoundariesTakeTheUpperCell) {
  HC3 h(27);
  setBox(h, Point3(0, 0, 0), Point3(1, 1, 1));
  std::mt19937 gen(3);
  for (int n = 0; n < 3 * 512; ++n) {
    double c[3] = {(gen() % 512) / 512.0, (gen() % 512) / 512.0, (gen() % 512) / 512.0};
    c[n % 3] = (n / 3) / 512.0;
    const Point3 p(c[0], c[1], c[2]);
    ASSERT_EQ(h.iReset(p), h.iReset(Point3(c[0] + 0x1p-12, c[1] + 0x1p-12, c[2] + 0x1p-12))) << p;
  }
}

// checkQ's report: the extremes of all coordinates (with only negative ones
// the maximum keeps its start, the smallest normal double), the bins, the
// distances between consecutive vertices (their sum over the number of
// vertices) and the vertices per used key.
TEST(VertexStore, CheckQReportsExtremesBinsDistancesAndKeys) {
  HC3 h(9);
  Point3 v[4] = {Point3(-1, -2, -3), Point3(-1, -2, -3.5), Point3(-4, -2.5, -3), Point3(-1.25, -2, -3)};
  for (Point3& p : v) h.addPoint(p);
  std::vector<Point3*> vStored;
  h.getVertices(vStored);
  double sum = 0.0, maxDist = 0.0;
  std::map<unsigned, int> mPerKey;
  for (size_t i = 0; i < vStored.size(); ++i) {
    ++mPerKey[h.iReset(*vStored[i])];
    if (i == 0) continue;
    const Point3 &p = *vStored[i], &q = *vStored[i - 1];
    const double d = std::sqrt((p.x() - q.x()) * (p.x() - q.x()) + (p.y() - q.y()) * (p.y() - q.y()) +
                               (p.z() - q.z()) * (p.z() - q.z()));
    sum += d, maxDist = std::max(maxDist, d);
  }
  int maxPerKey = 0;
  for (const auto& keyCount : mPerKey) maxPerKey = std::max(maxPerKey, keyCount.second);
  std::ostringstream want;
  want << "Points: coordMin=" << -4.0 << ", coordMax=" << 2.2250738585072014e-308 << "\n\nHC3(numBits=9): We have 512"
       << " bins of which 64 are usable, expected avgNum=" << 4.0 / 512 * 8.0 << "\nHC3: Consecutive linear distance, avg="
       << sum / 4 << ", max=" << maxDist << "\nHC3: NumItems per used bin, avg=" << 4.0 / mPerKey.size()
       << ", max=" << maxPerKey << "\n\n";
  EXPECT_EQ(captured([&] { h.checkQ(); }), want.str());
}

TEST(VertexStore, DuplicatesCollapseAndEveryInputGetsItsHandle) {
  HC3 h(27), empty(27);
  std::vector<Point3> vPoints{Point3(0.0, 1, 2), Point3(5, 5, 5), Point3(-0.0, 1, 2),
                              Point3(3, 0, 4),   Point3(5, 5, 5), Point3(1, 4, 0)};
  std::vector<Point3*> vHandles, vNew, vHandles2, vNew2;
  h.addPoints(vPoints, vHandles, vNew);
  ASSERT_EQ(vHandles.size(), vPoints.size());
  EXPECT_TRUE(vHandles[0] == vHandles[2] && vHandles[1] == vHandles[4]);
  for (size_t i = 0; i < vPoints.size(); ++i) EXPECT_TRUE(*vHandles[i] == vPoints[i]);
  ASSERT_TRUE(h.getNumStoredVtx() == 4 && vNew.size() == 4);
  for (size_t i = 1; i < vNew.size(); ++i) EXPECT_LE(h.iReset(*vNew[i - 1]), h.iReset(*vNew[i]));
  std::vector<Point3> vAgain{Point3(3, 0, 4), Point3(2, 2, 2)};
  h.addPoints(vAgain, vHandles2, vNew2);
  EXPECT_EQ(vHandles2[0], vHandles[3]);
  EXPECT_EQ(vNew2, std::vector<Point3*>{vHandles2[1]});
  EXPECT_EQ(h.getCloseTet(vAgain[1]), nullptr); // no vertex has a tetrahedron
  EXPECT_EQ(empty.getCloseTet(vAgain[1]), nullptr);
}

// A bulk input large enough for the store's radix sort: points all over the
// box, exact copies and points a few steps apart within one key's cell. The
// new vertices come by key and, within a key, by input order, and each input
// gets the vertex of its first copy.
TEST(VertexStore, LargeInputKeepsKeyThenInputOrder) {
  HC3 h(27);
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> coord(-3.0, 5.0);
  std::vector<Point3> vPoints;
  for (int i = 0; i < 9000; ++i) {
    if (i % 5 == 4) vPoints.push_back(vPoints[rng() % vPoints.size()]);
    else if (i % 5 == 3) vPoints.push_back(Point3(vPoints[i - 1].x(), vPoints[i - 1].y(), std::nextafter(vPoints[i - 1].z(), 9.0)));
    else vPoints.emplace_back(coord(rng), coord(rng), coord(rng));
  }
  std::vector<Point3*> vHandles, vNew;
  h.addPoints(vPoints, vHandles, vNew);
  std::map<std::array<double, 3>, size_t> firstCopy;
  std::vector<std::pair<unsigned int, size_t>> vWant;
  for (size_t i = 0; i < vPoints.size(); ++i) {
    const auto it = firstCopy.emplace(std::array<double, 3>{vPoints[i].x(), vPoints[i].y(), vPoints[i].z()}, i).first;
    EXPECT_EQ(vHandles[i], vHandles[it->second]);
    if (it->second == i) vWant.emplace_back(h.iReset(vPoints[i]), i);
  }
  std::stable_sort(vWant.begin(), vWant.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  ASSERT_EQ(vNew.size(), vWant.size());
  for (size_t k = 0; k < vNew.size(); ++k) ASSERT_EQ(vNew[k], vHandles[vWant[k].second]) << k;
}

TEST(VertexStore, SmallFirstMarginOncePerProcess) { EXPECT_IN_FRESH_PROCESS(firstMarginIsSmallOnlyOnce()); }

TEST(VertexStore, InvalidBitLengthIsFatal) {
  EXPECT_FATAL(HC3 h(28), "HC3::HC3\\(\\.\\.\\): invalid bitlength");
  EXPECT_FATAL(HC3 h(33), "HC3::HC3\\(\\.\\.\\): invalid bitlength");
  HC3 longest(30);
  setBox(longest, Point3(0, 0, 0), Point3(1, 1, 1));
  EXPECT_EQ(longest.iReset(Point3(1, 1, 1)) >> 27, 5u); // the top digit of the corner cell (1,1,1)
}
