// Visualizer3.h: writer of Geomview text files (LIST, OFF, VECT, SPHERE).
//
// One object stands for one open file; every drawing call appends at once.
// A file has the frame: "LIST", "{", the objects, "}". Numbers are written in
// the stream's default format (6 significant digits): the file is a picture,
// not a data exchange format. A file that cannot be opened ends the process.
// The colour index behind getNextColor is process-wide and never reset.
#pragma once

#include <atomic>
#include <fstream>
#include <string>
#include <vector>

#include "Point3.h"

namespace VELM3D {

class Tet3;
class Ball3;
class Triangle3;

class Visualizer3 {
public:
  explicit Visualizer3(const std::string& filename);
  ~Visualizer3();
  Visualizer3(const Visualizer3&) = delete;
  Visualizer3& operator=(const Visualizer3&) = delete;

  void openFile(std::string filename);
  void closeFile();
  static std::string getColor(unsigned int i);
  static std::string getNextColor();
  void startList(unsigned long numVertices, unsigned long numFaces, bool bWithEdges);
  void endList();

  void writeBall(Ball3* pBall);
  void writeBall(const Point3& center, double sqRadius, bool bWire);
  void writeBalls(const std::vector<Ball3>& vBalls, bool bWire);
  void writeSegment(const Point3& p0, const Point3& p1, const std::string& color);
  void writePolygon(std::vector<Point3>& vPoints, const std::string& color);
  void writeTetrahedron(Tet3* pTet, const std::string& color);
  void writeBbox(const Bbox3& bbox, const std::string& color);
  void writeTriangle(Triangle3* pTriangle, const std::string& color);
  void writeTriangles(std::vector<Triangle3*> vTriangles, const std::string& color);
  void writePoints(std::vector<Point3>& vPoints, unsigned int linewidth, const std::string& color);
  void writePoints(std::vector<Point3*>& vPoints, unsigned int linewidth, const std::string& color);
  void writePoint(const Point3& p, unsigned int linewidth, const std::string& color);

  static const std::string CLIGHTBLUE, CDARKBLUE, CYELLOW, CPINK, CBLACK, CLIGHTBROWN, CDARKBROWN,
      CORANGE, CPURPLE, CGRAY, CLIGHTGRAY, CRED, CGREEN, CWHITE, CRIMSON, CDARKORANGE, CGOLDENROD,
      COLIVE, CLAWNGREEN, CGREENYELLOW, CPALEGREEN, CMEDSPRINGGREEN, CLIGHTSEAGREAN, CCYAN,
      CSTEELBLUE, MIDNIGHTBLUE, CWHEAT;
  static const std::string colorArray[27];
  static const std::string colorNames[27];
  // Advanced by one atomic step per getNextColor call, from any thread.
  static std::atomic<unsigned int> nextColorIdx;

private:
  std::ofstream outFile;
};

} // namespace VELM3D
