// Geomview files are the contract of Visualizer3: every test compares a whole
// file byte for byte. Also the small shape records of Vector3.h.
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
  const std::string opening =
      "Visualizer, writing " + path + "\n" + yellowString("  Writing " + path) + "\n";
  EXPECT_EQ(said.substr(0, opening.size()), opening);
  if (pSaid != nullptr) *pSaid = said.substr(opening.size());
  const std::string text = support::readFile(path);
  std::remove(path.c_str());
  return text;
}

std::string frame(const std::string& body) { return "LIST\n{\n" + body + "}\n"; }

std::string offTriangle(const std::string& a, const std::string& b, const std::string& c,
                        const std::string& color) {
  return "{\nOFF\n3 1 0\n" + a + "\n" + b + "\n" + c + "\n3 0 1 2 " + color + "\n}\n";
}

std::string vectSegment(const std::string& a, const std::string& b) {
  return "{\nVECT\n1 2 1\n2\n1\n" + a + "\n" + b + "\n0 0 0 1\n}\n";
}

} // namespace

TEST(VisualizerFile, EmptyVisualizerWritesBareFrameAndAnnouncesPath) {
  std::string said = "unset";
  EXPECT_EQ(drawFile("empty", [](Visualizer3&) {}, &said), "LIST\n{\n}\n");
  EXPECT_EQ(said, "");
}

TEST(VisualizerFile, CloseThenDestroyWritesClosingBraceOnceAndLaterDrawingNothing) {
  EXPECT_EQ(drawFile("close",
                     [](Visualizer3& v) {
                       v.closeFile();
                       v.closeFile();
                       v.writeSegment(Point3(0, 0, 0), Point3(1, 1, 1), "1 0 0 1");
                     }),
            "LIST\n{\n}\n");
}

TEST(VisualizerFile, UnwritablePathEndsProcessWithStatusOne) {
  const std::string path = "/nonexistent_velm_dir/sub/x.list";
  EXPECT_FATAL(Visualizer3 vis(path), "/nonexistent_velm_dir/sub/x.list not open\n");
}

TEST(VisualizerColors, GetColorReachesOnlyFirstFourteenEntries) {
  EXPECT_EQ(captured([] { EXPECT_EQ(Visualizer3::getColor(13), "1 1 1 0.5"); }), "");
  EXPECT_EQ(captured([] { EXPECT_EQ(Visualizer3::getColor(14), "1 1 1 0.5"); }),
            "Attention, returning colorArray[13] which is the last available color\n");
  EXPECT_EQ(Visualizer3::colorArray[18], "0.49\t0.99 0.00 0.5");
  EXPECT_EQ(Visualizer3::CPALEGREEN, "0.60\t0.98 0.60 0.5");
  EXPECT_EQ(Visualizer3::colorArray[25], Visualizer3::MIDNIGHTBLUE);
  EXPECT_EQ(Visualizer3::colorNames[0], "LIGHTBLUE");
  EXPECT_EQ(Visualizer3::colorNames[14], "CRIMSON");
  EXPECT_EQ(Visualizer3::colorNames[22], "CLIGHTSEAGREAN");
}

namespace {

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

TEST(VisualizerColors, NextColorCyclesFourteenEntriesAcrossFilesInFreshProcess) {
  EXPECT_IN_FRESH_PROCESS(nextColorCyclesFromZero());
}

TEST(VisualizerDraw, TetrahedronGivesFourFacesWithOtherCornersInRisingOrder) {
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(28, -1);
  Point3 a(0, 0, 0), b(1, 0, 0), c(0, 1, 0), d(0.5, 0.25, 1.23456789);
  Tet3* pTet = pool.nextObject();
  pTet->setProperties(&a, &b, &c, &d);
  const std::string col = Visualizer3::CRED;
  const std::string A = "0 0 0", B = "1 0 0", C = "0 1 0", D = "0.5 0.25 1.23457";
  EXPECT_EQ(drawFile("tet", [&](Visualizer3& v) { v.writeTetrahedron(pTet, col); }),
            frame(offTriangle(B, C, D, col) + offTriangle(A, C, D, col) +
                  offTriangle(A, B, D, col) + offTriangle(A, B, C, col)));
}

TEST(VisualizerDraw, SegmentIsOneVectObject) {
  EXPECT_EQ(drawFile("seg",
                     [](Visualizer3& v) {
                       v.writeSegment(Point3(1e-7, -2, 3), Point3(123456789, 0.1, -0.0), "1 0 0 1");
                     }),
            frame("{\nVECT\n1 2 1\n2\n1\n1e-07 -2 3\n1.23457e+08 0.1 -0\n1 0 0 1\n}\n"));
}

TEST(VisualizerDraw, PolygonFansFromPointZeroOrDrawsClosedBlackOutline) {
  std::vector<Point3> vQuad{Point3(0, 0, 0), Point3(1, 0, 0), Point3(1, 1, 0), Point3(0, 1, 0)};
  EXPECT_EQ(drawFile("fan", [&](Visualizer3& v) { v.writePolygon(vQuad, "c"); }),
            frame(offTriangle("0 0 0", "1 0 0", "1 1 0", "c") +
                  offTriangle("0 0 0", "1 1 0", "0 1 0", "c")));
  std::vector<Point3> vTwo{Point3(0, 0, 0), Point3(1, 2, 3)};
  std::vector<Point3> vOne{Point3(4, 5, 6)};
  std::vector<Point3> vNone;
  EXPECT_EQ(drawFile("fan2", [&](Visualizer3& v) { v.writePolygon(vTwo, "c"); }), frame(""));
  EXPECT_EQ(drawFile("outline2", [&](Visualizer3& v) { v.writePolygon(vTwo, "BOUNDARY"); }),
            frame(vectSegment("0 0 0", "1 2 3") + vectSegment("1 2 3", "0 0 0")));
  EXPECT_EQ(drawFile("outline1", [&](Visualizer3& v) { v.writePolygon(vOne, "BOUNDARY"); }),
            frame(vectSegment("4 5 6", "4 5 6")));
  EXPECT_EQ(drawFile("outline0", [&](Visualizer3& v) { v.writePolygon(vNone, "BOUNDARY"); }),
            frame(""));
}

TEST(VisualizerDraw, BboxSidesInFixedOrderXLowXHighZLowZHighYLowYHigh) {
  Bbox3 box;
  box.add(Point3(0, 0, 0));
  box.add(Point3(1, 2, 3));
  const std::string LLL = "0 0 0", LLH = "0 0 3", LHL = "0 2 0", LHH = "0 2 3";
  const std::string HLL = "1 0 0", HLH = "1 0 3", HHL = "1 2 0", HHH = "1 2 3";
  auto side = [](const std::string& p, const std::string& q, const std::string& r,
                 const std::string& s) { return offTriangle(p, q, r, "c") + offTriangle(p, r, s, "c"); };
  EXPECT_EQ(drawFile("box", [&](Visualizer3& v) { v.writeBbox(box, "c"); }),
            frame(side(LLL, LLH, LHH, LHL) + side(HLL, HLH, HHH, HHL) + side(LLL, HLL, HHL, LHL) +
                  side(HLH, HHH, LHH, LLH) + side(LLL, HLL, HLH, LLH) + side(LHL, HHL, HHH, LHH)));
  // The outline mode draws four segments per side, 24 in all.
  const std::string outline = drawFile("boxline", [&](Visualizer3& v) { v.writeBbox(box, "BOUNDARY"); });
  size_t numVect = 0;
  for (size_t pos = outline.find("VECT"); pos != std::string::npos; pos = outline.find("VECT", pos + 1))
    ++numVect;
  EXPECT_EQ(numVect, 24u);
}

TEST(VisualizerDraw, BallsAreSpheresWithRadiusFromSquaredRadius) {
  Ball3 ball(1, 2, 3, 4.0);
  EXPECT_EQ(drawFile("balls",
                     [&](Visualizer3& v) {
                       v.writeBall(Point3(1, 2, 3), 4.0, false);
                       v.writeBall(Point3(0, 0, 0), 0.0, true);
                       v.writeBall(&ball);
                     }),
            frame("{\nSPHERE 2 1 2 3\n}\n{\nappearance { +edge -face }\nSPHERE 0 0 0 0\n}\n"
                  "{\nSPHERE 2 1 2 3\n}\n"));
  const std::vector<Ball3> vNone, vTwo{ball, Ball3(-1, 0, 0.5, 2.25)};
  EXPECT_EQ(drawFile("ballsEmpty", [&](Visualizer3& v) { v.writeBalls(vNone, true); }),
            frame("appearance { +edge -face }\n"));
  EXPECT_EQ(drawFile("ballsTwo", [&](Visualizer3& v) { v.writeBalls(vTwo, false); }),
            frame("SPHERE 2 1 2 3\nSPHERE 1.5 -1 0 0.5\n"));
}

TEST(VisualizerDraw, PointsAreOneVectOfSingleVertexPolylines) {
  Point3 p0(1, 0, 0), p1(0, 1, 0), p2(0, 0, 1);
  std::vector<Point3> vPts{p0, p1, p2};
  std::vector<Point3*> vPtrs{&p0, &p1, &p2};
  const std::string three = "LIST\n{\nappearance{linewidth 5}\nVECT\n3 3 1\n1 1 1 \n1 0 0 \n"
                            "1 0 0\n0 1 0\n0 0 1\nc\n}\n";
  EXPECT_EQ(drawFile("pts", [&](Visualizer3& v) { v.writePoints(vPts, 5, "c"); }), frame(three));
  EXPECT_EQ(drawFile("ptrs", [&](Visualizer3& v) { v.writePoints(vPtrs, 5, "c"); }), frame(three));
  EXPECT_EQ(drawFile("pt", [&](Visualizer3& v) { v.writePoint(p2, 2, "c"); }),
            frame("LIST\n{\nappearance{linewidth 2}\nVECT\n1 1 1\n1 \n1 \n0 0 1\nc\n}\n"));
  std::vector<Point3> vNone;
  std::string said;
  EXPECT_EQ(drawFile("ptsEmpty", [&](Visualizer3& v) { v.writePoints(vNone, 5, "c"); }, &said),
            frame(""));
  EXPECT_EQ(said, captured([] { warning("Visualizer3::writePoints", "vPoints.empty()"); }));
}

TEST(VisualizerDraw, TrianglesAreOneOffListWithUnsharedVertices) {
  Point3 a(0, 0, 0), b(1, 0, 0), c(0, 1, 0), d(1, 1, 0);
  Triangle3 t0{{&a, &b, &c}, {nullptr, nullptr, nullptr}};
  Triangle3 t1{{&b, &d, &c}, {nullptr, nullptr, nullptr}};
  const std::string col = Visualizer3::CGREEN;
  EXPECT_EQ(drawFile("tris", [&](Visualizer3& v) { v.writeTriangles({&t0, &t1}, col); }),
            frame("LIST\n{\nappearance { +edge }\nOFF\n6 2 0\n0 0 0\n1 0 0\n0 1 0\n"
                  "1 0 0\n1 1 0\n0 1 0\n3 0 1 2 " + col + "\n3 3 4 5 " + col + "\n}\n"));
  EXPECT_EQ(drawFile("tri", [&](Visualizer3& v) { v.writeTriangle(&t1, col); }),
            frame("LIST\n{\nappearance { +edge }\nOFF\n3 1 0\n1 0 0\n1 1 0\n0 1 0\n3 0 1 2 " +
                  col + "\n}\n"));
  EXPECT_EQ(drawFile("trisEmpty", [&](Visualizer3& v) { v.writeTriangles({}, col); }),
            frame("LIST\n{\nappearance { +edge }\nOFF\n0 0 0\n}\n"));
  EXPECT_EQ(drawFile("list", [&](Visualizer3& v) { v.startList(7, 2, false); v.endList(); }),
            frame("LIST\n{\nappearance { -edge }\nOFF\n7 2 0\n}\n"));
}

TEST(ShapeRecords, NormalizeWarnsOnNullLengthAndNormalVectorNormalizesEdgesFirst) {
  const std::string warn = "warning: normalize(const Vector3& other), Null length vector!\n";
  Vector3 zero(1, 1, 1), unit(0, 0, 0);
  EXPECT_EQ(captured([&] { zero = normalize(Vector3(0, 0, 0)), unit = normalize(Vector3(3, 0, 4)); }), warn);
  EXPECT_TRUE(zero.x() == 0 && zero.y() == 0 && zero.z() == 0);
  EXPECT_TRUE(unit.x() == 0.6 && unit.y() == 0 && unit.z() == 0.8);
  const Point3 p0(0, 0, 0), p1(1, 1, 1), p2(2, 2, 2);
  // Collinear, only the last normalisation fails; then both edges and the cross product are null.
  EXPECT_EQ(captured([&] { getNormalVector(p0, p1, p2); }), warn);
  EXPECT_EQ(captured([&] { getNormalVector(p0, p0, p0); }), warn + warn + warn);
  // Unequal edge lengths: the normal is unit length only because edges are normalised.
  const Vector3 n = getNormalVector(p0, Point3(4, 0, 0), Point3(0, 0.5, 0));
  EXPECT_TRUE(n.x() == 0 && n.y() == 0 && n.z() == 1);
}

TEST(ShapeRecords, VectorArithmeticBallAndBounds) {
  // z + (y + x): the large y absorbs x before z cancels it.
  EXPECT_EQ(Vector3(1, 1e16, -1e16) * Vector3(1, 1, 1), 0.0);
  const Point3 p = Point3(1, 2, 3) + (Point3(5, 5, 5) - Point3(4, 4, 6));
  EXPECT_TRUE(p == Point3(2, 3, 2));
  EXPECT_EQ(p.getCustomIndex(), -1);
  EXPECT_EQ(p.getOneTet(), nullptr);
  const Ball3 ball(1, 2, 3, 4.0);
  EXPECT_EQ(ball.getRadius(), 2.0);
  EXPECT_EQ(ball.getSqRadius(), 4.0);
  Bounds bounds;
  Func_objBounds widen(bounds);
  widen(Point3(1, 2, 9));
  widen(Point3(-1, 5, -7));
  EXPECT_EQ(captured([&] { bounds.debug(); }), "Bounds: -1,2,1,5\n");
}
