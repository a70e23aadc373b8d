// ThreadedInsertion.h: one thread's share of a threaded bulk insertion.
//
// A round of a threaded level splits the store's curve order into as many
// ranges of vertex ranks as there are threads (Point3::getCurveRank). Thread t
// inserts the points of its range and owns the vertices of its range: it may
// change only a tetrahedron whose four corners it owns. A point whose walk or
// cavity meets a tetrahedron that is not wholly its own is postponed, with
// nothing changed, to the next round, whose ranges are shifted by half a
// range; a point whose walk reaches the hull is left to the one-thread pass
// that ends the level.
//
// Why no lock is needed: another thread u changes a tetrahedron X only by
// retiring it (all four corners u's) or by linking a neighbour across facet j
// of X (the three corners of facet j u's). So a tetrahedron with at least two
// corners of thread t is changed by t alone. Thread t stands only on
// tetrahedra it owns, and what it reads beyond them, the neighbours of an
// owned tetrahedron and the tetrahedra round one of its edges, has at least
// two of t's corners. The start of a round reads the corners of the incident
// tetrahedron of an owned vertex; these never change while the vertex is a
// corner. The hot path has no lock and no atomic operation; each thread has
// its own records, retired records, facet registry, cavity and labels.
#pragma once

#include <atomic>
#include <vector>

#include "Dt3.h"

namespace VELM3D {

class InsertionThread {
public:
  enum Outcome { INSERTED, POSTPONED, HULL };

  explicit InsertionThread(const ExactTest& predicates);
  InsertionThread(const InsertionThread&) = delete;
  InsertionThread& operator=(const InsertionThread&) = delete;

  // The ranks r with (r - lo) mod 2^32 < width are this thread's in the
  // round to come; the last range wraps round the end of the curve.
  void setRange(unsigned int lo, unsigned int width) {
    rangeLow = lo;
    rangeWidth = width;
  }
  bool owns(const Point3* p) const { return p->getCurveRank() - rangeLow < rangeWidth; }
  bool owns(const Tet3* pTet) const {
    return owns(pTet->getCorner(0)) && owns(pTet->getCorner(1)) && owns(pTet->getCorner(2)) &&
           owns(pTet->getCorner(3));
  }
  // Finds an owned live tetrahedron to start from: the incident tetrahedron
  // of an owned mesh vertex near rank in vCurve (the ranked curve order).
  // False when none is near.
  bool findStart(const std::vector<Point3*>& vCurve, unsigned int rank);
  // Inserts pVtx (an owned vertex) if the work stays on owned tetrahedra;
  // pVtx becomes the mesh vertex when a corner has its coordinates.
  Outcome insert(Point3*& pVtx, bool bFloorFree);

  const BRIX_TOOLS::SimplePool<Tet3>& getPool() const { return poolTet; }
  // A live tetrahedron of this thread after its last insertion, or null.
  Tet3* getCurrent() const { return pCur; }

  // The round's input and output.
  std::vector<Point3*> vMine;
  std::vector<Point3*> vPostponed;
  std::vector<Point3*> vHull;
  // Insertions done in this level; the caller's thread reads it for the
  // progress report while the thread runs.
  std::atomic<unsigned long> numInserted;

private:
  // The walk's answers besides locateInConflict and locateOnVertex.
  static constexpr int walkPostponed = -4;
  static constexpr int walkHull = -5;
  int locate(const Point3* pVtx, Tet3*& pTet, bool bFloorFree) const;
  int onFacetPlane(const Point3* pVtx, Tet3* pTet, int ith, bool bFloorFree) const;
  Orientation3 orientation(Tet3* pTet, int ith, const Point3* pVtx, bool bFloorFree) const;
  // Gathers the cavity of pVtx from pTet into vCavity, marked; false, with
  // the marks taken back, when it reaches a tetrahedron not wholly owned.
  bool gatherCavity(Tet3* pTet, const Point3* pVtx, bool bFloorFree);
  Tet3* createTet(Tet3* pTet, int ith, Point3* pVtx);

  unsigned int rangeLow;
  unsigned int rangeWidth;
  const ExactTest& predicates;
  Tet3* pCur;
  BRIX_TOOLS::SimplePool<Tet3> poolTet;
  std::vector<Tet3*> vDoomed;
  std::vector<Tet3*> vDoomedPrev;
  std::vector<Tet3*> vCavity;
  FacetRegistry registry;
  int nextLabel;
  int labelEnd;
};

} // namespace VELM3D
