// test_support.h: what the test files share besides the exact checker:
// output capture, temporary files, a fresh process for tests of process-wide
// state, fatal paths, assertion reports, inputs that end at an unreadable
// page, seeded inputs, and the exact check of a facade's mesh.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "exact_checker.h"

// Runs `check`, an expression that is true when its checks pass, in a
// re-executed child process, where process-wide counters and flags start
// from their load-time values (a forked child would inherit them).
#define EXPECT_IN_FRESH_PROCESS(check)                                                             \
  do {                                                                                             \
    GTEST_FLAG_SET(death_test_style, "threadsafe");                                                \
    EXPECT_EXIT(std::exit((check) ? 0 : 1), ::testing::ExitedWithCode(0), "");                     \
  } while (0)

// A fatal path: `stmt` ends the process with status 1, and `regex` is found
// in what it wrote to the standard output.
#define EXPECT_FATAL(stmt, regex) EXPECT_EXIT({ dup2(2, 1); stmt; }, ::testing::ExitedWithCode(1), regex)

namespace support {

using VELM3D::Point3;

// What f writes to the standard output; a throw from f ends the capture too.
template <class F> std::string captured(F f) {
  testing::internal::CaptureStdout();
  try {
    f();
  } catch (...) {
    testing::internal::GetCapturedStdout(); // what follows is the test's own output again
    throw;
  }
  return testing::internal::GetCapturedStdout();
}

inline bool contains(const std::string& s, const std::string& part) { return s.find(part) != std::string::npos; }

inline std::string readFile(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

// f must fail the library's assertion of `condition` and throw: the report
// is the red condition line, then the position, which must be a line of the
// library's sources that holds VELM_ASSERT(condition); lastReport names the
// same. The number is read from the report, not fixed here. *pOut receives
// the whole output.
template <class F>
::testing::AssertionResult failsAssertion(F f, const std::string& condition, std::string* pOut = nullptr) {
  bool bThrown = false;
  const std::string out = captured([&] {
    try {
      f();
    } catch (const VelmException&) {
      bThrown = true;
    }
  });
  if (pOut != nullptr) *pOut = out;
  const std::string report = VelmException::lastReport(), where = report.substr(report.find(" at ") + 4);
  std::istringstream source(readFile(std::string(VELM3D_SOURCE_ROOT) + "/" + where.substr(0, where.find(':'))));
  std::string line;
  for (int i = std::atoi(where.c_str() + where.find(':') + 1); i > 0; --i) std::getline(source, line);
  if (bThrown && report == "Condition [ " + condition + " failed ] at " + where && where.rfind("dt3Library/", 0) == 0 &&
      contains(out, "\n\033[0;31m      Velm, , ERROR: Condition [ " + condition + " failed ]\033[m\n\n      " + where + "\n") &&
      contains(line, "VELM_ASSERT(" + condition + ")"))
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << (bThrown ? "" : "nothing thrown; ") << report << "; output:\n" << out;
}

// A path for a temporary file of this process.
inline std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + "velm_" + std::to_string(getpid()) + "_" + name;
}

// Writes the text into a temporary file and gives its path.
inline std::string writeTemp(const std::string& name, const std::string& text) {
  const std::string path = tempPath(name);
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// A copy of n doubles that ends where a page that may not be read begins, in
// one of eight slots: a routine that reads past the end of the input faults.
inline double* guardedCopy(int slot, const double* v, int n) {
  static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  static char* const base = [] {
    char* p = static_cast<char*>(mmap(nullptr, 16 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (int i = 1; i < 16; i += 2) mprotect(p + i * page, page, PROT_NONE);
    return p;
  }();
  double* const p = reinterpret_cast<double*>(base + (2 * slot + 1) * page) - n;
  std::copy(v, v + n, p);
  return p;
}

inline std::vector<Point3> randomPoints(size_t n, unsigned long seed, double lo = -1.0, double hi = 1.0) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> d(lo, hi);
  std::vector<Point3> v(n);
  for (Point3& p : v) p = Point3{d(gen), d(gen), d(gen)}; // braces: x, y, z drawn in this order
  return v;
}

inline std::vector<Point3> grid(int n, double offset = 0.0, double scale = 1.0) {
  std::vector<Point3> v;
  for (int i = 0; i < n * n * n; ++i) v.emplace_back(offset + scale * (i / n / n), offset + scale * (i / n % n), offset + scale * (i % n));
  return v;
}

inline std::vector<Point3> joined(std::vector<Point3> a, const std::vector<Point3>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

inline size_t numTets(VELM3D::Velm_3D& vt) {
  std::vector<VELM3D::Tet3*> v;
  captured([&] { vt.getTetrahedra(v); });
  return v.size();
}

// The mesh of vt is the Delaunay triangulation of vInput: the store holds one
// vertex per distinct input position, and the exact check accepts the mesh.
inline ::testing::AssertionResult isDelaunayOf(VELM3D::Velm_3D& vt, const std::vector<Point3>& vInput) {
  std::vector<Point3*> vStored;
  vt.getVertices(vStored);
  std::set<std::tuple<double, double, double>> sInput, sStored;
  for (const Point3& p : vInput) sInput.emplace(p.x(), p.y(), p.z());
  for (const Point3* p : vStored) sStored.emplace(p->x(), p->y(), p->z());
  if (sInput != sStored || vStored.size() != sInput.size())
    return ::testing::AssertionFailure() << vStored.size() << " stored vertices for " << sInput.size() << " points";
  const std::string fault = exact::checkDelaunay(vt);
  return fault.empty() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << fault;
}

} // namespace support
