// test_support.h: what the test files share besides the exact checker:
// output capture, temporary files, a fresh process for tests of process-wide
// state, fatal paths, assertion reports, inputs that end at an unreadable
// page, and counting tetrahedra.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
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

// What f writes to the standard output.
template <class F> std::string captured(F f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

// Line `number` (from 1) of a file of the library's source tree, given by
// its path from the project root; empty if there is none.
inline std::string sourceLine(const std::string& path, int number) {
  std::ifstream in(std::string(VELM3D_SOURCE_ROOT) + "/" + path);
  std::string line;
  for (int i = 1; std::getline(in, line); ++i)
    if (i == number) return line;
  return "";
}

// f must fail the library's assertion of `condition` and throw: the report
// is the red condition line, then the position, which must be a line of the
// library's sources that holds VELM_ASSERT(condition). The number is read
// from the report, not fixed here. *pOut receives the whole output.
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
  const std::string head = "\n\033[0;31m      Velm, , ERROR: Condition [ " + condition + " failed ]\033[m\n\n      ";
  const size_t at = out.find(head);
  if (!bThrown || at == std::string::npos)
    return ::testing::AssertionFailure() << (bThrown ? "" : "nothing thrown; ") << "output:\n" << out;
  std::istringstream position(out.substr(at + head.size()));
  std::string path, rest;
  int number = 0;
  std::getline(position, path, ':');
  position >> number;
  std::getline(position, rest);
  if (path.rfind("dt3Library/", 0) != 0 || !rest.empty() ||
      sourceLine(path, number).find("VELM_ASSERT(" + condition + ")") == std::string::npos)
    return ::testing::AssertionFailure() << path << ":" << number << " holds no VELM_ASSERT(" << condition << ")";
  return ::testing::AssertionSuccess();
}

// A path for a temporary file of this process.
inline std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + "velm_" + std::to_string(getpid()) + "_" + name;
}

inline std::string readFile(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

// Writes the text into a temporary file and gives its path.
inline std::string writeTemp(const std::string& name, const std::string& text) {
  const std::string path = tempPath(name);
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// Each test of a fixture derived from this one runs in a directory of its
// own, removed afterwards, for what the library writes beside it.
class InTempDir : public ::testing::Test {
protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velm_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::filesystem::current_path(tmpDir = tmpl);
  }
  void TearDown() override {
    std::filesystem::current_path(origDir);
    std::filesystem::remove_all(tmpDir);
  }
  std::filesystem::path origDir = std::filesystem::current_path(), tmpDir;
};

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

inline size_t numTets(VELM3D::Velm_3D& vt) {
  std::vector<VELM3D::Tet3*> v;
  captured([&] { vt.getTetrahedra(v); });
  return v.size();
}

} // namespace support
