// Surface3.h: a triangle surface beside a triangulation, and its element.
//
// A Surface3 is made only by Dt3::createEmptySurface and owned by that Dt3.
// It owns its triangles (block pool) but not its vertices. Vertex identity is
// pointer identity: coordinates play no part in connecting triangles.
// aOppTriangles[i] is the neighbour across the edge opposite corner i, that
// is the edge of corners (i+1)%3 and (i+2)%3; null means none is known.
#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "Point3.h"
#include "SimplePool.h"

namespace VELM3D {

class Dt3;
class Velm_3D;

class Triangle3 {
public:
  int getIntraTriangleIndex(Point3* p) const;
  int getIntraTriangleIndex(Point3* p1, Point3* p2) const;

  Point3* aCorners[3];
  Triangle3* aOppTriangles[3];
};

std::ostream& operator<<(std::ostream& stream, const Triangle3& t);

class Surface3 {
public:
  explicit Surface3(Dt3* pDt);
  ~Surface3();
  Surface3(const Surface3&) = delete;
  Surface3& operator=(const Surface3&) = delete;

  Point3* createVertex(double x, double y, double z);
  Triangle3* createTriangle(Point3* p0, Point3* p1, Point3* p2);
  void getVertices(std::vector<Point3*>& vOut) const;
  void getTriangles(std::vector<Triangle3*>& vOut) const;
  bool readSTL(const std::string& filename, bool bVerbose);
  void getIncidentVertices(Point3* pVtx, std::vector<Point3*>& vOut) const;
  void getIncidentTriangles(Point3* pVtx, std::vector<Triangle3*>& vOut) const;
  bool establishNeighborships();
  Velm_3D* getVelm3D();
  void writeGeomview(const std::string& filename, const std::string& color);

private:
  std::map<Point3*, Triangle3*> mVtxToTriangle;
  BRIX_TOOLS::SimplePool<Triangle3>* pTrianglePool;
  std::vector<Point3*> vVertices;
  std::vector<Triangle3*> vTriangles;
  Dt3* pDt;
};

// Removes leading blanks, trailing blanks, leading tabs, trailing tabs, in
// four passes in this order.
void trim(std::string& s);

} // namespace VELM3D
