// Surface3.cpp: the triangle surface, its ASCII STL reader and the matching of
// neighbouring triangles.
//
// A surface passes through three phases without a flag that records them:
// empty; filled (vertices and triangles, no neighbours, empty vertex map);
// connected (after establishNeighborships). Filling may go on after
// connecting; new triangles keep null neighbours until the next connection.
//
// Nothing here looks at coordinates: two triangles are neighbours only if
// they share the very same Point3* corners. The STL reader therefore never
// merges vertices, and a surface read from a file gets its connectivity only
// from vertices that the owning Dt3 hands out.
#include "Surface3.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <sstream>
#include <utility>

#include "Dt3.h"
#include "Visualizer3.h"
#include "freeFunctions.h"

namespace VELM3D {

// ---------------------------------------------------------------------------
// Triangle3.

int Triangle3::getIntraTriangleIndex(Point3* p) const {
  if (aCorners[0] == p) return 0;
  if (aCorners[1] == p) return 1;
  if (aCorners[2] == p) return 2;
  std::cerr << "Triangle3::getIntraTriangleIndex(): invalid (p)\n" << std::flush;
  return -999;
}

// The index of the corner opposite the edge {p1, p2}, which is also the slot
// of the neighbour across that edge. The tests run 0, 1, 2 and the first
// match decides, which matters only for a triangle with a repeated corner.
int Triangle3::getIntraTriangleIndex(Point3* p1, Point3* p2) const {
  if ((aCorners[1] == p1 && aCorners[2] == p2) || (aCorners[1] == p2 && aCorners[2] == p1)) return 0;
  if ((aCorners[2] == p1 && aCorners[0] == p2) || (aCorners[2] == p2 && aCorners[0] == p1)) return 1;
  if ((aCorners[0] == p1 && aCorners[1] == p2) || (aCorners[0] == p2 && aCorners[1] == p1)) return 2;
  std::cerr << "Triangle3::getIntraTriangleIndex(): invalid (p1,p2)\n" << std::flush;
  std::ostringstream oss = consoleStream();
  oss << "Have searched for " << static_cast<const void*>(p1) << " and " << static_cast<const void*>(p2) << " in "
      << *this;
  consoleLine(oss.str());
  return -999;
}

// A linked neighbour's pointer is written twice in a row: that is the
// established form of this dump, and readers of old logs rely on it.
std::ostream& operator<<(std::ostream& stream, const Triangle3& t) {
  stream << "Triangle: " << std::endl;
  for (unsigned int i = 0; i < 3; ++i) {
    const Triangle3* pOpp = t.aOppTriangles[i];
    stream << "ith=" << i << ", vertex (" << static_cast<const void*>(t.aCorners[i])
           << "): " << *t.aCorners[i] << "  oppTet=" << static_cast<const void*>(pOpp);
    if (pOpp == nullptr) {
      stream << " (NULL)";
    } else {
      stream << static_cast<const void*>(pOpp);
    }
    stream << std::endl;
  }
  return stream;
}

// ---------------------------------------------------------------------------
// Surface3: life cycle and filling.

Surface3::Surface3(Dt3* pDt_)
    : pTrianglePool(new BRIX_TOOLS::SimplePool<Triangle3>()), pDt(pDt_) {
  pTrianglePool->init(2, -1);
}

// The vertices belong to the Dt3; only the triangles' pool is released here.
Surface3::~Surface3() { delete pTrianglePool; }

Point3* Surface3::createVertex(double x, double y, double z) {
  Point3* pVtx = pDt->createPendingVertex(x, y, z);
  vVertices.push_back(pVtx);
  return pVtx;
}

Triangle3* Surface3::createTriangle(Point3* p0, Point3* p1, Point3* p2) {
  Triangle3* pTriangle = pTrianglePool->nextObject();
  pTriangle->aCorners[0] = p0;
  pTriangle->aCorners[1] = p1;
  pTriangle->aCorners[2] = p2;
  pTriangle->aOppTriangles[0] = nullptr;
  pTriangle->aOppTriangles[1] = nullptr;
  pTriangle->aOppTriangles[2] = nullptr;
  vTriangles.push_back(pTriangle);
  return pTriangle;
}

void Surface3::getVertices(std::vector<Point3*>& vOut) const {
  if (&vOut != &vVertices) vOut = vVertices;
}

void Surface3::getTriangles(std::vector<Triangle3*>& vOut) const {
  if (&vOut != &vTriangles) vOut = vTriangles;
}

Velm_3D* Surface3::getVelm3D() { return pDt->getInterface(); }

void Surface3::writeGeomview(const std::string& filename, const std::string& color) {
  Visualizer3 vis(filename);
  std::vector<Triangle3*> vCopy(vTriangles);
  vis.writeTriangles(vCopy, color);
}

// ---------------------------------------------------------------------------
// Circulation around a vertex.
//
// Both walks go one way only: from the triangle recorded for the vertex, over
// the edge from the vertex to its successor corner, until they are back at
// the first triangle. They assume a closed fan. At a vertex on the border of
// an open surface the walk meets a null neighbour and fails; there is
// deliberately no guard, so that a closed surface yields exactly its fan.

void Surface3::getIncidentVertices(Point3* pVtx, std::vector<Point3*>& vOut) const {
  auto it = mVtxToTriangle.find(pVtx);
  if (it == mVtxToTriangle.end()) return;
  Triangle3* pFirst = it->second;
  Triangle3* pCur = pFirst;
  do {
    const int j = (pCur->getIntraTriangleIndex(pVtx) + 1) % 3;
    vOut.push_back(pCur->aCorners[j]);
    pCur = pCur->aOppTriangles[j];
  } while (pCur != pFirst);
}

void Surface3::getIncidentTriangles(Point3* pVtx, std::vector<Triangle3*>& vOut) const {
  auto it = mVtxToTriangle.find(pVtx);
  if (it == mVtxToTriangle.end()) return;
  Triangle3* pFirst = it->second;
  Triangle3* pCur = pFirst;
  do {
    vOut.push_back(pCur);
    const int j = (pCur->getIntraTriangleIndex(pVtx) + 1) % 3;
    pCur = pCur->aOppTriangles[j];
  } while (pCur != pFirst);
}

// ---------------------------------------------------------------------------
// STL reader.

// Four separate passes, not one over a set of characters: a leading run of
// tab, blank, tab loses its first tab only and keeps the blank at its head.
void trim(std::string& s) {
  s.erase(0, std::min(s.find_first_not_of(' '), s.size()));
  s.erase(s.find_last_not_of(' ') + 1); // npos + 1 is 0: all blanks go
  s.erase(0, std::min(s.find_first_not_of('\t'), s.size()));
  s.erase(s.find_last_not_of('\t') + 1);
}

// A keyword scanner for ASCII STL, not a parser. Each line is upper-cased and
// classified by the first of OUTER (skip), ENDLOOP (close the facet), VERTEX
// (read three numbers behind the word) that it contains anywhere; everything
// else, normals and solid names included, is ignored. Binary STL is not
// recognised and simply runs through the same scanner. Vertices are never
// merged: each vertex line gives its own vertex.
bool Surface3::readSTL(const std::string& filename, bool bVerbose) {
  std::ifstream file(filename.c_str());
  if (!file.is_open()) {
    error("Surface3::readSTL()", "Error reading: " + filename);
    return false;
  }

  // One line of at most 1,048,575 characters; a longer line fails the stream
  // and ends the read as if the file had ended.
  const std::streamsize bufferSize = 1048576;
  std::vector<char> vBuffer(static_cast<size_t>(bufferSize), '\0');
  std::vector<Point3*> vPending;
  int numTriangles = 0;

  while (true) {
    file.getline(vBuffer.data(), bufferSize, '\n');
    // End of file alone (a last line without line feed) still gets processed.
    if (file.fail() || file.bad()) break;

    std::string line(vBuffer.data()); // a NUL byte ends the line here
    for (char& c : line) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (line.size() < 5) continue;
    if (line.find("OUTER") != std::string::npos) continue;

    if (line.find("ENDLOOP") != std::string::npos) {
      // A loop that gathered fewer than three vertices makes no triangle: its
      // vertices stay in vVertices and the next loop starts afresh. Regular
      // facets always bring three or more vertices and are not affected.
      if (vPending.size() >= 3) {
        createTriangle(vPending[0], vPending[1], vPending[2]);
        ++numTriangles;
      }
      vPending.clear();
      continue;
    }

    const size_t pos = line.find("VERTEX");
    if (pos != std::string::npos) {
      line.erase(0, pos + 6);
      trim(line);
      std::istringstream iss(line);
      double x(0.0), y(0.0), z(0.0);
      iss >> x >> y >> z;
      Point3* pVtx = pDt->createPendingVertex(x, y, z);
      vVertices.push_back(pVtx);
      vPending.push_back(pVtx);
    }
  }

  if (bVerbose) {
    std::ostringstream oss = consoleStream();
    oss << "Surface3::readSTL(): numTriangles=" << numTriangles;
    consoleLine(oss.str());
  }
  file.close();
  return true;
}

// ---------------------------------------------------------------------------
// Neighbourships.

namespace {

// One edge of a triangle: the two endpoints, lower address first, and the
// triangle that has the edge.
typedef std::pair<std::pair<Point3*, Point3*>, Triangle3*> EdgeEntry;

inline bool ptrLess(const Point3* a, const Point3* b) {
  return reinterpret_cast<std::uintptr_t>(a) < reinterpret_cast<std::uintptr_t>(b);
}

// Orders edge entries by their endpoints as unsigned addresses; the owning
// triangle takes no part, so the entries of one edge form a run.
struct Func_ltSortPairPair {
  bool operator()(const EdgeEntry& a, const EdgeEntry& b) const {
    if (ptrLess(a.first.first, b.first.first)) return true;
    if (ptrLess(b.first.first, a.first.first)) return false;
    return ptrLess(a.first.second, b.first.second);
  }
};

} // namespace

// Links every pair of triangles that share an edge and run along it in
// opposite directions, by sorting all 3n edges and serving each run from the
// front. An entry whose slot is filled already is skipped. A run that ends
// without a partner gives "No neighbor found", except for the very last entry
// of the array, which passes silently. Same-direction partners are printed and
// passed over. Edges of more than two triangles are served pairwise in the
// run's (unstable) order, which can leave one-way links; nothing is repaired.
bool Surface3::establishNeighborships() {
  consoleLine("establishNeighborships() started");

  std::vector<EdgeEntry> vEdges;
  vEdges.reserve(3 * vTriangles.size());
  for (Triangle3* pT : vTriangles) {
    for (int i = 0; i < 3; ++i) {
      mVtxToTriangle[pT->aCorners[i]] = pT;
      Point3* pA = pT->aCorners[(i + 1) % 3];
      Point3* pB = pT->aCorners[(i + 2) % 3];
      if (ptrLess(pB, pA)) std::swap(pA, pB);
      vEdges.push_back(EdgeEntry(std::make_pair(pA, pB), pT));
    }
  }
  std::sort(vEdges.begin(), vEdges.end(), Func_ltSortPairPair());
  consoleLine("establishNeighborships() 2");

  bool bResult = true;
  size_t i = 0;
  while (i < vEdges.size()) {
    Point3* pA = vEdges[i].first.first;
    Point3* pB = vEdges[i].first.second;
    Triangle3* pT = vEdges[i].second;
    const int k = pT->getIntraTriangleIndex(pA, pB);
    size_t next = i + 1;
    if (pT->aOppTriangles[k] == nullptr) {
      for (size_t j = i + 1; j < vEdges.size(); ++j) {
        if (vEdges[j].first != vEdges[i].first) {
          warning("Surface3::establishNeighborships()", "No neighbor found");
          bResult = false;
          break;
        }
        Triangle3* pU = vEdges[j].second;
        const int m = pU->getIntraTriangleIndex(pA, pB);
        const bool bOpposite = pT->aCorners[(k + 1) % 3] == pU->aCorners[(m + 2) % 3] &&
                               pT->aCorners[(k + 2) % 3] == pU->aCorners[(m + 1) % 3];
        if (bOpposite) {
          pT->aOppTriangles[k] = pU;
          pU->aOppTriangles[m] = pT;
          // An adjacent partner's entry is consumed at once; a farther one is
          // skipped later because its slot is no longer null.
          if (j == i + 1) next = i + 2;
          break;
        }
        std::ostringstream oss = consoleStream();
        oss << *pT << "\n" << *pU << "\n";
        consoleLine(oss.str());
      }
    }
    i = next;
  }
  return bResult;
}

} // namespace VELM3D
