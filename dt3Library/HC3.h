// HC3.h: the vertex store. It owns every vertex of a triangulation.
//
// Each distinct position is stored once, as a Point3 of the store's own pool,
// and that record's address is the vertex identity for the whole mesh. The
// vertices are kept in the order of a 3D Hilbert curve laid over the store's
// bounding box, so that points close in space are close in insertion order
// and a start tetrahedron for a query is found by a step along the curve.
//
// Keys: 3 bits per curve level, built by repeated halving of the offsets in
// the box in double arithmetic (no integer grid). All three octant tests of a
// level compare against half the x extent; that is the store's defined key
// function, and the insertion order rests on it.
//
// Invariants between calls: vSorted and sRecent together hold one IdxVtx per
// stored vertex, each ordered by (key, coordinates); every key was computed
// in the frame of the last reconfig; a stored vertex never moves and is never
// removed.
#pragma once

#include <atomic>
#include <set>
#include <utility>
#include <vector>

#include "Point3.h"
#include "SimplePool.h"

namespace VELM3D {

class Tet3;

// An entry of the curve order: the key and the stored vertex.
struct IdxVtx {
  unsigned int idx;
  Point3* pVtx;
};

// Order of the store: by key; within a key a null vertex first (the form of
// a query), then by coordinates. Equal key and equal coordinates are the
// definition of a duplicate.
struct Func_ltIdxVtx {
  bool operator()(const IdxVtx& a, const IdxVtx& b) const {
    if (a.idx != b.idx) return a.idx < b.idx;
    if (a.pVtx == nullptr) return b.pVtx != nullptr;
    return b.pVtx != nullptr && *a.pVtx < *b.pVtx;
  }
};

extern double sumDist;

class HC3 {
public:
  explicit HC3(unsigned int numBits);
  HC3(const HC3&) = delete;
  HC3& operator=(const HC3&) = delete;

  unsigned int iReset(const Point3& p);
  // The key iReset gives p, without writing level: for several threads at
  // once.
  unsigned int keyOf(const Point3& p) const;
  // The threads of the bulk intake's steps (the keys, the repeats within a
  // key, the vertex records).
  void setNumThreads(int n) { numThreads = n; }
  void reconfig();
  void addPoints(std::vector<Point3>& vPoints, std::vector<Point3*>& vUserHandles,
                 std::vector<Point3*>& vNewVertices);
  // addPoints for the numRows points of the row-major array pXyz (x, y, z
  // per row), read in place.
  void addRows(const double* pXyz, size_t numRows, std::vector<Point3*>& vUserHandles,
               std::vector<Point3*>& vNewVertices);
  std::pair<Point3*, Tet3*> addPoint(Point3& p);
  void getVertices(std::vector<Point3*>& v) const;
  unsigned long getNumStoredVtx() const { return vSorted.size() + sRecent.size(); }
  // The box of the curve: it holds every stored vertex.
  const Bbox3& getBox() const { return bbox; }
  void checkQ();

  Tet3* getCloseTet(Point3* pQuery);
  Tet3* getCloseTet(Point3& query) { return getCloseTet(&query); }

  static const int addVls[8][12];
  static const int nextS[8][12];

private:
  // Moves the entries of sRecent into vSorted.
  void mergeRecent();
  template <class It> void mergeIntoSorted(It first, It last);
  // The stored entry equal to q (same key, same coordinates), or null.
  const IdxVtx* find(const IdxVtx& q) const;

  void enlarge(double factor, double secondFactor);
  void widenBoxFor(const std::vector<Point3>& vPoints);
  void widenBoxFor(const double* pXyz, size_t numRows);
  // Steps 2 and 3 of a bulk insertion, for a vector of points or rows.
  template <class Points>
  void addBatch(const Points& vPoints, std::vector<Point3*>& vUserHandles, std::vector<Point3*>& vNewVertices);

  Bbox3 bbox;
  [[maybe_unused]] double spareExtent;
  unsigned long level;
  unsigned int numBits;
  const double* pMinX;
  const double* pMinY;
  const double* pMinZ;
  const double* pMaxX;
  const double* pMaxY;
  const double* pMaxZ;
  double lenX, lenY, lenZ;
  bool bConfigured;
  BRIX_TOOLS::SimplePool<Point3> pointPool;
  // The curve order is vSorted and sRecent together, each ordered by
  // Func_ltIdxVtx: a flat array filled by the bulk insertion (no node per
  // vertex, no pointer chase), and a small ordered set that takes single
  // insertions until it grows past an eighth of the array and is merged in.
  std::vector<IdxVtx> vSorted;
  std::set<IdxVtx, Func_ltIdxVtx> sRecent;

  // Set by the first bulk insertion of the process, on any object and thread.
  static std::atomic<bool> bFirstEnlarge;
  int numThreads = 1;
};

} // namespace VELM3D
