// ThreadedInsertion.h: one thread's share of a threaded bulk insertion.
//
// A round of a threaded level splits the store's curve order into as many
// ranges of vertex ranks as there are threads (Point3::getCurveRank). Thread t
// inserts the points of its range and owns the vertices of its range: it may
// change only a tetrahedron whose four corners it owns. A point whose walk or
// cavity meets a tetrahedron that is not wholly its own is postponed, with
// nothing changed, to the next round, whose range boundaries lie elsewhere on
// the curve; a round that inserts less than half of its points halves the
// thread count for the next, and the few points left at the end go in on
// one thread. In a round on curve ranges a thread whose points are done takes
// the second half of the points another thread has not reached yet, with
// the part of that thread's range they lie in (see shareOut). The rounds
// after the first partition space anew, by the cells of a shifted grid (more
// than two threads) or by a plane across the points left (two): a vertex's
// rank then holds the thread that owns it, for that round only. A point on or beyond
// the hull is inserted by the thread too, when the hull tetrahedra it sees
// and its cavity are its own.
//
// Why no lock is needed: another thread u changes a tetrahedron X only by
// retiring it (all four corners u's) or by linking a neighbour across facet j
// of X (the three corners of facet j u's). So a tetrahedron with at least two
// corners of thread t is changed by t alone. Thread t stands only on
// tetrahedra it owns, and what it reads beyond them, the neighbours of an
// owned tetrahedron and the tetrahedra round one of its edges, has at least
// two of t's corners. The start of a round reads the incident tetrahedron of
// an owned vertex and its neighbours across the facets at that vertex; these
// keep the vertex as a corner, so no other thread changes them. When a
// thread hands part of its range to an idle one, it first narrows its own
// range to the rest and then publishes the handover with a release store that
// the idle thread acquires before it reads anything there; the idle thread's
// old range is nobody's from then on. So the ranges stay disjoint, and what
// one thread wrote there is visible to the next. The hot path has no lock;
// its atomic operations, a relaxed store and an acquire load of the sharing
// state per point, are plain moves on common hardware. Each thread has its
// own records, retired records, facet registry, cavity and labels.
#pragma once

#include <atomic>
#include <vector>

#include "Dt3.h"
#include "RunThreads.h"

namespace VELM3D {

class InsertionThread {
public:
  enum Outcome { INSERTED, POSTPONED };

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
  // Gives the idle thread `taker` the points vMine[k..] and the part of this
  // thread's range from the rank of vMine[k] on (vMine lies in the order of
  // the range), and keeps the rest.
  void shareOut(size_t k, InsertionThread& taker) {
    const unsigned int split = vMine[k]->getCurveRank();
    taker.vMine.assign(vMine.begin() + static_cast<long>(k), vMine.end());
    vMine.resize(k);
    taker.setRange(split, rangeLow + rangeWidth - split);
    rangeWidth = split - rangeLow;
    if (pCur != nullptr && !owns(pCur)) pCur = nullptr;
  }
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

  // The round's input and output; in a round on the second partition (see
  // ThreadedInsertion.cpp) the curve ranks of vMine, which the vertices do
  // not hold then.
  std::vector<Point3*> vMine;
  std::vector<unsigned int> vMineRank;
  std::vector<Point3*> vPostponed;
  // Insertions done in this level; the caller's thread reads it for the
  // progress report while the thread runs.
  std::atomic<unsigned long> numInserted;
  // The sharing of a round's points: the points of vMine not reached yet,
  // for the idle threads' choice; the index of the idle thread that asks for
  // a share, or noAsk, or closed once this thread takes no more asks; and,
  // on the asking thread, whether the answer (its vMine, empty for none, and
  // its range) is in place.
  static constexpr int noAsk = -1, closed = -2;
  std::atomic<size_t> numLeft;
  std::atomic<int> ask;
  std::atomic<bool> bAnswered;

private:
  // The walk's answer besides locateInConflict, locateOnVertex and a hull
  // facet 0..3 of pTet that the point lies beyond or in the plane of: a
  // tetrahedron on the way that is not wholly owned.
  static constexpr int walkPostponed = -4;
  int locate(const Point3* pVtx, Tet3*& pTet, bool bFloorFree) const;
  int onFacetPlane(const Point3* pVtx, Tet3*& pTet, int ith, bool bFloorFree) const;
  Orientation3 orientation(Tet3* pTet, int ith, const Point3* pVtx, bool bFloorFree) const;
  SphereInclusion sphereInclusion(Tet3* pTet, const Point3* pVtx, bool bFloorFree) const;
  // Grows the marked cavity in vCavity over the neighbours in conflict with
  // pVtx; false, with the marks taken back, when it reaches a tetrahedron
  // not wholly owned.
  bool floodCavity(const Point3* pVtx, bool bFloorFree);
  // The hull tetrahedra whose hull facets pVtx sees, from facet ith of pTet
  // (counted as seen: the point may lie in its plane): those in conflict
  // start the cavity, the others go to vStay. False when one of them is not
  // wholly owned.
  bool gatherHull(Tet3* pTet, int ith, const Point3* pVtx, bool bFloorFree);
  // New tetrahedra on the seen facets of vStay and on the boundary facets of
  // the cavity that face pVtx; the cavity retires.
  void insertOnHull(Point3* pVtx, bool bFloorFree);
  void retireCavity();
  Tet3* createTet(Point3* a, Point3* b, Point3* c, Point3* d);
  Tet3* createTet(Tet3* pTet, int ith, Point3* pVtx) {
    const int* fi = Tet3::facetIndices[ith];
    return createTet(pVtx, pTet->getCorner(fi[0]), pTet->getCorner(fi[1]), pTet->getCorner(fi[2]));
  }

  unsigned int rangeLow;
  unsigned int rangeWidth;
  const ExactTest& predicates;
  Tet3* pCur;
  BRIX_TOOLS::SimplePool<Tet3> poolTet;
  std::vector<Tet3*> vDoomed;
  std::vector<Tet3*> vDoomedPrev;
  std::vector<Tet3*> vCavity;
  std::vector<Tet3*> vStack;
  // The cavity's boundary facets as the flood meets them: facet ith of the
  // cavity's pCavTet, and the tetrahedron beyond it (null on the hull).
  struct BoundaryFacet {
    Tet3* pCavTet;
    Tet3* pOppTet;
    int ith;
  };
  std::vector<BoundaryFacet> vBoundary;
  std::vector<Tet3*> vStay;
  std::vector<Edge3> vEdgeStack;
  std::vector<std::pair<Point3*, Point3*>> vEdgesSeen;
  FacetRegistry registry;
  int nextLabel;
  int labelEnd;
};

} // namespace VELM3D
