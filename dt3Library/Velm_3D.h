// Velm_3D.h: the public face of libvelm3d, a 3D Delaunay triangulation with
// exact adaptive-precision predicates.
//
// Including this header gives every exported class and function. A caller
// makes one Velm_3D, inserts points singly or as a vector, and reads vertices
// and tetrahedra back as raw pointers that the library owns:
//  - a Point3* handle stays valid as long as the Velm_3D;
//  - a Tet3* (or a vector of them) stays valid only until the next insertion,
//    since insertion retires tetrahedra and reuses their records.
// The caller never frees a handle. A Velm_3D is used from one thread at a
// time; a few counters and the console are shared by the whole process.
#pragma once

#include <string>
#include <vector>

#include "BrixTest3.h"
#include "Dt3.h"
#include "HC3.h"
#include "Point3.h"
#include "SimplePool.h"
#include "Surface3.h"
#include "Tet3.h"
#include "Vector3.h"
#include "Visualizer3.h"
#include "freeFunctions.h"
#include "testDataGenerators.h"

namespace VELM3D {

std::string getVelm3DVersion();
int getMajorVersionNumber();
int getMinorVersionNumber();
int getRevisionNumber();
bool isRelease();

class Velm_3D {
public:
  Velm_3D() : pDt3(nullptr) { initVelm(); }
  ~Velm_3D();
  Velm_3D(const Velm_3D&) = delete;
  Velm_3D& operator=(const Velm_3D&) = delete;

  void initVelm();
  void setVerbosity(bool bVerbose);

  // Stores p (once per distinct position) and triangulates it if the mesh is
  // full dimensional. Returns the stored vertex, not &p.
  Point3* insert(Point3& p);
  void insert(std::vector<Point3>& vInput);
  // As above; vUserHandles comes back with the stored vertex of each input
  // point at the input point's position.
  void insert(std::vector<Point3>& vInput, std::vector<Point3*>& vUserHandles);

  // Stores the numRows points of the row-major array pXyz (x, y, z per row)
  // and triangulates every stored vertex that is not yet in the mesh, also
  // those an earlier call left waiting; vUserHandles comes back with the
  // stored vertex of each row. Prints nothing.
  void insertRows(const double* pXyz, size_t numRows, std::vector<Point3*>& vUserHandles);
  // Progress and interruption of a bulk insertion (see Dt3::ProgressCallback).
  void setProgressCallback(Dt3::ProgressCallback f, void* pUser);
  // The number of threads of the bulk insertions insert(vector) and
  // insertRows: n >= 1, or 0 for every hardware thread. The default 1 runs
  // on the caller's thread alone. A negative n is an assertion report and
  // changes nothing.
  void setNumThreads(int n);
  int getNumThreads() const;

  void getVertices(std::vector<Point3*>& vVtx) const;
  void getTetrahedra(std::vector<Tet3*>& vTet) const;
  // The same tetrahedra in the order of their records in memory, by a scan
  // on setNumThreads threads instead of a walk: for a large mesh several
  // times faster. Insertions on one thread take their records in an order
  // that their points decide: two meshes made by the same calls on the same
  // points list their tetrahedra alike (but for the first bulk insertion of
  // a process, whose box gets a smaller margin). On several threads the
  // order depends on the timing of the threads.
  void getTetrahedraInRecordOrder(std::vector<Tet3*>& vTet) const;
  void getTetsAroundVertex(Point3* pVtx, std::vector<Tet3*>& vTet);
  bool is3D() const;
  Tet3* locate(const Point3& p);
  // A tetrahedron whose closed set holds p: a point on the hull counts as
  // inside; null outside the hull. pHint: a live tetrahedron near p, such as
  // the answer for the previous point of a batch ordered along a curve.
  Tet3* findTetContaining(const Point3& p, Tet3* pHint = nullptr);
  // The same for each row x, y, z of pXyz, into vTets[row]; null outside the
  // hull and for a NaN or infinite coordinate. The rows are located in the
  // order of the vertex store's curve, so a large batch walks little.
  void findTetsContaining(const double* pXyz, size_t numRows, std::vector<Tet3*>& vTets);

  bool checkValidity(const std::string& where, bool bCheckSphereInc);
  // The same exact tests without a word on the console or a file: the first
  // fault, or kind NONE. bComplete adds the corners' order, the shared
  // facets and that every stored vertex is in the mesh (see Dt3::findFault).
  MeshFault findFault(bool bComplete) const;
  void print(const std::string& name);
  void show(const std::string& name, Point3* pVtx);

private:
  Dt3* pDt3;
};

} // namespace VELM3D
