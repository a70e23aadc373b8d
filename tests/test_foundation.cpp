// Tests of the foundation: the library's fixed texts, the assertion report,
// timers and counters, block pools, point records and the Hilbert vertex
// store (its worked keys, the curve, duplicates, margins and report).
#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
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

// The first addPoints of the process widens the box by (extent * 0.1) * 0.5
// at both ends, every later one by extent * 0.5; addPoint before them neither
// reads nor sets the flag. The boxes are compared through the keys of random
// points with those of stores given the expected boxes.
bool firstMarginIsSmallOnlyOnce() {
  HC3 single(27), first(27), second(27), firstBox(27), secondBox(27);
  setBox(single, Point3(-1, -1, -1), Point3(3, 3, 3));
  std::vector<Point3> v{Point3(0, 0, 0), Point3(10, 20, 40)};
  std::vector<Point3*> vHandles, vNew, vHandles2, vNew2;
  first.addPoints(v, vHandles, vNew);
  second.addPoints(v, vHandles2, vNew2);
  setBox(firstBox, Point3(-0.5, -1, -2), Point3(10.5, 21, 42));
  setBox(secondBox, Point3(-5, -10, -20), Point3(15, 30, 60));
  std::mt19937 gen(1);
  std::uniform_real_distribution<double> x(-6, 16), y(-11, 31), z(-21, 61);
  for (int i = 0; i < 4096; ++i) {
    const Point3 p(x(gen), y(gen), z(gen));
    if (first.iReset(p) != firstBox.iReset(p) || second.iReset(p) != secondBox.iReset(p)) return false;
  }
  return true;
}

} // namespace

// The library's fixed texts, exactly.
TEST(FixedTexts, MessagesBannersAndReports) {
  const std::string esc = "\033", stars38(38, '*'), stars36 = std::string(36, '*') + "\n", indent(16, ' ');
  const std::string redStars = esc + "[0;31m" + stars36 + esc + "[m";
  const struct { const char* name; std::function<void()> act; std::string text; } cases[] = {
      {"warning", [] { warning("T", "m"); }, "\n" + esc + "[0;33m      T, WARNING: m" + esc + "[m\n\n"},
      {"error", [] { error("T", "m"); }, "\n" + esc + "[0;31m      T, ERROR: m" + esc + "[m\n\n"},
      {"info", [] { info("T", "m"); }, "\n" + esc + "[0;35m      T, INFO: m" + esc + "[m\n\n"},
      {"info without title", [] { info("", "m"); }, "\n      INFO: m\n\n"},
      {"fatBar", [] { fatBar("ab", false, false); },
       "\n\n" + stars38 + "\n" + stars38 + "\n" + indent + "ab\n" + stars38 + "\n" + stars38 + "\n"},
      {"fatBar highlighted on a blank screen", [] { fatBar("", true, true); },
       "\n\n" + std::string(108, '\n') + redStars + redStars + indent + "\n" + redStars + redStars +
           std::string(8, '\n')},
      {"repstr", [] { std::cout << repstr("aaa", "a", "aa"); }, "aaaaaa"},
      {"counters, listed by name",
       [] { for (const char* n : {"fooB", "fooB", "fooA", "GETCOUNTERS", "fooB", "GETCOUNTERS"}) benchCounter(n); },
       "\nCounters: \nfooA\t1\nfooB\t2\n\n\nCounters: \nfooA\t1\nfooB\t3\n\n"},
      {"pool of 51 blocks", [] { blockSizesAfter<int>(1, 1, 51); },
       "SimplePool::~SimplePool: Number of containers to release: 51\n"},
      {"pool of 50 blocks", [] { blockSizesAfter<int>(1, 1, 50); }, ""},
      {"colour past the reachable ones", [] { std::cout << Visualizer3::getColor(14); },
       "Attention, returning colorArray[13] which is the last available color\n" + Visualizer3::CWHITE},
  };
  for (const auto& c : cases) EXPECT_EQ(captured(c.act), c.text) << c.name;
}

TEST(Console, GoToHellPrintsItsReasonAndARunningNumber) {
  const std::string out = captured([] { goToHell("r"); });
  EXPECT_TRUE(std::regex_match(out, std::regex("\n\x1b\\[0;31m      goToHell, ERROR:  reason: r\x1b\\[m\n\n[1-9][0-9]*\n")))
      << out;
}

TEST(Console, GlobalPrefixCountsFromZeroInEachProcess) {
  EXPECT_IN_FRESH_PROCESS(globalPrefix() == "00000_" && globalPrefix() == "00001_");
}

TEST(Console, AssertionReportPrintsConditionAndPositionThenThrows) {
  HC3 h(27);
  std::vector<Point3> vPoints{Point3(1, 2, 3)};
  std::vector<Point3*> vHandles{nullptr}, vNew;
  std::string out;
  EXPECT_TRUE(support::failsAssertion([&] { h.addPoints(vPoints, vHandles, vNew); }, "vUserHandles.empty()", &out));
  EXPECT_EQ(out.rfind("\n\033[0;31m      Velm, , ERROR: Condition [ ", 0), 0u) << out; // the report comes first
  EXPECT_EQ(h.getNumStoredVtx(), 0u); // the store is unchanged
  const std::string what = VelmException().what();
  EXPECT_EQ(what.rfind("\n  VELM EXCEPTION due to a bug _or_ wrong usage of Velm. If you think it is a \n"
                       "  bug then please report this incident and it will be fixed quickly: ", 0), 0u);
}

TEST(Timers, StartStopRestartOverlapAndTheLastingNumberFormat) {
  std::ios saved(nullptr);
  saved.copyfmt(std::cout);
  std::vector<double> t;
  const std::string out = captured([&] {
    for (const char* name : {"tA", "tA", "tA", "tP", "tQ", "tP", "tQ"}) t.push_back(timer(name));
    std::cout << 2.0 << "|";
  });
  std::cout.copyfmt(saved);
  EXPECT_TRUE(t[0] == -1.0 && t[1] >= 0.0 && t[2] == -1.0 && t[3] == -1.0 && t[4] == -1.0);
  EXPECT_TRUE(t[5] >= 0.0 && t[6] >= 0.0);
  const std::string start = "\n\\*\\*\\* Timer \\[t.\\] start\n";
  const std::string stop = "\\*\\*\\* Timer \\[t.\\] stop, elapsed time: [0-9]+\\.[0-9]{3} s\n\n";
  EXPECT_TRUE(std::regex_match(out, std::regex(start + stop + start + start + start + stop + stop + "2\\.000\\|")))
      << out;
}

TEST(Timers, StopWatchReportsZeroBytes) {
  const std::string sw = captured([] { stopWatch("sw"), stopWatch("sw"); });
  EXPECT_TRUE(std::regex_match(sw, std::regex("\x1b\\[0;31m\\*\\* stopWatch\\(\\) START: sw\x1b\\[m\n\x1b\\[0;31m"
                                              "\\*\\* stopWatch\\(\\) STOP: Time for sw: \\[[-+.e0-9]+ s\\], "
                                              "Memory difference is: 0 Bytes=0 MB\n\x1b\\[m\n")))
      << sw;
}

TEST(Pools, BlocksHalveOnceThenDoubleUpToTheByteLimit) {
  EXPECT_EQ(blockSizesAfter<Tet3>(28, -1, 42), (std::vector<int>{28, 14}));
  EXPECT_EQ(blockSizesAfter<Tet3>(28, -1, 43), (std::vector<int>{28, 14, 28}));
  EXPECT_EQ(blockSizesAfter<Point3>(4, -1, 19), (std::vector<int>{4, 2, 4, 8, 16}));
  EXPECT_EQ(blockSizesAfter<TwoTetStruct>(1024, 512, 1024 + 3 * 512), (std::vector<int>{1024, 512, 512, 512}));
  struct Big {
    char bytes[12500000]; // at most 8 in a block of 100,000,000 bytes
  };
  EXPECT_EQ(blockSizesAfter<Big>(4, -1, 27), (std::vector<int>{4, 2, 4, 8, 8, 8}));
}

TEST(Pools, ResetHandsOutTheFirstBlockAgainAndSecondInitIsFatal) {
  SimplePool<Point3> grown;
  grown.init(4, -1);
  Point3* first = grown.nextObject();
  Point3* second = grown.nextObject();
  for (int i = 0; i < 4; ++i) grown.nextObject();
  grown.reset();
  EXPECT_TRUE(grown.getNumBlocks() == 1u && grown.nextObject() == first && grown.nextObject() == second);
  for (int i = 0; i < 3; ++i) grown.nextObject();
  // Doubling goes on from the last size; the live second block is the new one.
  EXPECT_EQ(grown.getBlockSizes(), (std::vector<int>{4, 2, 4}));
  EXPECT_EQ(grown.getBlockSize(1), 4);
  EXPECT_FATAL(grown.init(4, -1), "SimplePool::init\\(\\.\\.\\), ERROR: This pool is already initialized");
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
  Bbox3 box;
  EXPECT_TRUE(!box.add(std::vector<Point3>()) && box.minX == 1.7976931348623157e308); // stays empty
  EXPECT_TRUE(box.add(std::vector<Point3>{Point3(0, 0, 0)}) && box.add(Point3(1, 1, 1)));
  EXPECT_FALSE(box.add(Point3(0.5, 0.5, 0.5)) || box.add(Point3(1, 0, 1)));
  EXPECT_TRUE(box.add(Point3(0.5, -1, 0.5)));
  for (int k = 0; k < 6; ++k) { // the vector form answers whether any one of the six limits moved
    double c[3] = {0.5, 0.5, 0.5};
    c[k % 3] = k < 3 ? -1.0 : 2.0;
    Bbox3 unit;
    unit.add(std::vector<Point3>{Point3(0, 0, 0), Point3(1, 1, 1)});
    EXPECT_TRUE(unit.add(std::vector<Point3>{Point3(0.5, 0.5, 0.5), Point3(c[0], c[1], c[2])})) << k;
    EXPECT_FALSE(unit.add(std::vector<Point3>{Point3(c[0], c[1], c[2])})) << k;
  }
}

TEST(VertexStore, WorkedKeys) {
  HC3 h(27), tall(27);
  setBox(h, Point3(0, 0, 0), Point3(1, 1, 1));
  setBox(tall, Point3(-1, 1, 2), Point3(0, 5, 3)); // the unit-x box of the last key, moved off the origin
  const std::tuple<HC3*, Point3, unsigned> vKeys[] = {{&h, Point3(0, 0, 0), 0u}, {&h, Point3(0.3, 0.6, 0.9), 39683436u},
      {&h, Point3(0.5, 0.5, 0.5), 97733940u}, {&h, Point3(1, 1, 1), 90543705u}, {&tall, Point3(-0.7, 4, 2.9), 44390741u}};
  for (const auto& [pStore, p, key] : vKeys) EXPECT_EQ(pStore->iReset(p), key) << p;
  HC3 empty(27);
  Point3 q(0.5, 0.5, 0.5);
  EXPECT_TRUE(empty.getCloseTet(q) == nullptr && h.getCloseTet(q) == nullptr); // no vertex has a tetrahedron
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

// checkQ's report: the extremes of all coordinates, the bins, the distances
// between consecutive vertices (their sum over the number of vertices) and
// the vertices per used key. Keys of one level: (-10,-10,-10) and
// (-9,-9,-9) share key 0 of the box [-12,-4], (-6,-6,-6) has key 5. The
// distances along the curve are sqrt(3) and 3 sqrt(3); with only negative
// coordinates the maximum keeps its start value, the smallest normal double.
// A value equal to the minimum so far is still a candidate for the maximum.
TEST(VertexStore, CheckQReportsExtremesBinsDistancesAndKeys) {
  HC3 h(3);
  Point3 v[3] = {Point3(-10, -10, -10), Point3(-6, -6, -6), Point3(-9, -9, -9)};
  for (Point3& p : v) h.addPoint(p);
  EXPECT_EQ(captured([&] { h.checkQ(); }),
            "Points: coordMin=-10, coordMax=2.22507e-308\n\nHC3(numBits=3): We have 8 bins of which 1 are usable, "
            "expected avgNum=3\nHC3: Consecutive linear distance, avg=2.3094, max=5.19615\n"
            "HC3: NumItems per used bin, avg=1.5, max=2\n\n");
  HC3 one(3);
  Point3 p(5, 5, 5);
  one.addPoint(p);
  EXPECT_TRUE(support::contains(captured([&] { one.checkQ(); }), "Points: coordMin=5, coordMax=5\n")) << p;
}

TEST(VertexStore, SmallFirstMarginOncePerProcess) { EXPECT_IN_FRESH_PROCESS(firstMarginIsSmallOnlyOnce()); }

TEST(VertexStore, InvalidBitLengthIsFatal) {
  EXPECT_FATAL(HC3 h(28), "HC3::HC3\\(\\.\\.\\): invalid bitlength");
  EXPECT_FATAL(HC3 h(33), "HC3::HC3\\(\\.\\.\\): invalid bitlength");
  HC3 longest(30);
  setBox(longest, Point3(0, 0, 0), Point3(1, 1, 1));
  EXPECT_EQ(longest.iReset(Point3(1, 1, 1)) >> 27, 5u); // the top digit of the corner cell (1,1,1)
}
