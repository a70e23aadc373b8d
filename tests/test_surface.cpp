// The triangle surface: its ASCII STL scanner (counts only, since the owning
// Dt3 hands out no vertices for files), the edge-sorting neighbour matching
// and the circulation around a vertex on surfaces built from shared Point3*.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using support::captured;
using support::tempPath;

namespace {

size_t countOf(const std::string& text, const std::string& word) {
  size_t n = 0;
  for (size_t pos = text.find(word); pos != std::string::npos; pos = text.find(word, pos + 1)) ++n;
  return n;
}

// Reads the bytes as an STL file into a fresh surface and sums up the result
// as "result triangles/vertices/banners"; every vertex line asks the Dt3 for
// a vertex (which it does not make) and gets its banner. The reader's last
// line counts the triangles.
std::string stl(const std::string& bytes) {
  Dt3 dt(nullptr);
  Surface3* pSurface = dt.createEmptySurface();
  const std::string path = support::writeTemp("in.stl", bytes);
  bool bOk = false;
  const std::string said = captured([&] { bOk = pSurface->readSTL(path, true); });
  std::remove(path.c_str());
  std::vector<Triangle3*> vT;
  std::vector<Point3*> vV;
  pSurface->getTriangles(vT);
  pSurface->getVertices(vV);
  const std::string last = "Surface3::readSTL(): numTriangles=" + std::to_string(vT.size()) + "\n";
  EXPECT_EQ(said.substr(std::min(said.size(), said.size() - last.size())), last);
  return std::string(bOk ? "true " : "false ") + std::to_string(vT.size()) + "/" + std::to_string(vV.size()) + "/" +
         std::to_string(countOf(said, "Dt3::createPendingVertex is disabled"));
}

std::string link(Surface3* pSurface, bool bExpected) {
  return captured([&] { EXPECT_EQ(pSurface->establishNeighborships(), bExpected); });
}

bool hasCorner(const Triangle3* pT, const Point3* p) {
  return pT->aCorners[0] == p || pT->aCorners[1] == p || pT->aCorners[2] == p;
}

// Whether the triangle's corners are p, a, b in this cyclic order.
bool runs(const Triangle3* pT, const Point3* p, const Point3* a, const Point3* b) {
  for (int i = 0; i < 3; ++i)
    if (pT->aCorners[i] == p) return pT->aCorners[(i + 1) % 3] == a && pT->aCorners[(i + 2) % 3] == b;
  return false;
}

} // namespace

TEST(Trim, FourPassesBlanksThenTabs) {
  auto trimmed = [](std::string s) { return trim(s), s; };
  EXPECT_EQ(trimmed("\t \tabc \t "), " \tabc ");
  EXPECT_EQ(trimmed("     "), "");
  EXPECT_EQ(trimmed("\r\f 1 \r"), "\r\f 1 \r");
}

TEST(ReadSTL, KeywordScannerOverUpperCasedLines) {
  const std::string facet = "facet normal 0 0 1\n outer loop\n  vertex 0 0 0\n  vertex 1 0 0\n"
                            "  vertex 0 1 0\n endloop\nendfacet\n";
  std::string nulLoop = facet, longest = "vertex 1 2 3";
  nulLoop.insert(nulLoop.find("endloop"), std::string("loop\0", 5)); // the NUL ends the line: "LOOP" alone
  longest.resize(1048575, ' ');
  std::string binary = "binary header" + std::string(67, '\0') + std::string("\1\0\0\0", 4);
  for (int i = 0; i < 12; ++i) binary.append("\0\0\x80\x3f", 4); // one record of 12 floats 1.0f and 2 bytes
  const struct { std::string bytes, result; } cases[] = {
      {"SoLiD demo\n  FaCeT NoRmAl 0 0 1\n\tOuTeR LoOp\n\tvertex \t 1.5e0 -2 3\n  VERTEX 1.5E0 -2 3\n"
       "VeRtEx\t\t 4 5 6\n  EndLoop\n endfacet\nendsolid demo\n", "true 1/3/3"},
      // OUTER wins over VERTEX, ENDLOOP over VERTEX; a solid named "myvertex" is a vertex line.
      {"outer vertex 1 2 3\nvertex 1 2 3\nvertex 1 2 3\nvertex 1 2 3\nendloop vertex 9 9 9\nsolid myvertex\n",
       "true 1/4/4"},
      {"solid s\n" + facet + facet + "endsolid s\n", "true 2/6/6"},
      // A fourth vertex stays in the surface; the next loop starts afresh.
      {"vertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\nvertex 1 1 0\nendloop\n" + facet, "true 2/7/7"},
      {"vertex 1 2 3\nvertex 4 5 6\nendloop\n" + facet, "true 1/5/5"}, // fewer than three: no triangle
      {"vertex 0 0 0\nvertex 1 0 0\nvertex 0 1 0\nendloop", "true 1/3/3"},
      {"vertex 1 2 3\r\nvertex 1 2 3\r\nvertex 1 2 3\r\nendloop\r\n", "true 1/3/3"},
      {nulLoop, "true 0/3/3"},
      {longest + "\n" + facet, "true 1/4/4"},
      {facet + longest + " \n" + facet, "true 1/3/3"}, // a line past the buffer ends the reading
      {"", "true 0/0/0"},
      {binary + std::string(2, '\0'), "true 0/0/0"},
  };
  for (const auto& c : cases) EXPECT_EQ(stl(c.bytes), c.result) << c.bytes.substr(0, 60);
  Dt3 dt(nullptr);
  const std::string missing = tempPath("no_such_dir/none.stl");
  const std::string said = captured([&] { EXPECT_FALSE(dt.createEmptySurface()->readSTL(missing, true)); });
  EXPECT_NE(said.find("Surface3::readSTL(), ERROR: Error reading: " + missing), std::string::npos);
  EXPECT_EQ(said.find("numTriangles"), std::string::npos);
}

TEST(Triangle3, IndexLookupStreamFormAndInvalidQueries) {
  Point3 a(0, 0, 0), b(1, 0, 0), c(0, 1, 0), d(5, 5, 5);
  Triangle3 t{{&a, &b, &c}, {nullptr, nullptr, nullptr}}, rep{{&a, &a, &b}, {nullptr, nullptr, nullptr}};
  EXPECT_TRUE(t.getIntraTriangleIndex(&c) == 2 && t.getIntraTriangleIndex(&b, &a) == 2);
  EXPECT_TRUE(t.getIntraTriangleIndex(&a, &c) == 1 && t.getIntraTriangleIndex(&c, &a) == 1);
  // A repeated corner: the first matching test decides.
  EXPECT_TRUE(rep.getIntraTriangleIndex(&a) == 0 && rep.getIntraTriangleIndex(&b, &a) == 0 &&
              rep.getIntraTriangleIndex(&a, &a) == 2);
  t.aOppTriangles[1] = &rep; // a neighbour's address is printed twice
  std::ostringstream expected, got, search;
  expected << "Triangle: \nith=0, vertex (" << &a << "): " << a << "  oppTet=0 (NULL)\nith=1, vertex (" << &b
           << "): " << b << "  oppTet=" << &rep << &rep << "\nith=2, vertex (" << &c << "): " << c
           << "  oppTet=0 (NULL)\n";
  got << t;
  EXPECT_EQ(got.str(), expected.str());
  testing::internal::CaptureStderr();
  const std::string said =
      captured([&] { EXPECT_TRUE(t.getIntraTriangleIndex(&d) == -999 && t.getIntraTriangleIndex(&a, &d) == -999); });
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Triangle3::getIntraTriangleIndex(): invalid (p)\nTriangle3::getIntraTriangleIndex(): invalid (p1,p2)\n");
  search << "Have searched for " << &a << " and " << &d << " in " << expected.str() << "\n";
  EXPECT_EQ(said, search.str());
}

TEST(Surface3, ArraysReplaceAndQueriesAppend) {
  Dt3 dt(nullptr);
  Surface3* pSurface = dt.createEmptySurface();
  EXPECT_EQ(pSurface->getVelm3D(), nullptr);
  Point3 a(0, 0, 0);
  std::vector<Point3*> vV{&a, &a};
  std::vector<Triangle3*> vT{nullptr};
  pSurface->getTriangles(vT);
  const std::string said = captured([&] { EXPECT_EQ(pSurface->createVertex(1, 2, 3), nullptr); });
  EXPECT_EQ(countOf(said, "createPendingVertex is disabled"), 1u);
  pSurface->getVertices(vV);
  EXPECT_TRUE(vT.empty() && vV == std::vector<Point3*>{nullptr});
  pSurface->getIncidentTriangles(&a, vT);
  pSurface->getIncidentVertices(&a, vV);
  EXPECT_TRUE(vT.empty() && vV.size() == 1);
  EXPECT_EQ(link(pSurface, true), "establishNeighborships() started\nestablishNeighborships() 2\n");
}

TEST(EstablishNeighborships, ClosedTetrahedronSurfaceHasFullFans) {
  Point3 v[4] = {Point3(0, 0, 0), Point3(1, 0, 0), Point3(0, 1, 0), Point3(0, 0, 1)};
  const int faces[4][3] = {{1, 2, 3}, {0, 3, 2}, {0, 1, 3}, {0, 2, 1}};
  Dt3 dt(nullptr);
  Surface3* pSurface = dt.createEmptySurface();
  std::vector<Triangle3*> vT;
  for (const auto& f : faces) vT.push_back(pSurface->createTriangle(&v[f[0]], &v[f[1]], &v[f[2]]));
  for (int round = 0; round < 2; ++round) { // a second call keeps the links
    EXPECT_EQ(link(pSurface, true).find("WARNING"), std::string::npos);
    for (Triangle3* pT : vT) {
      for (int i = 0; i < 3; ++i) {
        Triangle3* pN = pT->aOppTriangles[i];
        Point3 *p1 = pT->aCorners[(i + 1) % 3], *p2 = pT->aCorners[(i + 2) % 3];
        ASSERT_TRUE(pN != nullptr && pN != pT && hasCorner(pN, p1) && hasCorner(pN, p2));
        EXPECT_EQ(pN->aOppTriangles[pN->getIntraTriangleIndex(p1, p2)], pT);
      }
    }
    for (Point3& p : v) {
      std::vector<Triangle3*> vFan{nullptr}; // the queries append
      std::vector<Point3*> vRing;
      pSurface->getIncidentTriangles(&p, vFan);
      pSurface->getIncidentVertices(&p, vRing);
      ASSERT_TRUE(vFan.size() == 4u && vRing.size() == 3u);
      // The fan starts at the last triangle in creation order that has p and
      // turns the way the triangles run: triangle k has the corners p, ring k
      // and ring k+1 in this cyclic order.
      Triangle3* pLast = nullptr;
      for (Triangle3* pT : vT) pLast = hasCorner(pT, &p) ? pT : pLast;
      EXPECT_EQ(vFan[1], pLast);
      for (size_t k = 0; k < 3; ++k) EXPECT_TRUE(runs(vFan[k + 1], &p, vRing[k], vRing[(k + 1) % 3])) << k;
    }
  }
  const std::string path = tempPath("tet.list");
  captured([&] { pSurface->writeGeomview(path, "c"); });
  EXPECT_NE(support::readFile(path).find("OFF\n12 4 0\n"), std::string::npos); // all triangles in one list
  std::remove(path.c_str());
}

TEST(EstablishNeighborships, BordersWarnExceptTheLastEntry) {
  Point3 a(0, 0, 0), b(1, 0, 0), c(0, 1, 0), d(1, 1, 0), e(2, 2, 2);
  Dt3 dt(nullptr);
  Surface3* pSurface = dt.createEmptySurface();
  Triangle3* pOne = pSurface->createTriangle(&a, &b, &c);
  EXPECT_EQ(countOf(link(pSurface, false), "Surface3::establishNeighborships(), WARNING: No neighbor found"), 2u);
  // An open strip: the shared edge links both ways, the four borders stay open.
  Triangle3* pTwo = pSurface->createTriangle(&c, &b, &d);
  std::string said = link(pSurface, false);
  EXPECT_TRUE(pOne->aOppTriangles[0] == pTwo && pTwo->aOppTriangles[2] == pOne);
  EXPECT_TRUE(!pOne->aOppTriangles[1] && !pOne->aOppTriangles[2] && !pTwo->aOppTriangles[0] && !pTwo->aOppTriangles[1]);
  auto key = [](const Point3* p, const Point3* q) {
    const uintptr_t x = reinterpret_cast<uintptr_t>(p), y = reinterpret_cast<uintptr_t>(q);
    return std::make_pair(std::min(x, y), std::max(x, y));
  };
  const auto maxKey = std::max({key(&a, &b), key(&a, &c), key(&b, &c), key(&b, &d), key(&c, &d)});
  // One warning per border entry, except when a border entry sorts last of all.
  EXPECT_EQ(countOf(said, "No neighbor found"), maxKey == key(&b, &c) ? 4u : 3u);
  // Same direction along the edge b-d: both printed, no link.
  Triangle3* pThree = pSurface->createTriangle(&b, &d, &e);
  said = link(pSurface, false);
  EXPECT_EQ(countOf(said, "Triangle: \n"), 2u); // the pair once
  EXPECT_TRUE(!pTwo->aOppTriangles[0] && !pThree->aOppTriangles[2] && pOne->aOppTriangles[0] == pTwo);
}
