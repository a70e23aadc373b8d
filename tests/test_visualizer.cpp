// Geomview files are the contract of Visualizer3: every drawing is compared
// with its whole file byte for byte. Also the small shape records of
// Vector3.h.
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using support::captured;

namespace {

// Draws into a fresh file and returns its content; what the drawing itself
// prints (after the two opening lines) goes to *pSaid if asked for.
std::string drawFile(const std::string& name, const std::function<void(Visualizer3&)>& draw,
                     std::string* pSaid = nullptr) {
  const std::string path = support::tempPath(name + ".list");
  const std::string said = captured([&] {
    Visualizer3 vis(path);
    draw(vis);
  });
  const std::string opening = "Visualizer, writing " + path + "\n" + yellowString("  Writing " + path) + "\n";
  EXPECT_EQ(said.substr(0, opening.size()), opening);
  if (pSaid != nullptr) *pSaid = said.substr(opening.size());
  const std::string text = support::readFile(path);
  std::remove(path.c_str());
  return text;
}

std::string off(const std::string& a, const std::string& b, const std::string& c, const std::string& color = "c") {
  return "{\nOFF\n3 1 0\n" + a + "\n" + b + "\n" + c + "\n3 0 1 2 " + color + "\n}\n";
}

std::string vect(const std::string& a, const std::string& b) {
  return "{\nVECT\n1 2 1\n2\n1\n" + a + "\n" + b + "\n0 0 0 1\n}\n";
}

// Colours taken while two different files are open: the index is shared.
bool nextColorCyclesFromZero() {
  bool ok = Visualizer3::nextColorIdx == 0;
  std::vector<std::string> vSeen;
  drawFile("cycleA", [&](Visualizer3&) {
    for (int i = 0; i < 7; ++i) vSeen.push_back(Visualizer3::getNextColor());
  });
  drawFile("cycleB", [&](Visualizer3&) {
    for (int i = 0; i < 8; ++i) vSeen.push_back(Visualizer3::getNextColor());
  });
  for (unsigned i = 0; i < vSeen.size(); ++i) ok = ok && vSeen[i] == Visualizer3::colorArray[i % 14];
  return ok && Visualizer3::nextColorIdx == 1;
}

} // namespace

TEST(VisualizerFile, UnwritablePathEndsProcessWithStatusOne) {
  EXPECT_FATAL(Visualizer3 vis("/nonexistent_velm_dir/sub/x.list"), "/nonexistent_velm_dir/sub/x.list not open\n");
}

TEST(VisualizerFile, NextColorCyclesFourteenEntriesAcrossFilesInFreshProcess) {
  EXPECT_IN_FRESH_PROCESS(nextColorCyclesFromZero());
}

TEST(VisualizerFile, EachDrawingWritesItsExactText) {
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(28, -1);
  Point3 a(0, 0, 0), b(1, 0, 0), c(0, 1, 0), d(0.5, 0.25, 1.23456789), e(1, 1, 0);
  Tet3* pTet = pool.nextObject();
  pTet->setProperties(&a, &b, &c, &d);
  std::vector<Point3> vQuad{a, b, e, c}, vTwo{a, Point3(1, 2, 3)}, vOne{Point3(4, 5, 6)}, vNone, vTri{b, c, d};
  std::vector<Point3*> vPtrs{&b, &c, &d};
  Bbox3 box;
  box.add(std::vector<Point3>{Point3(0, 0, 0), Point3(1, 2, 3)});
  Ball3 ball(1, 2, 3, 4.0);
  const std::vector<Ball3> vBalls{ball, Ball3(-1, 0, 0.5, 2.25)};
  Triangle3 t0{{&a, &b, &c}, {nullptr, nullptr, nullptr}}, t1{{&b, &e, &c}, {nullptr, nullptr, nullptr}};
  const std::string A = "0 0 0", B = "1 0 0", C = "0 1 0", D = "0.5 0.25 1.23457", E = "1 1 0";
  const std::string LLL = "0 0 0", LLH = "0 0 3", LHL = "0 2 0", LHH = "0 2 3";
  const std::string HLL = "1 0 0", HLH = "1 0 3", HHL = "1 2 0", HHH = "1 2 3";
  const auto side = [](const std::string& p, const std::string& q, const std::string& r, const std::string& s) {
    return off(p, q, r) + off(p, r, s);
  };
  const std::string points = "LIST\n{\nappearance{linewidth 5}\nVECT\n3 3 1\n1 1 1 \n1 0 0 \n" + B + "\n" + C +
                             "\n" + D + "\nc\n}\n";
  const std::string tris = "LIST\n{\nappearance { +edge }\nOFF\n";
  const struct { const char* name; std::function<void(Visualizer3&)> draw; std::string body; } cases[] = {
      {"nothing", [](Visualizer3&) {}, ""},
      {"closed twice, then drawn",
       [&](Visualizer3& v) { v.closeFile(), v.closeFile(), v.writeSegment(a, b, "c"); }, ""},
      {"segment", [](Visualizer3& v) { v.writeSegment(Point3(1e-7, -2, 3), Point3(123456789, 0.1, -0.0), "1 0 0 1"); },
       "{\nVECT\n1 2 1\n2\n1\n1e-07 -2 3\n1.23457e+08 0.1 -0\n1 0 0 1\n}\n"},
      {"tetrahedron: each facet with the other corners in rising order",
       [&](Visualizer3& v) { v.writeTetrahedron(pTet, "c"); },
       off(B, C, D) + off(A, C, D) + off(A, B, D) + off(A, B, C)},
      {"polygon fans from point 0", [&](Visualizer3& v) { v.writePolygon(vQuad, "c"); }, off(A, B, E) + off(A, E, C)},
      {"polygon of two points", [&](Visualizer3& v) { v.writePolygon(vTwo, "c"); }, ""},
      {"closed black outline",
       [&](Visualizer3& v) {
         v.writePolygon(vTwo, "BOUNDARY"), v.writePolygon(vOne, "BOUNDARY"), v.writePolygon(vNone, "BOUNDARY");
       },
       vect(A, "1 2 3") + vect("1 2 3", A) + vect("4 5 6", "4 5 6")},
      {"box: x low, x high, z low, z high, y low, y high", [&](Visualizer3& v) { v.writeBbox(box, "c"); },
       side(LLL, LLH, LHH, LHL) + side(HLL, HLH, HHH, HHL) + side(LLL, HLL, HHL, LHL) + side(HLH, HHH, LHH, LLH) +
           side(LLL, HLL, HLH, LLH) + side(LHL, HHL, HHH, LHH)},
      {"balls: the radius is the root of the squared radius",
       [&](Visualizer3& v) { v.writeBall(Point3(1, 2, 3), 4.0, false), v.writeBall(a, 0.0, true), v.writeBall(&ball); },
       "{\nSPHERE 2 1 2 3\n}\n{\nappearance { +edge -face }\nSPHERE 0 0 0 0\n}\n{\nSPHERE 2 1 2 3\n}\n"},
      {"ball lists", [&](Visualizer3& v) { v.writeBalls({}, true), v.writeBalls(vBalls, false); },
       "appearance { +edge -face }\nSPHERE 2 1 2 3\nSPHERE 1.5 -1 0 0.5\n"},
      {"points", [&](Visualizer3& v) { v.writePoints(vTri, 5, "c"), v.writePoints(vPtrs, 5, "c"); }, points + points},
      {"one point", [&](Visualizer3& v) { v.writePoint(d, 2, "c"); },
       "LIST\n{\nappearance{linewidth 2}\nVECT\n1 1 1\n1 \n1 \n" + D + "\nc\n}\n"},
      {"triangles, vertices unshared",
       [&](Visualizer3& v) { v.writeTriangles({&t0, &t1}, "c"), v.writeTriangle(&t1, "c"); },
       tris + "6 2 0\n" + A + "\n" + B + "\n" + C + "\n" + B + "\n" + E + "\n" + C + "\n3 0 1 2 c\n3 3 4 5 c\n}\n" +
           tris + "3 1 0\n" + B + "\n" + E + "\n" + C + "\n3 0 1 2 c\n}\n"},
      {"empty triangle list and a bare list",
       [&](Visualizer3& v) { v.writeTriangles({}, "c"), v.startList(7, 2, false), v.endList(); },
       tris + "0 0 0\n}\nLIST\n{\nappearance { -edge }\nOFF\n7 2 0\n}\n"},
  };
  for (const auto& k : cases) {
    std::string said;
    EXPECT_EQ(drawFile("draw", k.draw, &said), "LIST\n{\n" + k.body + "}\n") << k.name;
    EXPECT_EQ(said, "") << k.name;
  }
  std::string said;
  EXPECT_EQ(drawFile("noPoints", [&](Visualizer3& v) { v.writePoints(vNone, 5, "c"); }, &said), "LIST\n{\n}\n");
  EXPECT_EQ(said, captured([] { warning("Visualizer3::writePoints", "vPoints.empty()"); }));
}

TEST(ShapeRecords, NormalsVectorArithmeticBallAndBounds) {
  const std::string warn = "warning: normalize(const Vector3& other), Null length vector!\n";
  Vector3 zero(1, 1, 1), unit(0, 0, 0);
  EXPECT_EQ(captured([&] { zero = normalize(Vector3(0, 0, 0)), unit = normalize(Vector3(3, 0, 4)); }), warn);
  EXPECT_TRUE(zero.x() == 0 && zero.y() == 0 && zero.z() == 0 && unit.x() == 0.6 && unit.y() == 0 && unit.z() == 0.8);
  const Point3 p0(0, 0, 0), p1(1, 1, 1), p2(2, 2, 2);
  // Collinear: only the last normalisation fails; all three when the points coincide.
  EXPECT_EQ(captured([&] { getNormalVector(p0, p1, p2); }), warn);
  EXPECT_EQ(captured([&] { getNormalVector(p0, p0, p0); }), warn + warn + warn);
  // Unequal edge lengths: the normal is of unit length only because the edges are normalised first.
  const Vector3 n = getNormalVector(p0, Point3(4, 0, 0), Point3(0, 0.5, 0));
  EXPECT_TRUE(n.x() == 0 && n.y() == 0 && n.z() == 1);
  EXPECT_EQ(Vector3(1, 1e16, -1e16) * Vector3(1, 1, 1), 0.0); // z + (y + x): y absorbs x before z cancels it
  const Point3 p = Point3(1, 2, 3) + (Point3(5, 5, 5) - Point3(4, 4, 6));
  EXPECT_TRUE(p == Point3(2, 3, 2) && p.getCustomIndex() == -1 && p.getOneTet() == nullptr);
  Bounds bounds;
  Func_objBounds widen(bounds);
  widen(Point3(1, 2, 9));
  widen(Point3(-1, 5, -7));
  EXPECT_EQ(captured([&] { bounds.debug(); }), "Bounds: -1,2,1,5\n");
}
