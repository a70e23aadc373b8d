// Visualizer3.cpp: the Geomview writer and its drawing operations.
//
// A visualizer owns one output file from construction until closeFile() or
// destruction. The file is one outer LIST: "LIST", "{", the objects in call
// order, "}". Every operation writes at once; there is no scene in memory and
// the stream's state is never looked at after opening, so a closed visualizer
// silently writes nothing. Numbers go out in the stream's default format
// (6 significant digits, general notation), and the precision is never
// changed: neighbouring vertices may print alike.
//
// The colour table and the colour index are process-wide; the index is atomic. getColor reaches
// only the first 14 entries; getNextColor cycles through those 14 across all
// files of the process and is never reset.
#include "Visualizer3.h"

#include <cmath>
#include <cstdlib>

#include "Surface3.h"
#include "Tet3.h"
#include "Vector3.h"
#include "freeFunctions.h"

namespace VELM3D {

// Colours in Geomview's RGBA text form, all with alpha 0.5. The tabs in
// CLAWNGREEN and CPALEGREEN belong to the values.
const std::string Visualizer3::CLIGHTBLUE("0 0.749 1 0.5");
const std::string Visualizer3::CDARKBLUE("0 0.1 .803 0.5");
const std::string Visualizer3::CYELLOW("1 1 0 0.5");
const std::string Visualizer3::CPINK("1 0.411 0.705 0.5");
const std::string Visualizer3::CBLACK("0.1 0.1 0.1 0.5");
const std::string Visualizer3::CLIGHTBROWN("0.823 0.705 0.549 0.5");
const std::string Visualizer3::CDARKBROWN("0.545 0.271 0.074 0.5");
const std::string Visualizer3::CORANGE("1 0.627 0 0.5");
const std::string Visualizer3::CPURPLE("0.627 0.125 0.941 0.5");
const std::string Visualizer3::CGRAY(".745 .745 .745 0.5");
const std::string Visualizer3::CLIGHTGRAY(".445 .445 .445 0.5");
const std::string Visualizer3::CRED("1 0 0 0.5");
const std::string Visualizer3::CGREEN("0 1 0 0.5");
const std::string Visualizer3::CWHITE("1 1 1 0.5");
const std::string Visualizer3::CRIMSON(".86 .08 .24 0.5");
const std::string Visualizer3::CDARKORANGE("1 .55 0 0.5");
const std::string Visualizer3::CGOLDENROD(".85 .65 .13 0.5");
const std::string Visualizer3::COLIVE(".5 .5 .0 0.5");
const std::string Visualizer3::CLAWNGREEN("0.49\t0.99 0.00 0.5");
const std::string Visualizer3::CGREENYELLOW("0.68 1.00 0.18 0.5");
const std::string Visualizer3::CPALEGREEN("0.60\t0.98 0.60 0.5");
const std::string Visualizer3::CMEDSPRINGGREEN("0.00 0.98 0.60 0.5");
const std::string Visualizer3::CLIGHTSEAGREAN("0.13 0.70 0.67 0.5");
const std::string Visualizer3::CCYAN("0.00 1.00 1.00 0.5");
const std::string Visualizer3::CSTEELBLUE("0.27 0.51 0.71 0.5");
const std::string Visualizer3::MIDNIGHTBLUE("0.10 0.10 0.44 0.5");
const std::string Visualizer3::CWHEAT("0.96 0.87 0.7 0.5");

// Defined after the constants in this same file, so they are initialised
// first.
const std::string Visualizer3::colorArray[27] = {
    CLIGHTBLUE,   CDARKBLUE,  CYELLOW,        CPINK,          CBLACK,          CLIGHTBROWN,
    CDARKBROWN,   CORANGE,    CPURPLE,        CGRAY,          CLIGHTGRAY,      CRED,
    CGREEN,       CWHITE,     CRIMSON,        CDARKORANGE,    CGOLDENROD,      COLIVE,
    CLAWNGREEN,   CGREENYELLOW, CPALEGREEN,   CMEDSPRINGGREEN, CLIGHTSEAGREAN, CCYAN,
    CSTEELBLUE,   MIDNIGHTBLUE, CWHEAT};

const std::string Visualizer3::colorNames[27] = {
    "LIGHTBLUE",      "DARKBLUE",     "YELLOW",     "PINK",       "BLACK",
    "LIGHTBROWN",     "DARKBROWN",    "ORANGE",     "PURPLE",     "GRAY",
    "LIGHTGRAY",      "RED",          "GREEN",      "WHITE",      "CRIMSON",
    "CDARKORANGE",    "CGOLDENROD",   "COLIVE",     "CLAWNGREEN", "CGREENYELLOW",
    "CPALEGREEN",     "CMEDSPRINGGREEN", "CLIGHTSEAGREAN", "CCYAN", "CSTEELBLUE",
    "MIDNIGHTBLUE",   "CWHEAT"};

std::atomic<unsigned int> Visualizer3::nextColorIdx{0};

namespace {

// Number of table entries that getColor and getNextColor can reach.
const unsigned int numReachableColors = 14;

// A coordinate triple as Geomview reads it: x, a blank, y, a blank, z.
void writeTriple(std::ostream& os, const Point3& p) {
  os << p.x() << " " << p.y() << " " << p.z();
}

} // namespace

Visualizer3::Visualizer3(const std::string& filename) {
  consoleLine("Visualizer, writing " + filename);
  openFile(filename);
  outFile << "LIST" << std::endl;
  outFile << "{" << std::endl;
}

Visualizer3::~Visualizer3() { closeFile(); }

void Visualizer3::openFile(std::string filename) {
  // Opening an already open stream fails and leaves the old file attached;
  // is_open() then still answers true and the visualizer goes on with it.
  outFile.open(filename.c_str(), std::ios::out | std::ios::trunc);
  if (outFile.is_open()) {
    consoleLine(yellowString("  Writing " + filename));
  } else {
    consoleLine(filename + " not open");
    exit(1);
  }
}

void Visualizer3::closeFile() {
  if (!outFile.is_open()) return;
  outFile << "}" << std::endl;
  outFile.flush();
  outFile.close();
}

std::string Visualizer3::getColor(unsigned int i) {
  if (i < numReachableColors) return colorArray[i];
  consoleLine("Attention, returning colorArray[13] which is the last available color");
  return colorArray[13];
}

std::string Visualizer3::getNextColor() {
  // Taking an index and advancing it is one step, so that callers on two
  // threads never get the same index.
  unsigned int idx = nextColorIdx.load();
  while (!nextColorIdx.compare_exchange_weak(idx, (idx + 1) % numReachableColors)) {
  }
  return getColor(idx);
}

void Visualizer3::startList(unsigned long numVertices, unsigned long numFaces, bool bWithEdges) {
  outFile << "LIST" << std::endl;
  outFile << "{" << std::endl;
  if (bWithEdges)
    outFile << "appearance { +edge }" << std::endl;
  else
    outFile << "appearance { -edge }" << std::endl;
  outFile << "OFF" << std::endl;
  outFile << numVertices << " " << numFaces << " 0" << std::endl;
}

// The OFF object opened by startList has no braces of its own; this one brace
// closes the nested LIST.
void Visualizer3::endList() { outFile << "}" << std::endl; }

void Visualizer3::writeBall(Ball3* pBall) {
  writeBall(pBall->getCenter(), pBall->getSqRadius(), false);
}

void Visualizer3::writeBall(const Point3& center, double sqRadius, bool bWire) {
  outFile << "{" << std::endl;
  if (bWire) outFile << "appearance { +edge -face }" << std::endl;
  outFile << "SPHERE " << std::sqrt(sqRadius) << " ";
  writeTriple(outFile, center);
  outFile << std::endl;
  outFile << "}" << std::endl;
}

// Bare spheres without braces; the wire appearance line comes once, ahead of
// all of them, even when there is none.
void Visualizer3::writeBalls(const std::vector<Ball3>& vBalls, bool bWire) {
  if (bWire) outFile << "appearance { +edge -face }" << std::endl;
  for (const Ball3& ball : vBalls) {
    outFile << "SPHERE " << ball.getRadius() << " ";
    writeTriple(outFile, ball.getCenter());
    outFile << std::endl;
  }
}

// A VECT with one polyline of two vertices and one colour.
void Visualizer3::writeSegment(const Point3& p0, const Point3& p1, const std::string& color) {
  outFile << "{" << std::endl;
  outFile << "VECT" << std::endl;
  outFile << "1 2 1" << std::endl;
  outFile << "2" << std::endl;
  outFile << "1" << std::endl;
  writeTriple(outFile, p0);
  outFile << std::endl;
  writeTriple(outFile, p1);
  outFile << std::endl;
  outFile << color << std::endl;
  outFile << "}" << std::endl;
}

// "BOUNDARY" draws the closed outline as opaque black segments; any other
// colour cuts the polygon into a fan of OFF triangles around point 0. The fan
// does not test convexity.
void Visualizer3::writePolygon(std::vector<Point3>& vPoints, const std::string& color) {
  const size_t n = vPoints.size();
  if (color == "BOUNDARY") {
    for (size_t i = 0; i < n; ++i) writeSegment(vPoints[i], vPoints[(i + 1) % n], "0 0 0 1");
    return;
  }
  if (n < 3) return;
  const Point3& apex = vPoints[0];
  for (size_t i = 1; i + 1 < n; ++i) {
    outFile << "{" << std::endl;
    outFile << "OFF" << std::endl;
    outFile << "3 1 0" << std::endl;
    writeTriple(outFile, apex);
    outFile << std::endl;
    writeTriple(outFile, vPoints[i]);
    outFile << std::endl;
    writeTriple(outFile, vPoints[i + 1]);
    outFile << std::endl;
    outFile << "3 0 1 2 " << color << std::endl;
    outFile << "}" << std::endl;
  }
}

// Face f is drawn with the three other corners in rising index order,
// whatever its orientation.
void Visualizer3::writeTetrahedron(Tet3* pTet, const std::string& color) {
  if (pTet == nullptr) error("Visualizer3:.writeTet()", "c==NULL");
  for (int f = 0; f < 4; ++f) {
    std::vector<Point3> vFace;
    for (int i = 0; i < 4; ++i) {
      if (i != f) vFace.push_back(*pTet->getCorner(i));
    }
    writePolygon(vFace, color);
  }
}

void Visualizer3::writeBbox(const Bbox3& bbox, const std::string& color) {
  const double lx = bbox.getMinX(), ly = bbox.getMinY(), lz = bbox.getMinZ();
  const double hx = bbox.getMaxX(), hy = bbox.getMaxY(), hz = bbox.getMaxZ();
  // Corners named by L (minimum) and H (maximum) in the order x, y, z.
  const Point3 LLL(lx, ly, lz), LLH(lx, ly, hz), LHL(lx, hy, lz), LHH(lx, hy, hz);
  const Point3 HLL(hx, ly, lz), HLH(hx, ly, hz), HHL(hx, hy, lz), HHH(hx, hy, hz);
  std::vector<Point3> vSides[6] = {
      {LLL, LLH, LHH, LHL}, // x low
      {HLL, HLH, HHH, HHL}, // x high
      {LLL, HLL, HHL, LHL}, // z low
      {HLH, HHH, LHH, LLH}, // z high
      {LLL, HLL, HLH, LLH}, // y low
      {LHL, HHL, HHH, LHH}  // y high
  };
  for (std::vector<Point3>& vSide : vSides) writePolygon(vSide, color);
}

void Visualizer3::writeTriangle(Triangle3* pTriangle, const std::string& color) {
  startList(3, 1, true);
  for (int i = 0; i < 3; ++i) {
    writeTriple(outFile, *pTriangle->aCorners[i]);
    outFile << std::endl;
  }
  outFile << "3 0 1 2 " << color << std::endl;
  endList();
}

// One OFF object for all triangles; vertices are not shared in the file.
void Visualizer3::writeTriangles(std::vector<Triangle3*> vTriangles, const std::string& color) {
  const unsigned long n = vTriangles.size();
  startList(3 * n, n, true);
  for (Triangle3* pTriangle : vTriangles) {
    for (int i = 0; i < 3; ++i) {
      writeTriple(outFile, *pTriangle->aCorners[i]);
      outFile << std::endl;
    }
  }
  for (unsigned long k = 0; k < n; ++k) {
    outFile << "3 " << 3 * k << " " << 3 * k + 1 << " " << 3 * k + 2 << " " << color
            << std::endl;
  }
  endList();
}

// n polylines of one vertex each; only the first carries the colour and the
// others inherit it, as VECT defines.
void Visualizer3::writePoints(std::vector<Point3>& vPoints, unsigned int linewidth,
                              const std::string& color) {
  if (vPoints.empty()) {
    warning("Visualizer3::writePoints", "vPoints.empty()");
    return;
  }
  const size_t n = vPoints.size();
  outFile << "LIST" << std::endl;
  outFile << "{" << std::endl;
  outFile << "appearance{linewidth " << linewidth << "}" << std::endl;
  outFile << "VECT" << std::endl;
  outFile << n << " " << n << " 1" << std::endl;
  for (size_t i = 0; i < n; ++i) outFile << "1 ";
  outFile << std::endl;
  outFile << "1 ";
  for (size_t i = 1; i < n; ++i) outFile << "0 ";
  outFile << std::endl;
  for (const Point3& p : vPoints) {
    writeTriple(outFile, p);
    outFile << std::endl;
  }
  outFile << color << std::endl;
  outFile << "}" << std::endl;
}

void Visualizer3::writePoints(std::vector<Point3*>& vPoints, unsigned int linewidth,
                              const std::string& color) {
  std::vector<Point3> vCopies;
  vCopies.reserve(vPoints.size());
  for (Point3* pPoint : vPoints) vCopies.push_back(*pPoint);
  writePoints(vCopies, linewidth, color);
}

void Visualizer3::writePoint(const Point3& p, unsigned int linewidth, const std::string& color) {
  std::vector<Point3> vOne(1, p);
  writePoints(vOne, linewidth, color);
}

} // namespace VELM3D
