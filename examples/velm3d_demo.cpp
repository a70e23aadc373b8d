// velm3d-demo: triangulates a point set with libvelm3d and reports what the
// library made of it: input points, distinct vertices, tetrahedra, time,
// throughput, peak memory and the library's own exact validity check.
// Optionally it writes the mesh as a Geomview file (the library's picture)
// or as a legacy VTK unstructured grid (ParaView, meshio).
//
// The library decides exactly for every finite coordinate, from subnormal
// numbers to the overflow threshold; NaN and infinity it does not take, so
// the demo rejects them before the first call. The library prints
// lines of its own ("numPoints=", the validity report); the demo silences
// std::cout during those calls unless --verbose is given.
#include <Velm_3D.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <new>
#include <sstream>
#include <streambuf>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using VELM3D::Point3;
using VELM3D::Tet3;

const unsigned long kDefaultPoints = 200000;
const unsigned long kMaxPoints = 100000000;
const double kRandomMin = 0.0;
const double kRandomMax = 1000.0;

enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

const char* const kUsage =
    "usage: velm3d-demo [options]\n"
    "Triangulates a point set with libvelm3d and reports the result.\n"
    "\n"
    "Input (one of):\n"
    "  --points N       N uniform random points in [0,1000)^3 (default 200000)\n"
    "  --seed S         seed of the random points, 1 to 4294967295 (default 1)\n"
    "  --grid N         the N^3 integer grid 0..N-1 (degenerate: cospherical\n"
    "                   and coplanar points everywhere)\n"
    "  --xyz FILE       a text file of x y z values separated by white space\n"
    "Output:\n"
    "  --check          run the library's exact validity check (default)\n"
    "  --no-check       skip it\n"
    "  --geomview FILE  write the mesh as the library's Geomview file\n"
    "  --vtk FILE       write the tetrahedra as a legacy ASCII VTK file\n"
    "  --verbose        let the library print its own lines\n"
    "  --help           print this text\n"
    "\n"
    "Coordinates may be any finite numbers.\n"
    "Exit status: 0 success, 1 invalid mesh or library failure,\n"
    "2 bad arguments or bad input.\n";

struct Options {
  unsigned long numPoints = kDefaultPoints;
  unsigned int seed = 1;
  unsigned long gridSize = 0;
  std::string xyzFile;
  std::string geomviewFile;
  std::string vtkFile;
  bool bCheck = true;
  bool bVerbose = false;
  bool bHelp = false;
  bool bPointsGiven = false;
  bool bSeedGiven = false;
};

// Thrown for anything the user can fix: the text is the one line printed.
struct UsageError {
  std::string text;
};

[[noreturn]] void usageError(const std::string& text) { throw UsageError{text}; }

// Parses a whole decimal token in [minValue, maxValue]; no sign, no blanks.
unsigned long parseCount(const std::string& option, const std::string& value,
                         unsigned long minValue, unsigned long maxValue) {
  bool bDigits = !value.empty() && value.size() <= 19;
  for (char c : value) bDigits = bDigits && c >= '0' && c <= '9';
  if (!bDigits) usageError(option + " needs a whole number, got '" + value + "'");
  unsigned long n = std::strtoul(value.c_str(), nullptr, 10);
  if (n < minValue || n > maxValue)
    usageError(option + " must be between " + std::to_string(minValue) + " and " +
               std::to_string(maxValue) + ", got " + value);
  return n;
}

Options parseArguments(int argc, char** argv) {
  Options opt;
  int numSources = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usageError(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "--help" || arg == "-h") {
      opt.bHelp = true;
    } else if (arg == "--points") {
      opt.numPoints = parseCount(arg, value(), 1, kMaxPoints);
      opt.bPointsGiven = true;
      ++numSources;
    } else if (arg == "--seed") {
      opt.seed = static_cast<unsigned int>(parseCount(arg, value(), 1, 4294967295UL));
      opt.bSeedGiven = true;
    } else if (arg == "--grid") {
      opt.gridSize = parseCount(arg, value(), 1, 464); // 464^3 < 1e8 points
      ++numSources;
    } else if (arg == "--xyz") {
      opt.xyzFile = value();
      ++numSources;
    } else if (arg == "--geomview") {
      opt.geomviewFile = value();
    } else if (arg == "--vtk") {
      opt.vtkFile = value();
    } else if (arg == "--check") {
      opt.bCheck = true;
    } else if (arg == "--no-check") {
      opt.bCheck = false;
    } else if (arg == "--verbose") {
      opt.bVerbose = true;
    } else {
      usageError("unknown argument '" + arg + "' (see --help)");
    }
  }
  if (numSources > 1) usageError("give only one of --points, --grid and --xyz");
  if (opt.bSeedGiven && (opt.gridSize > 0 || !opt.xyzFile.empty()))
    usageError("--seed applies to random points only");
  for (const std::string& out : {opt.geomviewFile, opt.vtkFile})
    if (!out.empty() && out == opt.xyzFile)
      usageError("the output file " + out + " is also the input file");
  return opt;
}

// The first point with a coordinate that is not finite, or -1.
long firstPointNotFinite(const std::vector<Point3>& vPoints) {
  for (size_t i = 0; i < vPoints.size(); ++i) {
    const Point3& p = vPoints[i];
    if (!std::isfinite(p.x()) || !std::isfinite(p.y()) || !std::isfinite(p.z())) return long(i);
  }
  return -1;
}

// The shortest decimal text that reads back as the same double.
std::string formatCoordinate(double c) {
  char text[40];
  for (int precision = 6; precision <= 17; ++precision) {
    std::snprintf(text, sizeof text, "%.*g", precision, c);
    if (std::strtod(text, nullptr) == c) break;
  }
  return text;
}

std::string formatPoint(const Point3& p) {
  return "(" + formatCoordinate(p.x()) + ", " + formatCoordinate(p.y()) + ", " +
         formatCoordinate(p.z()) + ")";
}

// Random points from the library's seeded generator. Three values per point,
// so that the count is exactly n.
void makeRandomPoints(unsigned long n, unsigned int seed, std::vector<Point3>& vPoints) {
  std::vector<double> vValues;
  vValues.reserve(3 * n);
  VELM3D::generateRandomNumbers(3 * n, kRandomMin, kRandomMax, vValues, seed);
  vPoints.reserve(n);
  for (unsigned long i = 0; i < n; ++i)
    vPoints.emplace_back(vValues[3 * i], vValues[3 * i + 1], vValues[3 * i + 2]);
}

void makeGrid(unsigned long n, std::vector<Point3>& vPoints) {
  vPoints.reserve(n * n * n);
  for (unsigned long i = 0; i < n; ++i)
    for (unsigned long j = 0; j < n; ++j)
      for (unsigned long k = 0; k < n; ++k) vPoints.emplace_back(double(i), double(j), double(k));
}

// readXYZ stops in silence at the first value it can't read. The demo reads
// the file's tokens once more to tell the user where and why it stopped.
void readXyzFile(const std::string& filename, std::vector<Point3>& vPoints) {
  struct stat st;
  if (stat(filename.c_str(), &st) != 0)
    usageError("cannot read " + filename + ": " + std::strerror(errno));
  if (S_ISDIR(st.st_mode)) usageError("cannot read " + filename + ": it is a directory");
  if (!VELM3D::readXYZ(filename.c_str(), vPoints)) usageError("cannot read " + filename);

  std::ifstream in(filename);
  std::string token;
  unsigned long numTokens = 0;
  while (in >> token) {
    if (numTokens >= 3 * vPoints.size()) {
      char* pEnd = nullptr;
      errno = 0;
      const double v = std::strtod(token.c_str(), &pEnd);
      if (*pEnd != '\0' || errno == ERANGE || !std::isfinite(v))
        usageError(filename + ": value " + std::to_string(numTokens + 1) + " ('" + token +
                   "') is not a finite number");
    }
    ++numTokens;
  }
  if (numTokens != 3 * vPoints.size())
    usageError(filename + ": " + std::to_string(numTokens) +
               " values, not a multiple of three");
  if (vPoints.empty()) usageError(filename + ": no points in the file");
}

// Swaps std::cout's buffer for one that drops everything, for the length of
// one library call. If the library ends the process meanwhile (its fatal
// conditions call exit(1)), the exit handler restores std::cout and says so.
class NullBuffer : public std::streambuf {
protected:
  int overflow(int c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

NullBuffer gNullBuffer;
std::streambuf* gpSavedBuffer = nullptr;
const char* gpCurrentCall = nullptr;

void reportExitDuringCall() {
  if (gpCurrentCall == nullptr) return;
  if (gpSavedBuffer != nullptr) std::cout.rdbuf(gpSavedBuffer);
  std::fprintf(stderr,
               "velm3d-demo: the library ended the process during %s "
               "(run with --verbose to see its message)\n",
               gpCurrentCall);
}

class LibraryCall {
public:
  LibraryCall(const char* what, bool bVerbose) {
    gpCurrentCall = what;
    if (!bVerbose) gpSavedBuffer = std::cout.rdbuf(&gNullBuffer);
  }
  ~LibraryCall() {
    if (gpSavedBuffer != nullptr) std::cout.rdbuf(gpSavedBuffer);
    std::cout.clear();
    gpSavedBuffer = nullptr;
    gpCurrentCall = nullptr;
  }
  LibraryCall(const LibraryCall&) = delete;
  LibraryCall& operator=(const LibraryCall&) = delete;
};

// Makes sure an output file can be written before the work starts: the
// library's writer ends the process on a file it can't open.
void checkWritable(const std::string& filename) {
  if (filename.empty()) return;
  std::ofstream out(filename);
  if (!out) usageError("cannot write " + filename + ": " + std::strerror(errno));
}

// Legacy VTK, ASCII: the vertices, and one cell of type 10 (VTK_TETRA) per
// tetrahedron. The library's corner order puts corner 3 on the side to which
// (c1 - c0) x (c2 - c0) points, which is VTK's positive orientation.
bool writeVtk(const std::string& filename, const std::vector<Point3*>& vVertices,
              const std::vector<Tet3*>& vTets) {
  FILE* f = std::fopen(filename.c_str(), "w");
  if (f == nullptr) return false;
  std::fprintf(f, "# vtk DataFile Version 3.0\n%s tetrahedra\nASCII\n",
               VELM3D::getVelm3DVersion().c_str());
  std::fprintf(f, "DATASET UNSTRUCTURED_GRID\nPOINTS %zu double\n", vVertices.size());
  for (const Point3* pVtx : vVertices)
    std::fprintf(f, "%.17g %.17g %.17g\n", pVtx->x(), pVtx->y(), pVtx->z());
  std::fprintf(f, "CELLS %zu %zu\n", vTets.size(), 5 * vTets.size());
  for (const Tet3* pTet : vTets)
    std::fprintf(f, "4 %d %d %d %d\n", pTet->getCorner(0)->getCustomIndex(),
                 pTet->getCorner(1)->getCustomIndex(), pTet->getCorner(2)->getCustomIndex(),
                 pTet->getCorner(3)->getCustomIndex());
  std::fprintf(f, "CELL_TYPES %zu\n", vTets.size());
  for (size_t i = 0; i < vTets.size(); ++i) std::fputs("10\n", f);
  const bool bOk = !std::ferror(f);
  return std::fclose(f) == 0 && bOk;
}

// Peak resident memory of the process in KiB (VmHWM), or -1 where the
// system doesn't tell it.
long peakMemoryKiB() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.compare(0, 6, "VmHWM:") == 0) return std::atol(line.c_str() + 6);
  return -1;
}

int run(const Options& opt) {
  std::vector<Point3> vPoints;
  std::string source;
  std::string where;
  if (!opt.xyzFile.empty()) {
    where = opt.xyzFile + ": ";
    readXyzFile(opt.xyzFile, vPoints);
    source = opt.xyzFile;
  } else if (opt.gridSize > 0) {
    makeGrid(opt.gridSize, vPoints);
    source = std::to_string(opt.gridSize) + "^3 integer grid";
  } else {
    makeRandomPoints(opt.numPoints, opt.seed, vPoints);
    source = "uniform random in [0,1000)^3, seed " + std::to_string(opt.seed);
  }
  const long badIndex = firstPointNotFinite(vPoints);
  if (badIndex >= 0)
    usageError(where + "point " + std::to_string(badIndex + 1) + " " + formatPoint(vPoints[badIndex]) +
               " has a coordinate that is not a finite number");
  checkWritable(opt.geomviewFile);
  checkWritable(opt.vtkFile);

  VELM3D::Velm_3D velm;
  std::chrono::steady_clock::time_point start, stop;
  {
    LibraryCall call("the insertion", opt.bVerbose);
    start = std::chrono::steady_clock::now();
    velm.insert(vPoints);
    stop = std::chrono::steady_clock::now();
  }
  const double seconds = std::chrono::duration<double>(stop - start).count();

  std::vector<Point3*> vVertices;
  std::vector<Tet3*> vTets;
  {
    LibraryCall call("the mesh queries", opt.bVerbose);
    velm.getVertices(vVertices);
    velm.getTetrahedra(vTets);
  }

  int status = kExitOk;
  std::string validity = "not checked (--no-check)";
  if (opt.bCheck) {
    bool bValid = false;
    {
      LibraryCall call("the validity check", opt.bVerbose);
      bValid = velm.checkValidity("velm3d-demo", true);
    }
    validity = bValid ? "OK (exact orientation and sphere tests)"
                      : "FAILED (run with --verbose for the report)";
    if (!bValid) status = kExitFailure;
  }

  if (!opt.geomviewFile.empty()) {
    LibraryCall call("the Geomview output", opt.bVerbose);
    velm.show(opt.geomviewFile, nullptr);
  }
  if (!opt.vtkFile.empty()) {
    for (size_t i = 0; i < vVertices.size(); ++i) vVertices[i]->setCustomIndex(int(i));
    if (!writeVtk(opt.vtkFile, vVertices, vTets)) {
      std::cerr << "velm3d-demo: cannot write " << opt.vtkFile << std::endl;
      return kExitFailure;
    }
  }

  const long peakKiB = peakMemoryKiB();
  std::ostringstream report;
  report.setf(std::ios::fixed);
  report.precision(3);
  report << VELM3D::getVelm3DVersion() << "\n";
  report << "  input            " << source << "\n";
  report << "  input points     " << vPoints.size() << "\n";
  report << "  vertices         " << vVertices.size() << " distinct\n";
  report << "  tetrahedra       " << vTets.size() << "\n";
  report << "  construction     " << seconds << " s\n";
  report.precision(0);
  report << "  points/second    " << (seconds > 0 ? double(vPoints.size()) / seconds : 0.0)
         << "\n";
  report.precision(1);
  if (peakKiB >= 0)
    report << "  peak memory      " << double(peakKiB) / 1024.0 << " MiB (VmHWM)\n";
  else
    report << "  peak memory      not available\n";
  report << "  validity         " << validity << "\n";
  if (!opt.geomviewFile.empty()) report << "  geomview file    " << opt.geomviewFile << "\n";
  if (!opt.vtkFile.empty()) report << "  vtk file         " << opt.vtkFile << "\n";
  std::cout << report.str() << std::flush;
  return status;
}

} // namespace

int main(int argc, char** argv) {
  std::atexit(reportExitDuringCall);
  try {
    const Options opt = parseArguments(argc, argv);
    if (opt.bHelp) {
      std::cout << kUsage;
      return kExitOk;
    }
    return run(opt);
  } catch (const UsageError& e) {
    std::cerr << "velm3d-demo: " << e.text << std::endl;
    return kExitUsage;
  } catch (const VelmException&) {
    std::cerr << "velm3d-demo: the library reported a failed condition "
                 "(run with --verbose to see its report)"
              << std::endl;
    return kExitFailure;
  } catch (const std::bad_alloc&) {
    std::cerr << "velm3d-demo: out of memory" << std::endl;
    return kExitFailure;
  }
}
