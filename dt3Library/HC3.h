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
// Invariants between calls: sVertices holds one IdxVtx per stored vertex,
// ordered by (key, coordinates); every key was computed in the frame of the
// last reconfig; a stored vertex never moves and is never removed.
#pragma once

#include <cstdlib>
#include <new>
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
struct Func_ltIdxVtxPtr {
  bool operator()(const IdxVtx* a, const IdxVtx* b) const {
    if (a->idx != b->idx) return a->idx < b->idx;
    if (a->pVtx == nullptr) return b->pVtx != nullptr;
    return b->pVtx != nullptr && *a->pVtx < *b->pVtx;
  }
};

extern double sumDist;

// Hands out the nodes of the store's ordered set from large blocks instead of
// one heap allocation each, and keeps returned nodes for reuse (reconfig
// empties and refills the set). All nodes of one set have one size.
class SetNodeArena {
public:
  SetNodeArena() : pFree(nullptr), pCur(nullptr), numLeft(0), nodeSize(0) {}
  ~SetNodeArena() {
    for (void* pBlock : vBlocks) free(pBlock);
  }
  SetNodeArena(const SetNodeArena&) = delete;
  SetNodeArena& operator=(const SetNodeArena&) = delete;

  void* allocate(size_t bytes) {
    if (pFree != nullptr) {
      void* p = pFree;
      pFree = *static_cast<void**>(p);
      return p;
    }
    if (numLeft == 0) {
      nodeSize = bytes < sizeof(void*) ? sizeof(void*) : bytes;
      const size_t numNodes = vBlocks.empty() ? 256 : 65536;
      pCur = static_cast<char*>(malloc(numNodes * nodeSize));
      if (pCur == nullptr) throw std::bad_alloc();
      vBlocks.push_back(pCur);
      numLeft = numNodes;
    }
    void* p = pCur;
    pCur += nodeSize;
    --numLeft;
    return p;
  }
  void deallocate(void* p) {
    *static_cast<void**>(p) = pFree;
    pFree = p;
  }

private:
  std::vector<void*> vBlocks;
  void* pFree;
  char* pCur;
  size_t numLeft;
  size_t nodeSize;
};

template <class T> class SetNodeAllocator {
public:
  typedef T value_type;
  explicit SetNodeAllocator(SetNodeArena* pArena_) : pArena(pArena_) {}
  template <class U> SetNodeAllocator(const SetNodeAllocator<U>& other) : pArena(other.pArena) {}
  T* allocate(size_t n) {
    if (n != 1) return static_cast<T*>(::operator new(n * sizeof(T)));
    return static_cast<T*>(pArena->allocate(sizeof(T)));
  }
  void deallocate(T* p, size_t n) {
    if (n != 1)
      ::operator delete(p);
    else
      pArena->deallocate(p);
  }
  template <class U> bool operator==(const SetNodeAllocator<U>& other) const { return pArena == other.pArena; }
  template <class U> bool operator!=(const SetNodeAllocator<U>& other) const { return pArena != other.pArena; }

  SetNodeArena* pArena;
};

class HC3 {
public:
  explicit HC3(unsigned int numBits);
  HC3(const HC3&) = delete;
  HC3& operator=(const HC3&) = delete;

  unsigned int iReset(const Point3& p);
  void reconfig();
  void addPoints(std::vector<Point3>& vPoints, std::vector<Point3*>& vUserHandles,
                 std::vector<Point3*>& vNewVertices);
  std::pair<Point3*, Tet3*> addPoint(Point3& p);
  void getVertices(std::vector<Point3*>& v) const;
  unsigned long getNumStoredVtx() const { return sVertices.size(); }
  void checkQ();

  Tet3* getCloseTet(Point3* pQuery);
  Tet3* getCloseTet(Point3& query) { return getCloseTet(&query); }

  // Inspection of the curve frame, for tests.
  const Bbox3& getBbox() const { return bbox; }

  static const int addVls[8][12];
  static const int nextS[8][12];

private:
  typedef std::set<IdxVtx*, Func_ltIdxVtxPtr, SetNodeAllocator<IdxVtx*>> VertexSet;

  void enlarge(double factor, double secondFactor);

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
  BRIX_TOOLS::SimplePool<IdxVtx> idxVtxPool;
  std::vector<void*> vSpare;
  SetNodeArena setNodeArena;
  VertexSet sVertices;

  static bool bFirstEnlarge;
};

} // namespace VELM3D
