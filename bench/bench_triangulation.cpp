// bench_triangulation: construction time and memory of a 3D Delaunay
// triangulation, libvelm3d against CGAL's Delaunay_triangulation_3.
//
// The input is either N seeded uniform random points in the unit cube, a
// K x K x K integer grid, or the points of an XYZ file. Both implementations
// get the same coordinates. Each run happens in a forked child, so that every
// run starts from the same heap and its peak resident set size (VmHWM) belongs
// to that run alone. The child resets VmHWM just before it makes the
// triangulation object (through /proc/self/clear_refs) and reports:
//   - wall and CPU time (user + system) around the bulk insertion call only;
//   - RSS before construction (input already in memory) and peak RSS;
//   - the growth, peak minus before, which is what the triangulation costs.
// With --repeat R every figure is the median of R runs.
//
// Usage:
//   bench_triangulation [--points N] [--seed S] [--grid K] [--xyz FILE]
//                       [--repeat R] [--check] [--no-cgal] [--no-velm]
//                       [--no-fork] [--no-count]
// --no-fork runs each implementation once in this process (for profilers);
// memory figures are then not separated per implementation. --no-count skips
// reading the tetrahedra back, so that a profile of the whole process shows
// little beyond the construction (the count is then printed as 0).
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "Velm_3D.h"

#ifdef VELM3D_BENCH_WITH_CGAL
#include <CGAL/Delaunay_triangulation_3.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#endif

namespace {

using VELM3D::Point3;

// Swallows everything written to it; the stream stays good.
class NullBuffer : public std::streambuf {
protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

struct Options {
  unsigned long numPoints = 1000000;
  unsigned int seed = 42;
  int grid = 0;
  std::string xyzFile;
  int repeat = 1;
  bool bCheck = false;
  bool bCgal = true;
  bool bVelm = true;
  bool bFork = true;
  bool bCount = true;
};

// What one run reports back to the parent through a pipe.
struct RunResult {
  double seconds = 0.0;
  double cpuSeconds = 0.0;
  long numCells = 0;
  long rssBeforeKB = 0;
  long hwmKB = 0;
  int checkResult = -1; // -1 not run, 0 failed, 1 passed
  int ok = 0;
};

long readStatusKB(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  size_t len = std::strlen(key);
  while (std::getline(in, line)) {
    if (line.compare(0, len, key) == 0 && line.size() > len && line[len] == ':') {
      return std::atol(line.c_str() + len + 1);
    }
  }
  return -1;
}

// Sets VmHWM back to the current RSS, so that the peak seen later belongs to
// what happens from here on.
bool resetPeakRss() {
  std::ofstream out("/proc/self/clear_refs");
  if (!out) return false;
  out << "5" << std::flush;
  return static_cast<bool>(out);
}

// User plus system time of this process.
double cpuSeconds() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
         1e-6 * static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec);
}

double nowSeconds() {
  using clk = std::chrono::steady_clock;
  return std::chrono::duration<double>(clk::now().time_since_epoch()).count();
}

RunResult runVelm(const std::vector<Point3>& vInput, bool bCheck, bool bCount) {
  RunResult r;
  std::vector<Point3> vPoints(vInput);
  r.rssBeforeKB = readStatusKB("VmRSS");
  resetPeakRss();
  VELM3D::Velm_3D velm;

  NullBuffer nullBuffer;
  std::streambuf* pOld = std::cout.rdbuf(&nullBuffer);
  double c0 = cpuSeconds();
  double t0 = nowSeconds();
  velm.insert(vPoints);
  double t1 = nowSeconds();
  r.cpuSeconds = cpuSeconds() - c0;
  std::cout.rdbuf(pOld);
  std::cout.clear();
  r.seconds = t1 - t0;
  r.hwmKB = readStatusKB("VmHWM");

  if (bCount) {
    std::vector<VELM3D::Tet3*> vTets;
    velm.getTetrahedra(vTets);
    r.numCells = static_cast<long>(vTets.size());
  }

  if (bCheck) {
    // The check reports on the console; keep its text and show it only
    // when it fails.
    std::ostringstream captured;
    pOld = std::cout.rdbuf(captured.rdbuf());
    bool bValid = velm.checkValidity("bench_triangulation", true);
    std::cout.rdbuf(pOld);
    std::cout.clear();
    r.checkResult = bValid ? 1 : 0;
    if (!bValid) {
      std::string text = captured.str();
      if (text.size() > 4000) text = "...\n" + text.substr(text.size() - 4000);
      std::cout << text << std::endl;
    }
  }
  r.ok = 1;
  return r;
}

#ifdef VELM3D_BENCH_WITH_CGAL
RunResult runCgal(const std::vector<Point3>& vInput, bool bCheck) {
  using K = CGAL::Exact_predicates_inexact_constructions_kernel;
  using DT = CGAL::Delaunay_triangulation_3<K>;
  RunResult r;
  std::vector<K::Point_3> vPoints;
  vPoints.reserve(vInput.size());
  for (const Point3& p : vInput) vPoints.emplace_back(p.x(), p.y(), p.z());
  r.rssBeforeKB = readStatusKB("VmRSS");
  resetPeakRss();
  DT triangulation;

  double c0 = cpuSeconds();
  double t0 = nowSeconds();
  triangulation.insert(vPoints.begin(), vPoints.end());
  double t1 = nowSeconds();
  r.cpuSeconds = cpuSeconds() - c0;
  r.seconds = t1 - t0;
  r.hwmKB = readStatusKB("VmHWM");
  r.numCells = static_cast<long>(triangulation.number_of_finite_cells());
  if (bCheck) r.checkResult = triangulation.is_valid(false) ? 1 : 0;
  r.ok = 1;
  return r;
}
#endif

// Runs fn in a forked child and brings its result back through a pipe.
template <class Fn>
RunResult runForked(Fn fn) {
  RunResult r;
  int fds[2];
  if (pipe(fds) != 0) {
    std::perror("pipe");
    return r;
  }
  std::cout.flush();
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) {
    std::perror("fork");
    close(fds[0]);
    close(fds[1]);
    return r;
  }
  if (pid == 0) {
    close(fds[0]);
    RunResult child = fn();
    std::cout.flush();
    ssize_t written = write(fds[1], &child, sizeof child);
    close(fds[1]);
    _exit(written == static_cast<ssize_t>(sizeof child) ? 0 : 1);
  }
  close(fds[1]);
  ssize_t got = read(fds[0], &r, sizeof r);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (got != static_cast<ssize_t>(sizeof r) || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::cerr << "child run failed (status " << status << ")" << std::endl;
    r = RunResult();
  }
  return r;
}

template <class T>
T median(std::vector<T> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// The runs of one implementation and their medians.
struct Summary {
  bool ok = false;
  bool bFailed = false;
  std::vector<double> vSeconds, vCpu;
  std::vector<long> vBefore, vHwm;
  double seconds = 0.0;
  double cpu = 0.0;
  long numCells = 0;
  long rssBeforeKB = 0;
  long hwmKB = 0;
  int checkResult = -1;
  long growthKB() const { return hwmKB - rssBeforeKB; }

  void add(const RunResult& r) {
    if (!r.ok) {
      bFailed = true;
      return;
    }
    vSeconds.push_back(r.seconds);
    vCpu.push_back(r.cpuSeconds);
    vBefore.push_back(r.rssBeforeKB);
    vHwm.push_back(r.hwmKB);
    numCells = r.numCells;
    if (r.checkResult == 0 || checkResult == -1) checkResult = r.checkResult;
  }
  void finish() {
    ok = !bFailed && !vSeconds.empty();
    if (!ok) return;
    seconds = median(vSeconds);
    cpu = median(vCpu);
    rssBeforeKB = median(vBefore);
    hwmKB = median(vHwm);
  }
};

void printSummary(const char* name, const char* cellWord, const Summary& s, size_t numPoints,
                  bool bFork) {
  std::cout << name << "\n";
  if (!s.ok) {
    std::cout << "  run failed\n";
    return;
  }
  std::cout << "  construction time   " << std::setprecision(3) << s.seconds << " s wall";
  if (s.vSeconds.size() > 1) {
    std::cout << " (median of " << s.vSeconds.size() << ":";
    for (double t : s.vSeconds) std::cout << " " << t;
    std::cout << ")";
  }
  std::cout << "\n  CPU time (usr+sys)  " << s.cpu << " s\n";
  std::cout << "  points per second   " << std::setprecision(0)
            << static_cast<double>(numPoints) / s.seconds << "\n";
  std::cout << "  " << std::left << std::setw(20) << cellWord << std::right << s.numCells << "\n";
  if (bFork) {
    std::cout << std::setprecision(1);
    std::cout << "  RSS before insert   " << s.rssBeforeKB / 1024.0 << " MiB (input in memory)\n";
    std::cout << "  peak RSS (VmHWM)    " << s.hwmKB / 1024.0 << " MiB\n";
    std::cout << "  peak - before       " << s.growthKB() / 1024.0 << " MiB = "
              << s.growthKB() * 1024.0 / static_cast<double>(numPoints) << " bytes/point\n";
  }
  if (s.checkResult >= 0) {
    std::cout << "  validity check      " << (s.checkResult ? "passed" : "FAILED") << "\n";
  }
}

bool parseOptions(int argc, char** argv, Options& opt) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char* what) -> const char* {
      if (i + 1 >= argc) {
        std::cerr << a << " needs " << what << "\n";
        std::exit(2);
      }
      return argv[++i];
    };
    if (a == "--points") opt.numPoints = std::strtoul(value("a count"), nullptr, 10);
    else if (a == "--seed") opt.seed = static_cast<unsigned int>(std::strtoul(value("a seed"), nullptr, 10));
    else if (a == "--grid") opt.grid = std::atoi(value("K"));
    else if (a == "--xyz") opt.xyzFile = value("a file name");
    else if (a == "--repeat") opt.repeat = std::max(1, std::atoi(value("a count")));
    else if (a == "--check") opt.bCheck = true;
    else if (a == "--no-cgal") opt.bCgal = false;
    else if (a == "--no-velm") opt.bVelm = false;
    else if (a == "--no-fork") opt.bFork = false;
    else if (a == "--no-count") opt.bCount = false;
    else {
      std::cerr << "usage: " << argv[0]
                << " [--points N] [--seed S] [--grid K] [--xyz FILE] [--repeat R] [--check]"
                   " [--no-cgal] [--no-velm] [--no-fork] [--no-count]\n";
      return false;
    }
  }
  return true;
}

} // namespace

int main(int argc, char** argv) {
  Options opt;
  if (!parseOptions(argc, argv, opt)) return 2;

  std::vector<Point3> vPoints;
  std::string what;
  if (!opt.xyzFile.empty()) {
    if (!VELM3D::readXYZ(opt.xyzFile.c_str(), vPoints)) {
      std::cerr << "cannot read " << opt.xyzFile << "\n";
      return 1;
    }
    what = "points of " + opt.xyzFile;
  } else if (opt.grid > 0) {
    int k = opt.grid;
    vPoints.reserve(static_cast<size_t>(k) * k * k);
    for (int i = 0; i < k; ++i)
      for (int j = 0; j < k; ++j)
        for (int l = 0; l < k; ++l) vPoints.emplace_back(i, j, l);
    what = "integer grid " + std::to_string(k) + "^3";
  } else {
    std::mt19937_64 gen(opt.seed);
    std::uniform_real_distribution<double> dist(0.0, 1.0);
    vPoints.reserve(opt.numPoints);
    for (unsigned long i = 0; i < opt.numPoints; ++i) {
      double x = dist(gen);
      double y = dist(gen);
      double z = dist(gen);
      vPoints.emplace_back(x, y, z);
    }
    what = "uniform random in [0,1)^3, seed " + std::to_string(opt.seed) + " (mt19937_64)";
  }
  const size_t n = vPoints.size();
  std::cout << "input: " << n << " points, " << what << "\n";
  std::cout << "runs:  " << (opt.bFork ? opt.repeat : 1)
            << (opt.bFork ? " per implementation, each in a forked child" : ", in process") << "\n";

  std::cout << std::fixed;
  double load[3] = {0, 0, 0};
  if (getloadavg(load, 3) > 0)
    std::cout << "load:  " << std::setprecision(2) << load[0]
              << " (1 min average at start; on a busy machine trust CPU time over wall)\n";

#ifndef VELM3D_BENCH_WITH_CGAL
  if (opt.bCgal) std::cout << "CGAL: not built in (configure with CGAL installed)\n";
  opt.bCgal = false;
#endif
  // The two implementations take turns, so that a load that comes and goes
  // on the machine falls on both alike.
  Summary velm, cgal;
  const int runs = opt.bFork ? opt.repeat : 1;
  for (int i = 0; i < runs; ++i) {
    if (opt.bVelm) {
      auto fn = [&] { return runVelm(vPoints, opt.bCheck, opt.bCount); };
      velm.add(opt.bFork ? runForked(fn) : fn());
    }
#ifdef VELM3D_BENCH_WITH_CGAL
    if (opt.bCgal) {
      auto fn = [&] { return runCgal(vPoints, opt.bCheck); };
      cgal.add(opt.bFork ? runForked(fn) : fn());
    }
#endif
  }
  velm.finish();
  cgal.finish();
  if (opt.bVelm)
    printSummary(("libvelm3d " + VELM3D::getVelm3DVersion()).c_str(), "tetrahedra", velm, n,
                 opt.bFork);
  if (opt.bCgal)
    printSummary("CGAL Delaunay_triangulation_3, Epick, range insert", "finite cells", cgal, n,
                 opt.bFork);

  if (velm.ok && cgal.ok) {
    std::cout << "velm/CGAL\n" << std::setprecision(2);
    std::cout << "  time ratio          " << velm.seconds / cgal.seconds << " (wall), "
              << velm.cpu / cgal.cpu << " (CPU)\n";
    if (opt.bFork && cgal.growthKB() > 0) {
      std::cout << "  memory ratio        " << static_cast<double>(velm.growthKB()) / cgal.growthKB()
                << " (peak - before), "
                << static_cast<double>(velm.hwmKB) / cgal.hwmKB << " (peak RSS)\n";
    }
    if (opt.bCount)
      std::cout << "  cell counts         "
                << (velm.numCells == cgal.numCells
                        ? "equal"
                        : "differ (expected only where points are cospherical, e.g. on grids: "
                          "the Delaunay triangulation is then not unique)")
                << "\n";
  }
  bool bFailed = (opt.bVelm && !velm.ok) || (opt.bCgal && !cgal.ok) || velm.checkResult == 0 ||
                 cgal.checkResult == 0;
  return bFailed ? 1 : 0;
}
