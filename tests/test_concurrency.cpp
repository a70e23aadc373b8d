// The library's process-wide state used from several threads at once: the
// file prefix counter, the colour index, the counters, the random generator,
// the console and two triangulations side by side. Every test here is named
// Concurrent.*, and tests/tsan.sh runs them under ThreadSanitizer, where a
// race fails them even when the numbers come out right.
#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using support::captured;

namespace {

const int numThreads = 4;

// Runs body(t) for t = 0 .. numThreads-1, each on its own thread; the bodies
// start together, once every thread is up.
void onThreads(const std::function<void(int)>& body) {
  std::atomic<int> numWaiting{numThreads};
  std::vector<std::thread> vThreads;
  for (int t = 0; t < numThreads; ++t)
    vThreads.emplace_back([&, t] {
      --numWaiting;
      while (numWaiting.load() > 0) std::this_thread::yield();
      body(t);
    });
  for (std::thread& thread : vThreads) thread.join();
}

using Quadruple = std::array<std::tuple<double, double, double>, 4>;

// The mesh as a set of tetrahedra, each the sorted coordinates of its corners.
std::set<Quadruple> tetSet(const Velm_3D& vt) {
  std::vector<Tet3*> vTets;
  captured([&] { vt.getTetrahedra(vTets); });
  std::set<Quadruple> s;
  for (const Tet3* pTet : vTets) {
    Quadruple q;
    for (int i = 0; i < 4; ++i) q[i] = {pTet->getCorner(i)->x(), pTet->getCorner(i)->y(), pTet->getCorner(i)->z()};
    std::sort(q.begin(), q.end());
    s.insert(q);
  }
  return s;
}

} // namespace

TEST(Concurrent, FilePrefixesAreDistinctAcrossThreads) {
  const int perThread = 500;
  const int first = std::stoi(globalPrefix()) + 1;
  std::vector<std::vector<std::string>> vGot(numThreads);
  onThreads([&](int t) {
    for (int i = 0; i < perThread; ++i) vGot[t].push_back(globalPrefix());
  });
  std::set<std::string> sGot, sExpected;
  for (const auto& v : vGot) sGot.insert(v.begin(), v.end());
  for (int n = first; n < first + numThreads * perThread; ++n) sExpected.insert(toString(100000 + n).substr(1) + "_");
  EXPECT_EQ(sGot, sExpected);
  EXPECT_EQ(globalPrefix(), toString(100000 + first + numThreads * perThread).substr(1) + "_");
}

// 4 x 101 colours: 404 = 28 * 14 + 12, so the first 12 colours come 29 times
// and the last two 28 times, and the index ends at 12.
TEST(Concurrent, ColoursFromThreadsAreTheSequentialOnesInAnyOrder) {
  Visualizer3::nextColorIdx = 0;
  std::vector<std::vector<std::string>> vGot(numThreads);
  onThreads([&](int t) {
    for (int i = 0; i < 101; ++i) vGot[t].push_back(Visualizer3::getNextColor());
  });
  std::multiset<std::string> sGot, sExpected;
  for (const auto& v : vGot) sGot.insert(v.begin(), v.end());
  for (int i = 0; i < numThreads * 101; ++i) sExpected.insert(Visualizer3::colorArray[i % 14]);
  EXPECT_EQ(sGot, sExpected);
  EXPECT_EQ(Visualizer3::nextColorIdx, 12u);
}

TEST(Concurrent, SeededNumbersFromThreadsAreThoseOfTheSeedAlone) {
  std::vector<std::vector<double>> vAlone(numThreads);
  for (int t = 0; t < numThreads; ++t) generateRandomNumbers(2000, -1.0, 1.0, vAlone[t], 11 + t);
  std::vector<int> vNumWrong(numThreads, 0);
  onThreads([&](int t) {
    for (int round = 0; round < 500; ++round) {
      std::vector<double> v;
      generateRandomNumbers(2000, -1.0, 1.0, v, 11 + t);
      vNumWrong[t] += v != vAlone[t];
    }
  });
  EXPECT_EQ(vNumWrong, std::vector<int>(numThreads, 0));
}

// Counts and timers of distinct names from every thread: no entry is lost.
// The names are new in each run, as the counts last for the process.
TEST(Concurrent, CountersAndTimersKeepEveryThreadsEntries) {
  static int run = 0;
  const std::string prefix = "concurrent" + std::to_string(++run) + "_";
  std::vector<int> vNumBad(numThreads, 0);
  std::ostringstream format;
  format.copyfmt(std::cout);
  onThreads([&](int t) {
    for (int i = 0; i < 200; ++i) {
      benchCounter(prefix + "shared");
      benchCounter(prefix + std::to_string(t));
    }
  });
  captured([&] {
    onThreads([&](int t) {
      for (int i = 0; i < 50; ++i) {
        vNumBad[t] += timer(prefix + std::to_string(t)) != -1.0;
        vNumBad[t] += timer(prefix + std::to_string(t)) < 0.0;
      }
    });
  });
  std::cout.copyfmt(format); // a stopped timer leaves std::cout in fixed notation
  const std::string out = captured([] { benchCounter("GETCOUNTERS"); });
  EXPECT_TRUE(support::contains(out, "\n" + prefix + "shared\t800\n")) << out;
  for (int t = 0; t < numThreads; ++t)
    EXPECT_TRUE(support::contains(out, "\n" + prefix + std::to_string(t) + "\t200\n")) << out;
  EXPECT_EQ(vNumBad, std::vector<int>(numThreads, 0));
}

// Messages of several lines (a warning stands between blank lines) and single
// lines from every thread: the output is a sequence of whole messages.
TEST(Concurrent, ConsoleMessagesFromThreadsStayWhole) {
  const int perThread = 3000;
  std::vector<std::string> vMessages;
  for (int t = 0; t < numThreads; ++t) {
    vMessages.push_back("\n" + yellowString("      thread" + std::to_string(t) + ", WARNING: concurrent") + "\n\n");
    vMessages.push_back("Point3: " + std::to_string(t) + ",0.5,-2\n");
  }
  vMessages.push_back("warning: normalize(const Vector3& other), Null length vector!\n");
  const std::string out = captured([&] {
    onThreads([&](int t) {
      for (int i = 0; i < perThread; ++i) {
        warning("thread" + std::to_string(t), "concurrent");
        Point3(t, 0.5, -2.0).debug();
        normalize(Vector3(0.0, 0.0, 0.0));
      }
    });
  });
  std::map<std::string, int> mCount;
  for (size_t pos = 0; pos < out.size();) {
    const auto it = std::find_if(vMessages.begin(), vMessages.end(),
                                 [&](const std::string& m) { return out.compare(pos, m.size(), m) == 0; });
    ASSERT_NE(it, vMessages.end()) << "no whole message at byte " << pos << ":\n" << out.substr(pos, 200);
    ++mCount[*it];
    pos += it->size();
  }
  for (const std::string& m : vMessages) EXPECT_EQ(mCount[m], m[0] == 'w' ? numThreads * perThread : perThread) << m;
}

// Two triangulations at once, each on its own thread, give the meshes that
// each gives alone: points in general position have one Delaunay mesh.
TEST(Concurrent, TwoTriangulationsAtOnceGiveTheirMeshesAlone) {
  const std::vector<std::vector<Point3>> vInputs{support::randomPoints(4000, 5),
                                                  support::randomPoints(3000, 6, 1e-3, 1e3)};
  std::vector<std::set<Quadruple>> vAlone;
  for (std::vector<Point3> v : vInputs) {
    Velm_3D vt;
    captured([&] { vt.insert(v); });
    vAlone.push_back(tetSet(vt));
  }
  std::vector<std::set<Quadruple>> vTogether(2);
  std::vector<MeshFault::Kind> vFault(2, MeshFault::VISITED);
  Velm_3D vVt[2];
  captured([&] {
    std::thread other([&] {
      std::vector<Point3> v(vInputs[1]);
      vVt[1].insert(v);
      vFault[1] = vVt[1].findFault(true).kind;
    });
    std::vector<Point3> v(vInputs[0]);
    vVt[0].insert(v);
    vFault[0] = vVt[0].findFault(true).kind;
    other.join();
  });
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(vFault[i], MeshFault::NONE);
    EXPECT_TRUE(support::isDelaunayOf(vVt[i], vInputs[i]));
    EXPECT_EQ(tetSet(vVt[i]), vAlone[i]);
  }
}
