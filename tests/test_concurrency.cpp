// The library's process-wide state used from several threads at once: the
// file prefix counter, the colour index, the counters, the random generator,
// the console and two triangulations side by side (Concurrent.*); and the
// threaded bulk insertion (Threads.*). tests/tsan.sh runs them under
// ThreadSanitizer, where a race fails them even when the numbers come out
// right.
#include <algorithm>
#include <cmath>
#include <random>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "exact_checker.h"
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

// ---------------------------------------------------------------------------
// The threaded bulk insertion (Threads.*).

namespace {

// A terrain scan in miniature: a rolling ground, flat roofs and vertical
// walls of boxes, every coordinate rounded to 1 cm as scan files store them,
// so that duplicates, coplanar and cospherical points abound.
std::vector<Point3> scanLike(size_t n, unsigned long seed) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> d(0.0, 40.0);
  const auto cm = [](double x) { return std::round(x * 100.0) / 100.0; };
  std::vector<Point3> v;
  for (size_t i = 0; i < n; ++i) {
    const double x = d(gen), y = d(gen), ground = 0.5 * std::sin(0.3 * x) + 0.3 * std::cos(0.2 * y);
    const int box = static_cast<int>(x / 8) + 5 * static_cast<int>(y / 8), kind = static_cast<int>(i % 4);
    const double bx = 8.0 * (box % 5) + 2.0, by = 8.0 * (box / 5) + 2.0, top = 3.0 + box % 4;
    if (kind == 0) v.emplace_back(cm(x), cm(y), cm(ground)); // ground
    else if (kind == 1) v.emplace_back(cm(bx + std::fmod(x, 4.0)), cm(by + std::fmod(y, 4.0)), top); // roof
    else v.emplace_back(kind == 2 ? bx : cm(bx + std::fmod(x, 4.0)), kind == 2 ? cm(by + std::fmod(y, 4.0)) : by,
                        cm(std::fmod(x * y, top))); // walls
  }
  return v;
}

// The integer points between the spheres of squared radius 2400 and 2500:
// a hundred exactly cospherical shells.
std::vector<Point3> shells() {
  std::vector<Point3> v;
  for (int x = -50; x <= 50; ++x)
    for (int y = -50; y <= 50; ++y)
      for (int z = -50; z <= 50; ++z)
        if (x * x + y * y + z * z >= 2400 && x * x + y * y + z * z <= 2500) v.emplace_back(x, y, z);
  return v;
}

// Inserts v with numThreads threads; every input point must come back as the
// stored vertex of its position. Answers the handles.
std::vector<Point3*> insertThreaded(Velm_3D& vt, std::vector<Point3> v, int numThreads) {
  vt.setNumThreads(numThreads);
  std::vector<Point3*> vHandles;
  captured([&] { vt.insert(v, vHandles); });
  EXPECT_EQ(vHandles.size(), v.size());
  for (size_t i = 0; i < v.size() && i < vHandles.size(); ++i)
    if (!(vHandles[i] != nullptr && *vHandles[i] == v[i])) {
      ADD_FAILURE() << "point " << i << " has no vertex of its own";
      break;
    }
  return vHandles;
}

// The corners of the tetrahedra in the order of their records.
std::vector<std::tuple<double, double, double>> cornersInRecordOrder(const Velm_3D& vt) {
  std::vector<Tet3*> vTets;
  vt.getTetrahedraInRecordOrder(vTets);
  std::vector<std::tuple<double, double, double>> v;
  for (const Tet3* pTet : vTets)
    for (int i = 0; i < 4; ++i)
      v.emplace_back(pTet->getCorner(i)->x(), pTet->getCorner(i)->y(), pTet->getCorner(i)->z());
  return v;
}

} // namespace

// In general position the Delaunay mesh is unique: every thread count gives
// the same tetrahedra, more threads than cores included, and the scan of the
// record pools lists those the walk lists; on one thread two meshes of the
// points, made while the first lives, list their records alike. The
// batch location on as many threads finds each midpoint of two input points
// (inside the hull) in a tetrahedron that holds it.
TEST(Threads, EveryThreadCountGivesTheOneMeshOfPointsInGeneralPosition) {
  const std::vector<Point3> v = support::randomPoints(70000, 21);
  std::vector<double> vMid;
  for (size_t i = 0; i + 1 < v.size(); i += 2)
    vMid.insert(vMid.end(), {(v[i].x() + v[i + 1].x()) / 2, (v[i].y() + v[i + 1].y()) / 2, (v[i].z() + v[i + 1].z()) / 2});
  std::set<Quadruple> sOne;
  for (int numThreads : {1, 2, 3, 8}) {
    Velm_3D vt;
    insertThreaded(vt, v, numThreads);
    EXPECT_EQ(vt.findFault(true).kind, MeshFault::NONE) << numThreads;
    std::vector<Tet3*> vWalked, vScanned; // the scan of the pools finds what the walk finds
    vt.getTetrahedra(vWalked);
    vt.getTetrahedraInRecordOrder(vScanned);
    std::sort(vScanned.begin(), vScanned.end());
    EXPECT_TRUE(vScanned == vWalked) << numThreads;
    if (numThreads == 1) {
      sOne = tetSet(vt);
      Velm_3D twin, twin2; // neither the first insertion of the process, which gets its own margin
      insertThreaded(twin, v, 1);
      insertThreaded(twin2, v, 1);
      EXPECT_TRUE(cornersInRecordOrder(twin) == cornersInRecordOrder(twin2));
    } else {
      EXPECT_TRUE(tetSet(vt) == sOne) << numThreads << " threads";
    }
    std::vector<Tet3*> vFound;
    vt.findTetsContaining(vMid.data(), vMid.size() / 3, vFound);
    for (size_t i = 0; i < vFound.size(); ++i) {
      const Point3 q(vMid[3 * i], vMid[3 * i + 1], vMid[3 * i + 2]);
      ASSERT_TRUE(vFound[i] != nullptr && exact::containsClosed(vFound[i], q)) << numThreads << " threads, " << q;
    }
  }
}

// Degenerate sets tie-break differently on threads, but every mesh is
// Delaunay by the exact check; a second threaded insertion adds to a mesh.
TEST(Threads, EightThreadsOnDegenerateSetsGiveDelaunayMeshes) {
  const std::vector<std::pair<std::string, std::vector<Point3>>> vSets{
      {"grid", support::grid(34)}, {"shells", shells()}, {"scan", scanLike(70000, 3)}};
  for (const auto& [name, v] : vSets) {
    Velm_3D vt;
    const std::vector<Point3*> vHandles = insertThreaded(vt, v, 8);
    EXPECT_TRUE(support::isDelaunayOf(vt, v)) << name;
    // The same points again, in reverse: each is a repeat of its stored vertex.
    if (name == "scan") {
      const std::vector<Point3> vBack(v.rbegin(), v.rend());
      const std::vector<Point3*> vAgain = insertThreaded(vt, vBack, 2);
      EXPECT_TRUE(std::equal(vHandles.rbegin(), vHandles.rend(), vAgain.begin(), vAgain.end()));
    }
  }
  Velm_3D vt;
  const std::vector<Point3> vFirst = support::randomPoints(30000, 4), vSecond = support::grid(20, -0.95, 0.1);
  insertThreaded(vt, vFirst, 2);
  insertThreaded(vt, vSecond, 2);
  EXPECT_TRUE(support::isDelaunayOf(vt, support::joined(vFirst, vSecond)));
}

// Fewer points than threads, and all-coplanar input, take the usual road.
TEST(Threads, TinyAndFlatInputsWork) {
  Velm_3D vt;
  insertThreaded(vt, support::grid(2), 8);
  EXPECT_TRUE(support::isDelaunayOf(vt, support::grid(2)));
  Velm_3D flat;
  std::vector<Point3> vFlat;
  for (int i = 0; i < 5000; ++i) vFlat.emplace_back(i % 71, i / 71, 0.0);
  insertThreaded(flat, vFlat, 8);
  EXPECT_FALSE(flat.is3D());
}

// A stop by the progress callback leaves a Delaunay mesh of what the threads
// inserted; the row intake completes it.
TEST(Threads, AStopOnThreadsLeavesAValidMeshThatInsertRowsCompletes) {
  std::vector<Point3> v = support::randomPoints(60000, 8);
  Velm_3D vt;
  vt.setNumThreads(2);
  unsigned long numCalls = 0;
  vt.setProgressCallback([](void* pUser, unsigned long numDone, unsigned long) {
    return ++*static_cast<unsigned long*>(pUser) < 8 || numDone < 10000; }, &numCalls);
  captured([&] { vt.insert(v); });
  std::vector<Point3*> vStored, vInMesh;
  vt.getVertices(vStored);
  std::copy_if(vStored.begin(), vStored.end(), std::back_inserter(vInMesh), [](Point3* p) { return p->getOneTet(); });
  EXPECT_TRUE(vInMesh.size() > 10000 && vInMesh.size() < v.size()) << vInMesh.size();
  EXPECT_EQ(exact::checkDelaunay(vt, &vInMesh), "");
  vt.setProgressCallback(nullptr, nullptr);
  std::vector<Point3*> vHandles;
  vt.insertRows(nullptr, 0, vHandles);
  EXPECT_TRUE(support::isDelaunayOf(vt, v));
}

// A negative count is an assertion report and changes nothing; 0 means every
// hardware thread.
TEST(Threads, NegativeCountIsReportedAndZeroMeansEveryHardwareThread) {
  Velm_3D vt;
  vt.setNumThreads(3);
  EXPECT_THROW(captured([&] { vt.setNumThreads(-1); }), VelmException);
  EXPECT_TRUE(support::contains(VelmException::lastReport(), "Condition [ n>=0 failed ]"));
  EXPECT_EQ(vt.getNumThreads(), 3);
  vt.setNumThreads(0);
  EXPECT_EQ(vt.getNumThreads(), std::max(1, static_cast<int>(std::thread::hardware_concurrency())));
}
