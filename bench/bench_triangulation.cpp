// bench_triangulation: construction time and memory of a 3D Delaunay
// triangulation, libvelm3d against CGAL's Delaunay_triangulation_3 and
// TetGen's Delaunay tetrahedralisation.
//
// The input is one of: N seeded uniform random points in the unit cube, a
// K x K x K integer grid, N uniform random points on the unit sphere (double
// coordinates, so nearly but not exactly cospherical), N points of which 10%
// are exact copies of others, N points of a scan-like scene (a rolling ground
// with box buildings, rounded to 1 cm as scan files store them), or the
// points of an XYZ file. All implementations get the same coordinates, and
// they take turns run by run.
//
// --threads N sets the thread count of every implementation that has one:
// libvelm3d's bulk insertion (Velm_3D::setNumThreads) and CGAL, which above
// one thread is the Delaunay_triangulation_3 with Parallel_tag (built with
// TBB) and its lock grid over the input's bounding box. TetGen has one
// thread only and is left out above one.
// Each run happens in a forked child, so that every run starts from the same
// heap and its peak resident set size (VmHWM) belongs to that run alone. The
// child resets VmHWM just before it makes the triangulation object (through
// /proc/self/clear_refs) and reports:
//   - wall, user and system time around the bulk insertion call only (user
//     and system time from getrusage of the child itself);
//   - RSS before construction (input already in memory) and peak RSS;
//   - the growth, peak minus before, which is what the triangulation costs.
// With --repeat R every figure is the median of R runs. The output names the
// CPU (model name, family and model from /proc/cpuinfo): figures of one
// machine name can come from different processors.
//
// Usage: bench_triangulation --help (the sets and the options).
// --csv appends one line per implementation to FILE (a header line first if
// the file is new): label, N, implementation, threads, median wall, user and
// system seconds, wall time ratio to CGAL, peak RSS, its growth during
// construction, bytes per point, cells, runs, validity check, the load
// average at start and the CPU.
// TetGen is timed around tetrahedralize() with switches "QNF": quiet, and
// neither nodes nor hull faces copied out; the tetrahedra are, so its time
// and memory include that list (16 bytes per tetrahedron).
// --no-fork runs each implementation once in this process (for profilers);
// memory figures are then not separated per implementation. --no-count skips
// reading the tetrahedra back, so that a profile of the whole process shows
// little beyond the construction (the count is then printed as 0).
#include <sys/resource.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "Velm_3D.h"

#ifdef VELM3D_BENCH_WITH_CGAL
#include <CGAL/Delaunay_triangulation_3.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#ifdef CGAL_LINKED_WITH_TBB
#include <CGAL/Delaunay_triangulation_cell_base_3.h>
#include <CGAL/Triangulation_data_structure_3.h>
#include <CGAL/Triangulation_vertex_base_3.h>
#include <tbb/global_control.h>
#endif
#endif

#ifdef VELM3D_BENCH_WITH_TETGEN
#define TETLIBRARY
#include <tetgen.h>
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
  unsigned long numSphere = 0;
  unsigned long numDups = 0;
  unsigned long numScan = 0;
  int numThreads = 1;
  std::string xyzFile;
  std::string csvFile;
  std::string label;
  int repeat = 1;
  bool bCheck = false;
  bool bCgal = true;
  bool bVelm = true;
  bool bTetgen = true;
  bool bFork = true;
  bool bCount = true;
};

// What one run reports back to the parent through a pipe.
struct RunResult {
  double seconds = 0.0;
  double userSeconds = 0.0;
  double sysSeconds = 0.0;
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

double nowSeconds() {
  using clk = std::chrono::steady_clock;
  return std::chrono::duration<double>(clk::now().time_since_epoch()).count();
}

// User and system time of this process so far.
struct CpuTimes {
  double user = 0.0, sys = 0.0;
  static CpuTimes now() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    CpuTimes t;
    auto seconds = [](const timeval& tv) {
      return static_cast<double>(tv.tv_sec) + 1e-6 * static_cast<double>(tv.tv_usec);
    };
    t.user = seconds(ru.ru_utime);
    t.sys = seconds(ru.ru_stime);
    return t;
  }
};

// Wall, user and system time of one call, into r.
template <class Fn>
void timeCall(RunResult& r, Fn fn) {
  const CpuTimes c0 = CpuTimes::now();
  const double t0 = nowSeconds();
  fn();
  r.seconds = nowSeconds() - t0;
  const CpuTimes c1 = CpuTimes::now();
  r.userSeconds = c1.user - c0.user;
  r.sysSeconds = c1.sys - c0.sys;
}

// The CPU as /proc/cpuinfo names it, e.g. "AMD EPYC (family 25, model 1)":
// the model name alone does not tell processor generations apart.
std::string cpuDescription() {
  std::ifstream in("/proc/cpuinfo");
  std::string line, name, family, model;
  auto value = [&line] {
    const size_t colon = line.find(':');
    size_t start = colon == std::string::npos ? line.size() : colon + 1;
    while (start < line.size() && line[start] == ' ') ++start;
    return line.substr(start);
  };
  auto key = [&line](const char* k) {
    const size_t len = std::strlen(k);
    return line.compare(0, len, k) == 0 && line.find_first_not_of(" \t", len) == line.find(':');
  };
  while (std::getline(in, line) && (name.empty() || family.empty() || model.empty())) {
    if (name.empty() && key("model name")) name = value();
    else if (family.empty() && key("cpu family")) family = value();
    else if (model.empty() && key("model")) model = value();
  }
  if (name.empty()) return "unknown CPU";
  if (family.empty() || model.empty()) return name;
  return name + " (family " + family + ", model " + model + ")";
}

RunResult runVelm(const std::vector<Point3>& vInput, int numThreads, bool bCheck, bool bCount) {
  RunResult r;
  std::vector<Point3> vPoints(vInput);
  r.rssBeforeKB = readStatusKB("VmRSS");
  resetPeakRss();
  VELM3D::Velm_3D velm;
  velm.setNumThreads(numThreads);

  NullBuffer nullBuffer;
  std::streambuf* pOld = std::cout.rdbuf(&nullBuffer);
  timeCall(r, [&] { velm.insert(vPoints); });
  std::cout.rdbuf(pOld);
  std::cout.clear();
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

  timeCall(r, [&] { triangulation.insert(vPoints.begin(), vPoints.end()); });
  r.hwmKB = readStatusKB("VmHWM");
  r.numCells = static_cast<long>(triangulation.number_of_finite_cells());
  if (bCheck) r.checkResult = triangulation.is_valid(false) ? 1 : 0;
  r.ok = 1;
  return r;
}

#ifdef CGAL_LINKED_WITH_TBB
// CGAL's parallel insertion as its manual shows it: a triangulation data
// structure with Parallel_tag, a lock grid of 50^3 cells over the bounding
// box of the points, and TBB's thread count capped at numThreads.
RunResult runCgalParallel(const std::vector<Point3>& vInput, int numThreads, bool bCheck) {
  using K = CGAL::Exact_predicates_inexact_constructions_kernel;
  using Tds = CGAL::Triangulation_data_structure_3<CGAL::Triangulation_vertex_base_3<K>,
                                                   CGAL::Delaunay_triangulation_cell_base_3<K>,
                                                   CGAL::Parallel_tag>;
  using DT = CGAL::Delaunay_triangulation_3<K, Tds>;
  RunResult r;
  std::vector<K::Point_3> vPoints;
  vPoints.reserve(vInput.size());
  double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
  for (size_t i = 0; i < vInput.size(); ++i) {
    const double c[3] = {vInput[i].x(), vInput[i].y(), vInput[i].z()};
    for (int k = 0; k < 3; ++k) {
      lo[k] = i == 0 ? c[k] : std::min(lo[k], c[k]);
      hi[k] = i == 0 ? c[k] : std::max(hi[k], c[k]);
    }
    vPoints.emplace_back(c[0], c[1], c[2]);
  }
  tbb::global_control threadLimit(tbb::global_control::max_allowed_parallelism,
                                  static_cast<size_t>(numThreads));
  DT::Lock_data_structure lockGrid(CGAL::Bbox_3(lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]), 50);
  r.rssBeforeKB = readStatusKB("VmRSS");
  resetPeakRss();
  std::unique_ptr<DT> pTriangulation;

  timeCall(r, [&] { pTriangulation.reset(new DT(vPoints.begin(), vPoints.end(), &lockGrid)); });
  r.hwmKB = readStatusKB("VmHWM");
  r.numCells = static_cast<long>(pTriangulation->number_of_finite_cells());
  if (bCheck) r.checkResult = pTriangulation->is_valid(false) ? 1 : 0;
  r.ok = 1;
  return r;
}
#endif
#endif

#ifdef VELM3D_BENCH_WITH_TETGEN
RunResult runTetgen(const std::vector<Point3>& vInput) {
  RunResult r;
  tetgenio in;
  tetgenio out;
  in.firstnumber = 0;
  in.numberofpoints = static_cast<int>(vInput.size());
  in.pointlist = new REAL[3 * vInput.size()];
  for (size_t i = 0; i < vInput.size(); ++i) {
    in.pointlist[3 * i] = vInput[i].x();
    in.pointlist[3 * i + 1] = vInput[i].y();
    in.pointlist[3 * i + 2] = vInput[i].z();
  }
  r.rssBeforeKB = readStatusKB("VmRSS");
  resetPeakRss();
  char switches[] = "QNF";

  try {
    timeCall(r, [&] { tetrahedralize(switches, &in, &out); });
  } catch (...) {
    // TetGen built as a library throws its error code.
    return r;
  }
  r.hwmKB = readStatusKB("VmHWM");
  r.numCells = out.numberoftetrahedra;
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
  std::vector<double> vSeconds, vUser, vSys;
  std::vector<long> vBefore, vHwm;
  double seconds = 0.0;
  double user = 0.0;
  double sys = 0.0;
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
    vUser.push_back(r.userSeconds);
    vSys.push_back(r.sysSeconds);
    vBefore.push_back(r.rssBeforeKB);
    vHwm.push_back(r.hwmKB);
    numCells = r.numCells;
    if (r.checkResult == 0 || checkResult == -1) checkResult = r.checkResult;
  }
  void finish() {
    ok = !bFailed && !vSeconds.empty();
    if (!ok) return;
    seconds = median(vSeconds);
    user = median(vUser);
    sys = median(vSys);
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
  std::cout << "\n  user / system time  " << s.user << " s / " << s.sys << " s\n";
  std::cout << "  points per second   " << std::setprecision(0)
            << static_cast<double>(numPoints) / s.seconds << "\n";
  std::cout << "  " << std::left << std::setw(20) << cellWord << std::right << s.numCells << "\n";
  std::cout << std::setprecision(1);
  std::cout << "  RSS before insert   " << s.rssBeforeKB / 1024.0 << " MiB (input in memory"
            << (bFork ? ")\n" : "; in process, earlier runs' memory too)\n");
  std::cout << "  peak RSS (VmHWM)    " << s.hwmKB / 1024.0 << " MiB\n";
  std::cout << "  peak - before       " << s.growthKB() / 1024.0 << " MiB = "
            << s.growthKB() * 1024.0 / static_cast<double>(numPoints) << " bytes/point\n";
  if (s.checkResult >= 0) {
    std::cout << "  validity check      " << (s.checkResult ? "passed" : "FAILED") << "\n";
  }
}

const char* const usageText =
    "usage: bench_triangulation [SET] [options]\n"
    "\n"
    "SET names the input (a count takes a k or M suffix: 100k, 1M, 10M):\n"
    "  uniformN   N uniform random points in the unit cube (default uniform1M)\n"
    "  gridK      the K x K x K integer grid\n"
    "  sphereN    N uniform random points on the unit sphere (nearly cospherical)\n"
    "  dupsN      N points, 10% of them exact copies of others\n"
    "  scanN      N points of a scan-like scene: rolling ground, box buildings' flat roofs\n"
    "             and vertical walls, every coordinate rounded to 1 cm\n"
    "The same sets as options: --points N, --grid K, --sphere N, --dups N, --scan N;\n"
    "or --xyz FILE.\n"
    "\n"
    "Options:\n"
    "  --seed S       seed of the random sets (default 42)\n"
    "  --repeat R     R runs per implementation, medians reported (default 1)\n"
    "  --threads T    threads of libvelm3d and CGAL (default 1; 0: every hardware thread);\n"
    "                 CGAL above one thread is its Parallel_tag triangulation, TetGen is\n"
    "                 left out\n"
    "  --check        validity check of libvelm3d's and CGAL's results\n"
    "  --no-velm, --no-cgal, --no-tetgen, --tetgen\n"
    "                 leave an implementation out (or in)\n"
    "  --no-fork      run each implementation once in this process (for profilers)\n"
    "  --no-count     do not read the tetrahedra back (the count shows 0)\n"
    "  --csv FILE     append one line per implementation to FILE\n"
    "  --label NAME   the set's name in the CSV\n"
    "  --help         this text\n";

// A count with an optional k (thousand) or M (million) suffix; 0 if it is
// not one.
unsigned long parseCount(const std::string& text) {
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0]))) return 0;
  size_t end = 0;
  unsigned long n = std::stoul(text, &end);
  const std::string suffix = text.substr(end);
  if (suffix == "k") n *= 1000;
  else if (suffix == "M") n *= 1000000;
  else if (!suffix.empty()) return 0;
  return n;
}

// A set name (uniform100k, grid100, sphere100k, dups1M, scan1M) into the
// options.
bool parseSet(const std::string& name, Options& opt) {
  for (const char* kind : {"uniform", "grid", "sphere", "dups", "scan"}) {
    const size_t len = std::strlen(kind);
    if (name.compare(0, len, kind) != 0) continue;
    const unsigned long n = parseCount(name.substr(len));
    if (n == 0) return false;
    if (kind[0] == 'u') opt.numPoints = n;
    else if (kind[0] == 'g') opt.grid = static_cast<int>(n);
    else if (kind[1] == 'p') opt.numSphere = n;
    else if (kind[1] == 'c') opt.numScan = n;
    else opt.numDups = n;
    return true;
  }
  return false;
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
    if (a == "--help" || a == "-h") {
      std::cout << usageText;
      std::exit(0);
    }
    if (a == "--points") opt.numPoints = std::strtoul(value("a count"), nullptr, 10);
    else if (a == "--seed") opt.seed = static_cast<unsigned int>(std::strtoul(value("a seed"), nullptr, 10));
    else if (a == "--grid") opt.grid = std::atoi(value("K"));
    else if (a == "--sphere") opt.numSphere = std::strtoul(value("a count"), nullptr, 10);
    else if (a == "--dups") opt.numDups = std::strtoul(value("a count"), nullptr, 10);
    else if (a == "--scan") opt.numScan = std::strtoul(value("a count"), nullptr, 10);
    else if (a == "--xyz") opt.xyzFile = value("a file name");
    else if (a == "--repeat") opt.repeat = std::max(1, std::atoi(value("a count")));
    else if (a == "--threads") opt.numThreads = std::max(0, std::atoi(value("a count")));
    else if (a == "--check") opt.bCheck = true;
    else if (a == "--no-cgal") opt.bCgal = false;
    else if (a == "--no-velm") opt.bVelm = false;
    else if (a == "--tetgen") opt.bTetgen = true;
    else if (a == "--no-tetgen") opt.bTetgen = false;
    else if (a == "--no-fork") opt.bFork = false;
    else if (a == "--no-count") opt.bCount = false;
    else if (a == "--csv") opt.csvFile = value("a file name");
    else if (a == "--label") opt.label = value("a name");
    else if (a[0] == '-' || !parseSet(a, opt)) {
      std::cerr << "bench_triangulation: unknown argument '" << a << "'\n\n" << usageText;
      return false;
    }
  }
  return true;
}

// Uniform random points in the unit cube.
void makeUniform(unsigned long n, unsigned int seed, std::vector<Point3>& vPoints) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> dist(0.0, 1.0);
  vPoints.reserve(vPoints.size() + n);
  for (unsigned long i = 0; i < n; ++i) {
    double x = dist(gen);
    double y = dist(gen);
    double z = dist(gen);
    vPoints.emplace_back(x, y, z);
  }
}

// Uniform random points on the unit sphere: normalised Gaussian vectors. The
// rounded coordinates lie off the sphere by a few ulps, so the set is nearly
// but not exactly cospherical.
void makeSphere(unsigned long n, unsigned int seed, std::vector<Point3>& vPoints) {
  std::mt19937_64 gen(seed);
  std::normal_distribution<double> dist(0.0, 1.0);
  vPoints.reserve(n);
  while (vPoints.size() < n) {
    double x = dist(gen);
    double y = dist(gen);
    double z = dist(gen);
    double len = std::sqrt(x * x + y * y + z * z);
    if (len < 1e-6) continue;
    vPoints.emplace_back(x / len, y / len, z / len);
  }
}

// n points: 90% distinct uniform random points and 10% exact copies of
// randomly chosen ones among them, all in random order.
void makeWithDuplicates(unsigned long n, unsigned int seed, std::vector<Point3>& vPoints) {
  unsigned long numDistinct = n - n / 10;
  makeUniform(numDistinct, seed, vPoints);
  std::mt19937_64 gen(seed + 1);
  std::uniform_int_distribution<unsigned long> pick(0, numDistinct - 1);
  for (unsigned long i = numDistinct; i < n; ++i) {
    const Point3& p = vPoints[pick(gen)];
    vPoints.emplace_back(p.x(), p.y(), p.z());
  }
  std::shuffle(vPoints.begin(), vPoints.end(), gen);
}

// n points of a scan-like scene, as a laser scan of a built-up area gives
// them: a rolling ground (a smooth height field, a sum of four sines) with
// axis-aligned box buildings standing on it, each seen as a flat roof and
// four vertical walls. The points are spread uniformly by area over these
// surfaces, at about 250 points per square metre, so the scene grows with n
// (1M points: a square of about 45 m with a dozen buildings). Every
// coordinate is then rounded to 1 cm, as scan files store them: roofs and
// walls lie exactly on planes, the points of each on a 1 cm lattice (many
// cocircular and cospherical groups), and about 1% of the points are exact
// copies of others. The random numbers are taken from mt19937_64 bit by bit
// rather than through the standard distributions, whose algorithms differ
// between standard libraries, so a seed gives the same set everywhere.
void makeScan(unsigned long n, unsigned int seed, std::vector<Point3>& vPoints) {
  std::mt19937_64 gen(seed);
  auto uniform = [&gen](double lo, double hi) {
    return lo + (hi - lo) * static_cast<double>(gen() >> 11) * 0x1.0p-53;
  };
  auto cm = [](double v) { return std::round(v * 100.0) / 100.0; };
  const double pointsPerSquareMetre = 250.0;
  const double twoPi = 6.283185307179586;
  // Buildings add about 80% to the ground's area with their walls.
  const double side = std::max(5.0, std::sqrt(static_cast<double>(n) / pointsPerSquareMetre / 1.8));

  // The ground: wavelengths from 60 m down to 5 m, in random directions.
  struct Wave {
    double kx, ky, phase, amplitude;
  };
  Wave vWaves[4];
  const double wavelengths[4] = {60.0, 25.0, 11.0, 5.0};
  const double amplitudes[4] = {1.5, 0.8, 0.4, 0.15};
  for (int i = 0; i < 4; ++i) {
    const double angle = uniform(0.0, twoPi);
    const double k = twoPi / wavelengths[i];
    vWaves[i] = {k * std::cos(angle), k * std::sin(angle), uniform(0.0, twoPi), amplitudes[i]};
  }
  auto ground = [&vWaves](double x, double y) {
    double h = 0.0;
    for (const Wave& w : vWaves) h += w.amplitude * std::sin(w.kx * x + w.ky * y + w.phase);
    return h;
  };

  // The buildings: footprints of 3 to 10 m a side on a 1 cm grid, at least
  // 1.5 m apart, covering about a quarter of the ground; heights 3 to 9 m
  // above the highest corner of the ground beneath.
  struct Building {
    double x0, y0, x1, y1, roof, wallBottom;
  };
  std::vector<Building> vBuildings;
  const size_t numWanted = std::max<size_t>(1, static_cast<size_t>(0.25 * side * side / 42.0));
  const double gap = 1.5;
  for (size_t attempt = 0; attempt < 50 * numWanted && vBuildings.size() < numWanted; ++attempt) {
    const double w = uniform(3.0, std::min(10.0, 0.5 * side));
    const double d = uniform(3.0, std::min(10.0, 0.5 * side));
    Building b;
    b.x0 = cm(uniform(1.0, side - 1.0 - w));
    b.y0 = cm(uniform(1.0, side - 1.0 - d));
    b.x1 = cm(b.x0 + w);
    b.y1 = cm(b.y0 + d);
    bool bFree = true;
    for (const Building& o : vBuildings)
      if (b.x0 < o.x1 + gap && o.x0 < b.x1 + gap && b.y0 < o.y1 + gap && o.y0 < b.y1 + gap)
        bFree = false;
    if (!bFree) continue;
    const double corners[4] = {ground(b.x0, b.y0), ground(b.x1, b.y0), ground(b.x0, b.y1),
                               ground(b.x1, b.y1)};
    b.roof = cm(*std::max_element(corners, corners + 4) + uniform(3.0, 9.0));
    // Walls are sampled down to below the lowest ground along them and
    // points under the ground rejected.
    b.wallBottom = *std::min_element(corners, corners + 4) - 1.0;
    vBuildings.push_back(b);
  }
  // Which building a 1 m cell of the ground meets, if any: the gap between
  // buildings exceeds a cell's diagonal, so a cell meets at most one.
  const int numCells = static_cast<int>(std::ceil(side));
  std::vector<int> vCellBuilding(static_cast<size_t>(numCells) * numCells, -1);
  for (size_t i = 0; i < vBuildings.size(); ++i) {
    const Building& b = vBuildings[i];
    for (int cx = static_cast<int>(b.x0); cx <= static_cast<int>(b.x1) && cx < numCells; ++cx)
      for (int cy = static_cast<int>(b.y0); cy <= static_cast<int>(b.y1) && cy < numCells; ++cy)
        vCellBuilding[static_cast<size_t>(cx) * numCells + cy] = static_cast<int>(i);
  }
  auto underBuilding = [&](double x, double y) {
    const int cx = std::min(numCells - 1, static_cast<int>(x));
    const int cy = std::min(numCells - 1, static_cast<int>(y));
    const int i = vCellBuilding[static_cast<size_t>(cx) * numCells + cy];
    if (i < 0) return false;
    const Building& b = vBuildings[static_cast<size_t>(i)];
    return b.x0 < x && x < b.x1 && b.y0 < y && y < b.y1;
  };

  // The surfaces and their areas: the ground, then per building its roof
  // and its walls at y0, y1, x0 and x1 (wall areas from their mean height).
  std::vector<double> vCumulativeArea;
  double total = side * side;
  for (const Building& b : vBuildings) total -= (b.x1 - b.x0) * (b.y1 - b.y0);
  vCumulativeArea.push_back(total);
  for (const Building& b : vBuildings) {
    const double height = b.roof - ground(0.5 * (b.x0 + b.x1), 0.5 * (b.y0 + b.y1));
    const double areas[5] = {(b.x1 - b.x0) * (b.y1 - b.y0), (b.x1 - b.x0) * height,
                             (b.x1 - b.x0) * height, (b.y1 - b.y0) * height,
                             (b.y1 - b.y0) * height};
    for (double a : areas) vCumulativeArea.push_back(total += a);
  }

  vPoints.reserve(vPoints.size() + n);
  for (unsigned long i = 0; i < n; ++i) {
    const size_t surface = static_cast<size_t>(
        std::upper_bound(vCumulativeArea.begin(), vCumulativeArea.end(), uniform(0.0, total)) -
        vCumulativeArea.begin());
    double x, y, z;
    if (surface == 0 || surface >= vCumulativeArea.size()) {
      do {
        x = uniform(0.0, side);
        y = uniform(0.0, side);
      } while (underBuilding(x, y));
      z = ground(x, y);
    } else {
      const Building& b = vBuildings[(surface - 1) / 5];
      const size_t part = (surface - 1) % 5;
      if (part == 0) {
        x = uniform(b.x0, b.x1);
        y = uniform(b.y0, b.y1);
        z = b.roof;
      } else {
        do {
          x = part <= 2 ? uniform(b.x0, b.x1) : part == 3 ? b.x0 : b.x1;
          y = part >= 3 ? uniform(b.y0, b.y1) : part == 1 ? b.y0 : b.y1;
          z = uniform(b.wallBottom, b.roof);
        } while (z < ground(x, y));
      }
    }
    vPoints.emplace_back(cm(x), cm(y), cm(z));
  }
}

// One CSV line per implementation; a header first when the file is new.
void appendCsv(const Options& opt, const std::string& label, size_t numPoints, const char* name,
               int numThreads, const Summary& s, const Summary& cgal, double load,
               const std::string& cpu) {
  if (!s.ok) return;
  bool bNew = false;
  {
    std::ifstream probe(opt.csvFile);
    bNew = !probe.good() || probe.peek() == std::ifstream::traits_type::eof();
  }
  std::ofstream out(opt.csvFile, std::ios::app);
  if (!out) {
    std::cerr << "cannot append to " << opt.csvFile << "\n";
    return;
  }
  if (bNew)
    out << "set,n,implementation,threads,median_s,user_s,sys_s,ratio_to_cgal,peak_rss_mib,"
           "growth_mib,bytes_per_point,cells,runs,check,load,cpu\n";
  out << std::fixed << label << "," << numPoints << "," << name << "," << numThreads << ","
      << std::setprecision(4)
      << s.seconds << "," << s.user << "," << s.sys << ",";
  if (cgal.ok && cgal.seconds > 0) out << std::setprecision(3) << s.seconds / cgal.seconds;
  out << "," << std::setprecision(1) << s.hwmKB / 1024.0 << "," << s.growthKB() / 1024.0 << ","
      << std::setprecision(0) << s.growthKB() * 1024.0 / static_cast<double>(numPoints) << ","
      << s.numCells << "," << s.vSeconds.size() << ","
      << (s.checkResult < 0 ? "" : (s.checkResult ? "passed" : "FAILED")) << ","
      << std::setprecision(2) << load << "," << cpu << "\n";
}

} // namespace

int main(int argc, char** argv) {
  Options opt;
  if (!parseOptions(argc, argv, opt)) return 2;

  std::vector<Point3> vPoints;
  std::string what;
  std::string label;
  if (!opt.xyzFile.empty()) {
    if (!VELM3D::readXYZ(opt.xyzFile.c_str(), vPoints)) {
      std::cerr << "cannot read " << opt.xyzFile << "\n";
      return 1;
    }
    what = "points of " + opt.xyzFile;
    label = "file";
  } else if (opt.grid > 0) {
    int k = opt.grid;
    vPoints.reserve(static_cast<size_t>(k) * k * k);
    for (int i = 0; i < k; ++i)
      for (int j = 0; j < k; ++j)
        for (int l = 0; l < k; ++l) vPoints.emplace_back(i, j, l);
    what = "integer grid " + std::to_string(k) + "^3";
    label = "grid " + std::to_string(k) + "^3";
  } else if (opt.numSphere > 0) {
    makeSphere(opt.numSphere, opt.seed, vPoints);
    what = "uniform random on the unit sphere, seed " + std::to_string(opt.seed);
    label = "sphere";
  } else if (opt.numScan > 0) {
    makeScan(opt.numScan, opt.seed, vPoints);
    what = "scan-like scene (ground, roofs, walls; 1 cm rounding), seed " + std::to_string(opt.seed);
    label = "scan";
  } else if (opt.numDups > 0) {
    makeWithDuplicates(opt.numDups, opt.seed, vPoints);
    what = "uniform random with 10% exact duplicates, seed " + std::to_string(opt.seed);
    label = "duplicates";
  } else {
    makeUniform(opt.numPoints, opt.seed, vPoints);
    what = "uniform random in [0,1)^3, seed " + std::to_string(opt.seed) + " (mt19937_64)";
    label = "uniform";
  }
  if (!opt.label.empty()) label = opt.label;
  std::replace(label.begin(), label.end(), ',', ';'); // one CSV field
  const size_t n = vPoints.size();
  const std::string cpu = cpuDescription();
  std::cout << "input: " << n << " points, " << what << "\n";
  std::cout << "cpu:   " << cpu << ", " << sysconf(_SC_NPROCESSORS_ONLN)
            << " logical CPUs online\n";
  std::cout << "runs:  " << (opt.bFork ? opt.repeat : 1)
            << (opt.bFork ? " per implementation, each in a forked child" : ", in process") << "\n";
  if (opt.numThreads == 0)
    opt.numThreads = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  std::cout << "threads: " << opt.numThreads << "\n";

  std::cout << std::fixed;
  double load[3] = {0, 0, 0};
  if (getloadavg(load, 3) > 0)
    std::cout << "load:  " << std::setprecision(2) << load[0]
              << " (1 min average at start; on a busy machine trust CPU time over wall)\n";

#ifndef VELM3D_BENCH_WITH_CGAL
  if (opt.bCgal) std::cout << "CGAL: not built in (configure with CGAL installed)\n";
  opt.bCgal = false;
#endif
#ifndef VELM3D_BENCH_WITH_TETGEN
  if (opt.bTetgen) std::cout << "TetGen: not built in (configure with libtet installed)\n";
  opt.bTetgen = false;
#endif
#if defined(VELM3D_BENCH_WITH_CGAL) && !defined(CGAL_LINKED_WITH_TBB)
  if (opt.bCgal && opt.numThreads > 1) {
    std::cout << "CGAL: left out above one thread (configure with TBB installed)\n";
    opt.bCgal = false;
  }
#endif
  if (opt.bTetgen && opt.numThreads > 1) {
    std::cout << "TetGen: left out above one thread (it has one only)\n";
    opt.bTetgen = false;
  }
  // The implementations take turns, so that a load that comes and goes on
  // the machine falls on all of them alike.
  Summary velm, cgal, tetgen;
  const int runs = opt.bFork ? opt.repeat : 1;
  for (int i = 0; i < runs; ++i) {
    if (opt.bVelm) {
      auto fn = [&] { return runVelm(vPoints, opt.numThreads, opt.bCheck, opt.bCount); };
      velm.add(opt.bFork ? runForked(fn) : fn());
    }
#ifdef VELM3D_BENCH_WITH_CGAL
    if (opt.bCgal) {
      auto fn = [&] {
#ifdef CGAL_LINKED_WITH_TBB
        if (opt.numThreads > 1) return runCgalParallel(vPoints, opt.numThreads, opt.bCheck);
#endif
        return runCgal(vPoints, opt.bCheck);
      };
      cgal.add(opt.bFork ? runForked(fn) : fn());
    }
#endif
#ifdef VELM3D_BENCH_WITH_TETGEN
    if (opt.bTetgen) {
      auto fn = [&] { return runTetgen(vPoints); };
      tetgen.add(opt.bFork ? runForked(fn) : fn());
    }
#endif
  }
  velm.finish();
  cgal.finish();
  tetgen.finish();
  if (opt.bVelm)
    printSummary(("libvelm3d " + VELM3D::getVelm3DVersion()).c_str(), "tetrahedra", velm, n,
                 opt.bFork);
  if (opt.bCgal)
    printSummary(opt.numThreads > 1
                     ? "CGAL Delaunay_triangulation_3, Epick, Parallel_tag, range insert"
                     : "CGAL Delaunay_triangulation_3, Epick, range insert",
                 "finite cells", cgal, n, opt.bFork);
  if (opt.bTetgen)
    printSummary("TetGen tetrahedralize \"QNF\"", "tetrahedra", tetgen, n, opt.bFork);

  auto compare = [&](const char* title, const Summary& s) {
    std::cout << title << "\n" << std::setprecision(2);
    std::cout << "  time ratio          " << s.seconds / cgal.seconds << " (wall), "
              << (s.user + s.sys) / (cgal.user + cgal.sys) << " (user + system)\n";
    if (opt.bFork && cgal.growthKB() > 0) {
      std::cout << "  memory ratio        " << static_cast<double>(s.growthKB()) / cgal.growthKB()
                << " (peak - before), " << static_cast<double>(s.hwmKB) / cgal.hwmKB
                << " (peak RSS)\n";
    }
    if (opt.bCount)
      std::cout << "  cell counts         "
                << (s.numCells == cgal.numCells
                        ? "equal"
                        : "differ (expected only where points are cospherical, e.g. on grids: "
                          "the Delaunay triangulation is then not unique)")
                << "\n";
  };
  if (velm.ok && cgal.ok) compare("velm/CGAL", velm);
  if (tetgen.ok && cgal.ok) compare("TetGen/CGAL", tetgen);

  if (!opt.csvFile.empty()) {
    std::string cpuField = cpu;
    std::replace(cpuField.begin(), cpuField.end(), ',', ';'); // one CSV field
    const int t = opt.numThreads;
    if (opt.bVelm) appendCsv(opt, label, n, "libvelm3d", t, velm, cgal, load[0], cpuField);
    if (opt.bCgal) appendCsv(opt, label, n, "CGAL", t, cgal, cgal, load[0], cpuField);
    if (opt.bTetgen) appendCsv(opt, label, n, "TetGen", 1, tetgen, cgal, load[0], cpuField);
  }
  bool bFailed = (opt.bVelm && !velm.ok) || (opt.bCgal && !cgal.ok) ||
                 (opt.bTetgen && !tetgen.ok) || velm.checkResult == 0 || cgal.checkResult == 0;
  return bFailed ? 1 : 0;
}
