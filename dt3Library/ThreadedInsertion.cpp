// ThreadedInsertion.cpp: a level of the bulk insertion on several threads,
// and the point location of a batch on several threads (at the end).
// The scheme and why it needs no lock are in ThreadedInsertion.h. The one-thread
// road (Dt3::insertVertex) is not used by the threads; the walk and the
// cavity here are its counterparts with ownership tests, and the cavity is
// gathered whole before anything changes, so that a postponed point leaves
// the mesh as it was.
#include "ThreadedInsertion.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "BrixTest3Inline.h"

namespace VELM3D {

namespace {

// The facet after i, cyclically: the walk tests facets in this order.
const int nextFacet[4] = {1, 2, 3, 0};

// The rounds of a level stop when fewer than this many points per thread
// are left, after maxRounds rounds, or when a round of two threads inserts
// less than a tenth of its points; one thread inserts what is left.
constexpr size_t minPointsPerThread = 256;
constexpr int maxRounds = 10;
// The rounds also end when the points left are fewer than a restShare-th of
// one thread's share of the level: they lie in clumps where the ranges met,
// each point's cavity reaches its unfilled neighbours, and a round of threads
// inserts few of them, while one thread takes them in a small part of the
// level's time.
constexpr size_t restShare = 25;
// A round on the shifted grid or the plane rewrites the rank of every
// stored vertex twice; it is for a level of at least a regridShare-th of
// the store.
constexpr size_t regridShare = 32;

// An idle thread takes a share of another's points only if that one has at
// least twice this many left: a share starts with a walk to it and adds a
// boundary where points are postponed.
constexpr size_t minShare = 256;

// A batch location runs on no more threads than give each this many rows.
constexpr size_t minRowsPerThread = 4096;

// The boundaries of a round's numT ranges, as fractions of the curve:
// (t + phase) / numT for the first phase of 0, 1/2, 1/4, 3/4, 1/8, ... that
// puts none of them where an earlier round of the level had one (vUsed, to
// which they are added). Dyadic fractions of the curve are the faces of its
// cells, so that the ranges stay compact; a boundary used before would meet
// the points postponed there again.
std::vector<double> roundBoundaries(size_t numT, std::vector<double>& vUsed) {
  std::vector<double> vBounds(numT);
  for (int denominator = 1; denominator <= 64; denominator *= 2) {
    for (int numerator = (denominator == 1 ? 0 : 1); numerator < denominator; numerator += 2) {
      const double phase = static_cast<double>(numerator) / denominator;
      bool bFree = true;
      for (size_t t = 0; t < numT && bFree; ++t) {
        vBounds[t] = (static_cast<double>(t) + phase) / static_cast<double>(numT);
        for (double used : vUsed) bFree = bFree && std::fabs(used - vBounds[t]) > 1e-9;
      }
      if (bFree) {
        vUsed.insert(vUsed.end(), vBounds.begin(), vBounds.end());
        return vBounds;
      }
    }
  }
  return vBounds;
}

// The second partition of space, for the rounds after the first: cells of
// a grid over the box of the curve, shifted by half of one of the curve's
// cells that hold a thread's range, in the order of a Hilbert curve through
// them (J. Skilling's transposition, "Programming the Hilbert curve", 2004).
// With more than two ranges, a range's region meets regions of ranges that
// are not next to it on the curve, and moving the boundaries along the
// curve leaves those faces where they were; the points postponed on them
// lie inside the cells of this grid.
class ShiftedGrid {
public:
  static constexpr int bits = 6; // cells a side: 2^bits over twice the box
  static constexpr unsigned int numCells = 1u << (3 * bits);

  ShiftedGrid(const Bbox3& box, size_t numT, int round)
      : minX(box.getMinX()), minY(box.getMinY()), minZ(box.getMinZ()) {
    const double extent =
        std::max({box.getMaxX() - box.getMinX(), box.getMaxY() - box.getMinY(), box.getMaxZ() - box.getMinZ()});
    // The box lies at [shift, 1 + shift) of a grid over [0, 2).
    const double half = static_cast<double>(1u << (bits - 1));
    scale = extent > 0 ? half / extent : 0.0;
    size_t curveCellsASide = 1;
    while (curveCellsASide * curveCellsASide * curveCellsASide < numT) curveCellsASide *= 2;
    // Round k of the level moves the grid by the k-th fraction of the
    // sequence 1/2, 1/4, 3/4, 1/8, ... (van der Corput's) of such a cell,
    // away from the faces of the earlier rounds' grids, and off the faces of
    // the grid's own small cells by a part of a small cell.
    double fraction = 0.0;
    double digit = 0.5;
    for (unsigned int k = static_cast<unsigned int>(round); k > 0; k >>= 1, digit /= 2)
      if (k & 1) fraction += digit;
    const double shift = fraction / static_cast<double>(curveCellsASide) + 0.37 / half;
    offset = shift * half;
  }

  unsigned int cellOf(const Point3* p) const {
    unsigned int a[3] = {coordinate(p->x(), minX), coordinate(p->y(), minY), coordinate(p->z(), minZ)};
    // Skilling: the axes to the transposed Hilbert index, then interleaved.
    for (unsigned int q = 1u << (bits - 1); q > 1; q >>= 1) {
      const unsigned int low = q - 1;
      for (int i = 0; i < 3; ++i) {
        if (a[i] & q) {
          a[0] ^= low;
        } else {
          const unsigned int t = (a[0] ^ a[i]) & low;
          a[0] ^= t;
          a[i] ^= t;
        }
      }
    }
    a[1] ^= a[0];
    a[2] ^= a[1];
    unsigned int gray = 0;
    for (unsigned int q = 1u << (bits - 1); q > 1; q >>= 1)
      if (a[2] & q) gray ^= q - 1;
    unsigned int key = 0;
    for (int b = bits - 1; b >= 0; --b)
      for (int i = 0; i < 3; ++i) key = (key << 1) | (((a[i] ^ gray) >> b) & 1u);
    return key;
  }

private:
  unsigned int coordinate(double v, double lo) const {
    const double g = (v - lo) * scale + offset;
    return g <= 0 ? 0u : std::min(static_cast<unsigned int>(g), (1u << bits) - 1);
  }
  double minX, minY, minZ;
  double scale;
  double offset;
};

// The partition of a round that does not follow the curve (the shifted grid,
// a plane): gives vActive[i] to thread pointOwner(i) with its curve rank,
// which the vertex holds no longer then, writes vertexOwner(p) into the rank
// of every stored vertex p, and makes each thread's range its own number.
template <class PointOwner, class VertexOwner>
void handOutByOwner(std::vector<std::unique_ptr<InsertionThread>>& vThreads, size_t numT,
                    const std::vector<Point3*>& vActive, const std::vector<Point3*>& vCurve,
                    const PointOwner& pointOwner, const VertexOwner& vertexOwner) {
  for (size_t u = 0; u < numT; ++u) {
    InsertionThread& thread = *vThreads[u];
    thread.setRange(static_cast<unsigned int>(u), 1);
    thread.vMine.clear();
    thread.vMineRank.clear();
  }
  for (size_t i = 0; i < vActive.size(); ++i) {
    InsertionThread& thread = *vThreads[pointOwner(i)];
    thread.vMine.push_back(vActive[i]);
    thread.vMineRank.push_back(vActive[i]->getCurveRank());
  }
  runShares(numT, vCurve.size(), minRowsPerThread, [&](size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i) vCurve[i]->setCurveRank(vertexOwner(vCurve[i]));
  });
}

} // namespace

InsertionThread::InsertionThread(const ExactTest& predicates_)
    : numInserted(0), numLeft(0), ask(noAsk), bAnswered(false), rangeLow(0), rangeWidth(0), predicates(predicates_),
      pCur(nullptr), nextLabel(0), labelEnd(0) {
  poolTet.init(4096, -1);
  vDoomed.reserve(512);
  vDoomedPrev.reserve(512);
  vCavity.reserve(64);
}

bool InsertionThread::findStart(const std::vector<Point3*>& vCurve, unsigned int rank) {
  pCur = nullptr;
  const long n = static_cast<long>(vCurve.size());
  // A vertex's incident tetrahedron may reach out of the range where the
  // mesh is coarse or flat; a neighbour across a facet at the vertex may
  // not. Those links and neighbours keep the owned vertex as a corner, so
  // that no other thread changes them.
  const auto ownedNear = [&](const Point3* pVtx, Tet3* pTet) {
    if (owns(pTet)) return pTet;
    for (int k = 0; k < 4; ++k) {
      if (pTet->getCorner(k) == pVtx) continue;
      Tet3* pNeigh = pTet->getOppTet(k);
      if (pNeigh != nullptr && owns(pNeigh)) return pNeigh;
    }
    return static_cast<Tet3*>(nullptr);
  };
  // Outwards along the curve; in a coarse level most ranks near a point
  // are not in the mesh yet.
  for (long step = 1; step <= 8192; ++step) {
    for (long r : {static_cast<long>(rank) - step, static_cast<long>(rank) + step}) {
      if (r < 0 || r >= n || !owns(vCurve[r])) continue;
      Tet3* pTet = vCurve[r]->getOneTet();
      if (pTet != nullptr && (pCur = ownedNear(vCurve[r], pTet)) != nullptr) return true;
    }
  }
  return false;
}

inline Orientation3 InsertionThread::orientation(Tet3* pTet, int ith, const Point3* pVtx, bool bFloorFree) const {
  return bFloorFree ? orientationOfFacet<true>(predicates, pTet, ith, pVtx) : predicates.getOrientation3(pTet, ith, pVtx);
}

inline SphereInclusion InsertionThread::sphereInclusion(Tet3* pTet, const Point3* pVtx, bool bFloorFree) const {
  return bFloorFree ? sphereInclusionOf<true>(predicates, pTet, pVtx) : predicates.sphereInclusionTest(pTet, pVtx);
}

// The visibility walk of Dt3::locateConflictTet on owned tetrahedra: it
// stops as walkPostponed at the first neighbour that is not wholly owned
// (or when its step limit runs out).
int InsertionThread::locate(const Point3* pVtx, Tet3*& pTet, bool bFloorFree) const {
  int ith = 0;
  int numFacetsLeft = 4;
  for (int numSteps = 0; numSteps < 10000; ++numSteps) {
    const Orientation3 ori = orientation(pTet, ith, pVtx, bFloorFree);
    if (ori == ORIENTATION3_NEGATIVE) {
      Tet3* pNext = pTet->getOppTet(ith);
      if (pNext == nullptr) return ith;
      if (!owns(pNext)) return walkPostponed;
      const int entry = pNext->getIntraTetIndex(pTet);
      pTet = pNext;
      ith = nextFacet[entry];
      numFacetsLeft = 3;
      continue;
    }
    if (ori == ORI3_ZERO) {
      const int result = onFacetPlane(pVtx, pTet, ith, bFloorFree);
      if (result != walkPostponed) return result;
    }
    ith = nextFacet[ith];
    if (--numFacetsLeft == 0) return locateInConflict;
  }
  return walkPostponed;
}

// The point lies in the plane of facet ith (Dt3::coplanarCase): on a corner,
// in the closed tetrahedron, or the walk goes on (walkPostponed here means
// "go on"). A point on an edge is in conflict unless the edge is on the hull;
// then pTet becomes the tetrahedron round the edge with a hull facet at it.
// The tetrahedra round the edge share its two owned corners.
int InsertionThread::onFacetPlane(const Point3* pVtx, Tet3*& pTet, int ith, bool bFloorFree) const {
  if (pTet->hasVertex(*pVtx)) return locateOnVertex;
  int numPositive = 0, numNegative = 0, opp2ICI = -1, hullIndex = -1;
  for (int k = 0; k < 4; ++k) {
    const Orientation3 oriK = orientation(pTet, k, pVtx, bFloorFree);
    if (oriK == ORIENTATION3_POSITIVE) {
      ++numPositive;
    } else if (oriK == ORIENTATION3_NEGATIVE) {
      ++numNegative;
    } else {
      if (pTet->getOppTet(k) == nullptr) hullIndex = k;
      if (k != ith) opp2ICI = k;
    }
  }
  if (numNegative > 0) return walkPostponed;
  if (numPositive == 3) return hullIndex >= 0 ? hullIndex : locateInConflict;
  VELM_ASSERT(numPositive==2);
  const Edge3 startEdge(pTet, ith, opp2ICI);
  TetAroundEdgeIterator it(startEdge);
  while (it.getTet()->getOppTet(it.getOpp2Index()) != nullptr) {
    ++it;
    if (it.getEdge() == startEdge && it.getTet() == startEdge.getTet()) return locateInConflict;
  }
  pTet = it.getTet();
  return it.getOpp2Index();
}

bool InsertionThread::floodCavity(const Point3* pVtx, bool bFloorFree) {
  vStack.assign(vCavity.begin(), vCavity.end());
  while (!vStack.empty()) {
    Tet3* pCavTet = vStack.back();
    vStack.pop_back();
    for (int k = 0; k < 4; ++k) __builtin_prefetch(pCavTet->getOppTet(k));
    for (int ith = 3; ith >= 0; --ith) {
      Tet3* pOppTet = pCavTet->getOppTet(ith);
      if (pOppTet == nullptr) {
        vBoundary.push_back({pCavTet, nullptr, ith});
        continue;
      }
      if (pOppTet->hasBeenVisited) continue;
      if (sphereInclusion(pOppTet, pVtx, bFloorFree) == SIC_OUTSIDE) {
        vBoundary.push_back({pCavTet, pOppTet, ith});
        continue;
      }
      if (!owns(pOppTet)) {
        for (Tet3* pMarked : vCavity) pMarked->hasBeenVisited = false;
        return false;
      }
      pOppTet->hasBeenVisited = true;
      vCavity.push_back(pOppTet);
      vStack.push_back(pOppTet);
    }
  }
  return true;
}

// Dt3::ch_getVisibleTets and extractVisibleStayAndToBeDoomed with ownership
// tests and without a node-based set: the hull edges already met are few.
bool InsertionThread::gatherHull(Tet3* pTet, int ith, const Point3* pVtx, bool bFloorFree) {
  if (!owns(pTet)) return false;
  vStay.clear();
  vStay.push_back(pTet);
  vEdgeStack.clear();
  vEdgesSeen.clear();
  const auto pushEdges = [&](Tet3* pHullTet, int hullFacet) {
    for (int k = 0; k < 4; ++k) {
      if (k == hullFacet) continue;
      const Edge3 e = pHullTet->getEdge(hullFacet, k);
      const std::pair<Point3*, Point3*> ends = std::minmax(e.getSourceVtx(), e.getTargetVtx());
      if (std::find(vEdgesSeen.begin(), vEdgesSeen.end(), ends) != vEdgesSeen.end()) continue;
      vEdgesSeen.push_back(ends);
      vEdgeStack.push_back(e);
    }
  };
  pushEdges(pTet, ith);
  while (!vEdgeStack.empty()) {
    TetAroundEdgeIterator it(vEdgeStack.back());
    vEdgeStack.pop_back();
    while (it.getTet()->getOppTet(it.getOpp2Index()) != nullptr) ++it;
    Tet3* pHullTet = it.getTet();
    const int hullFacet = it.getOpp2Index();
    if (orientation(pHullTet, hullFacet, pVtx, bFloorFree) != ORIENTATION3_NEGATIVE) continue;
    if (!owns(pHullTet)) return false;
    pushEdges(pHullTet, hullFacet);
    vStay.push_back(pHullTet);
  }
  oneInstance(vStay);

  // Those in conflict start the cavity.
  vCavity.clear();
  size_t numStay = 0;
  for (Tet3* pHullTet : vStay) {
    if (sphereInclusion(pHullTet, pVtx, bFloorFree) == SIC_OUTSIDE) {
      vStay[numStay++] = pHullTet;
    } else {
      pHullTet->hasBeenVisited = true;
      vCavity.push_back(pHullTet);
    }
  }
  vStay.resize(numStay);
  vBoundary.clear();
  return floodCavity(pVtx, bFloorFree);
}

inline Tet3* InsertionThread::createTet(Point3* a, Point3* b, Point3* c, Point3* d) {
  Tet3* pNew;
  if (!vDoomedPrev.empty()) {
    pNew = vDoomedPrev.back();
    vDoomedPrev.pop_back();
  } else {
    pNew = poolTet.nextObject();
  }
  if (nextLabel == labelEnd) {
    nextLabel = Tet3::takeLabelBlock(Dt3::labelBlockSize);
    labelEnd = nextLabel + Dt3::labelBlockSize;
  }
  pNew->setProperties(a, b, c, d, nextLabel++);
  return pNew;
}

void InsertionThread::retireCavity() {
  for (Tet3* pCavTet : vCavity) {
    pCavTet->setCustomIndex(-1);
    vDoomed.push_back(pCavTet);
  }
  numInserted.store(numInserted.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Dt3::glueTetsToVisibleKeptOnes and glueTetsToBackSidesOfDoomedOnes; the
// facets still open at the end are the new hull facets.
void InsertionThread::insertOnHull(Point3* pVtx, bool bFloorFree) {
  vDoomed.swap(vDoomedPrev);
  registry.startInsertion();
  Tet3* pNewTet = nullptr;
  for (Tet3* pHullTet : vStay) {
    for (int k = 0; k < 4; ++k) {
      if (pHullTet->getOppTet(k) != nullptr || orientation(pHullTet, k, pVtx, bFloorFree) != ORIENTATION3_NEGATIVE)
        continue;
      // Beyond facet k: the facet's corners in the other turn.
      const int* fi = Tet3::facetIndices[k];
      pNewTet = createTet(pVtx, pHullTet->getCorner(fi[0]), pHullTet->getCorner(fi[2]), pHullTet->getCorner(fi[1]));
      registry.glue(pNewTet, pHullTet, k);
    }
  }
  for (const BoundaryFacet& f : vBoundary) {
    // A facet seen from outside goes with the tetrahedron; a facet in the
    // point's plane would give a flat one.
    if (orientation(f.pCavTet, f.ith, pVtx, bFloorFree) != ORIENTATION3_POSITIVE) continue;
    pNewTet = createTet(f.pCavTet, f.ith, pVtx);
    registry.glue(pNewTet, f.pOppTet, f.pOppTet != nullptr ? f.pOppTet->getIntraTetIndex(f.pCavTet) : -1);
  }
  retireCavity();
  registry.finalPass();
  registry.clear();
  VELM_ASSERT(pNewTet!=NULL);
  pCur = pNewTet;
}

InsertionThread::Outcome InsertionThread::insert(Point3*& pVtx, bool bFloorFree) {
  Tet3* pTet = pCur;
  const int where = locate(pVtx, pTet, bFloorFree);
  if (where == walkPostponed) return POSTPONED;
  if (where >= 0) {
    if (!gatherHull(pTet, where, pVtx, bFloorFree)) return POSTPONED;
    insertOnHull(pVtx, bFloorFree);
    return INSERTED;
  }
  pCur = pTet;
  if (where == locateOnVertex) {
    for (int i = 0; i < 4; ++i)
      if (*pTet->getCorner(i) == *pVtx) pVtx = pTet->getCorner(i);
    return INSERTED;
  }
  vCavity.clear();
  vBoundary.clear();
  pTet->hasBeenVisited = true;
  vCavity.push_back(pTet);
  if (!floodCavity(pVtx, bFloorFree)) return POSTPONED;

  // The records retired by the previous insertion are reused; this one's
  // are still read while the new tetrahedra are made.
  vDoomed.swap(vDoomedPrev);
  registry.startInsertion();
  Tet3* pNewTet = nullptr;
  for (const BoundaryFacet& f : vBoundary) {
    pNewTet = createTet(f.pCavTet, f.ith, pVtx);
    registry.glue(pNewTet, f.pOppTet, f.pOppTet != nullptr ? f.pOppTet->getIntraTetIndex(f.pCavTet) : -1);
  }
  retireCavity();
  registry.finalPass();
  VELM_ASSERT(registry.getNumOpen()==0);
  pCur = pNewTet;
  return INSERTED;
}

// ---------------------------------------------------------------------------
// The rounds of one level.

Tet3* Dt3::triangulateLevelThreaded(std::vector<Point3*>& vLevel, const std::vector<Point3*>& vCurve,
                                    unsigned long& numDone, unsigned long numTotal) {
  const size_t maxT = static_cast<size_t>(numThreads);
  while (vThreads.size() < maxT) vThreads.emplace_back(new InsertionThread(predicates));
  std::vector<Point3*> vActive;
  vActive.swap(vLevel);
  const size_t levelSize = vActive.size();
  std::atomic<bool> bStop(false);
  const bool bFloorFree = bAllFloorFree;

  size_t numT = maxT;
  std::vector<double> vUsedBounds;
  for (int round = 0; round < maxRounds; ++round) {
    // Fewer, larger ranges for the fewer points of a late round.
    while (numT > 2 && vActive.size() < minPointsPerThread * numT) numT = std::max<size_t>(2, numT / 2);
    if (vActive.size() < minPointsPerThread * numT) break;
    // The ranges split the ranks of all stored vertices evenly; each round
    // moves their boundaries by a fraction of a range, so that the points
    // postponed at one round's boundaries lie inside a range in the next
    // (see roundBoundaries). The last range wraps round the end of the curve.
    const size_t m = vActive.size();
    // The rounds after the first partition space instead, unless the level
    // is small beside the store: with more than two threads by a shifted
    // grid (ShiftedGrid), with two by a plane (assignHalves).
    const bool bRegrid = round >= 1 && m * regridShare >= vCurve.size();
    const bool bHalves = bRegrid && numT == 2;
    for (size_t t = 0; t < numT; ++t) {
      vThreads[t]->vPostponed.clear();
      vThreads[t]->numInserted.store(0, std::memory_order_relaxed);
    }
    if (bHalves) {
      assignHalves(vActive, vCurve);
    } else if (bRegrid) {
      assignCells(vActive, vCurve, numT, round);
    } else {
      const std::vector<double> vBounds = roundBoundaries(numT, vUsedBounds);
      const double numRanks = static_cast<double>(vCurve.size());
      std::vector<unsigned int> vLow(numT);
      for (size_t t = 0; t < numT; ++t) vLow[t] = static_cast<unsigned int>(vBounds[t] * numRanks);
      const auto firstFrom = [&](unsigned int rank) {
        return std::lower_bound(vActive.begin(), vActive.end(), rank,
                                [](const Point3* p, unsigned int r) { return p->getCurveRank() < r; });
      };
      for (size_t t = 0; t < numT; ++t) {
        InsertionThread& thread = *vThreads[t];
        thread.setRange(vLow[t], vLow[(t + 1) % numT] - vLow[t]);
        if (t + 1 < numT) {
          thread.vMine.assign(firstFrom(vLow[t]), firstFrom(vLow[t + 1]));
        } else {
          thread.vMine.assign(firstFrom(vLow[t]), vActive.end());
          thread.vMine.insert(thread.vMine.end(), vActive.begin(), firstFrom(vLow[0]));
        }
      }
    }

    // In a round on curve ranges an idle thread asks the thread with the most
    // points left for a share (shareOut); each thread looks for an ask
    // before each insertion, and closes itself to asks when its points are
    // done.
    const bool bShare = !bRegrid;
    for (size_t t = 0; t < numT; ++t) {
      vThreads[t]->ask.store(InsertionThread::noAsk, std::memory_order_relaxed);
      vThreads[t]->numLeft.store(vThreads[t]->vMine.size(), std::memory_order_relaxed);
    }
    // The answer to thread asker: half of the points from vMine[k] on, or
    // nothing where fewer than 2 * minShare are left.
    const auto answer = [&](InsertionThread& thread, int asker, size_t k) {
      InsertionThread& taker = *vThreads[static_cast<size_t>(asker)];
      if (thread.vMine.size() >= k + 2 * minShare) thread.shareOut(k + (thread.vMine.size() - k) / 2, taker);
      else taker.vMine.clear();
      taker.bAnswered.store(true, std::memory_order_release);
    };
    const auto insertMine = [&](size_t t) {
      InsertionThread& thread = *vThreads[t];
      const auto rankOf = [&](size_t i) { return bRegrid ? thread.vMineRank[i] : thread.vMine[i]->getCurveRank(); };
      if (thread.vMine.empty() || !thread.findStart(vCurve, rankOf(0))) {
        thread.vPostponed.insert(thread.vPostponed.end(), thread.vMine.begin(), thread.vMine.end());
        return;
      }
      unsigned long sinceReport = 0;
      for (size_t i = 0; i < thread.vMine.size() && !bStop.load(std::memory_order_relaxed); ++i) {
        if (bShare) {
          thread.numLeft.store(thread.vMine.size() - i, std::memory_order_relaxed);
          const int asker = thread.ask.load(std::memory_order_acquire);
          if (asker >= 0) {
            thread.ask.store(InsertionThread::noAsk, std::memory_order_relaxed);
            answer(thread, asker, i);
            // The place to go on from may have gone with the share.
            if (thread.getCurrent() == nullptr && !thread.findStart(vCurve, rankOf(i))) {
              thread.vPostponed.insert(thread.vPostponed.end(), thread.vMine.begin() + static_cast<long>(i),
                                       thread.vMine.end());
              break;
            }
          }
        }
        const InsertionThread::Outcome outcome = thread.insert(thread.vMine[i], bFloorFree);
        if (outcome != InsertionThread::INSERTED) {
          thread.vPostponed.push_back(thread.vMine[i]);
          // The walk or the cavity met a foreign tetrahedron: the next
          // point starts from a tetrahedron at its curve neighbours rather
          // than from the same place.
          if (i + 1 < thread.vMine.size() && !thread.findStart(vCurve, rankOf(i + 1)) &&
              !thread.findStart(vCurve, rankOf(i)))
            thread.findStart(vCurve, rankOf(0));
        }
        // The caller's thread reports the progress of all.
        if (t == 0 && pProgress != nullptr && ++sinceReport * numT >= numInsertionsPerReport) {
          sinceReport = 0;
          unsigned long numNow = numDone;
          for (size_t u = 0; u < numT; ++u) numNow += vThreads[u]->numInserted.load(std::memory_order_relaxed);
          if (!pProgress(pProgressUser, numNow, numTotal)) bStop.store(true);
        }
      }
    };
    // Asks the thread with the most points left for a share; false when
    // none has enough left, or the round stops.
    const auto takeShare = [&](size_t t) {
      InsertionThread& thread = *vThreads[t];
      for (;;) {
        size_t victim = t, most = 2 * minShare - 1;
        for (size_t u = 0; u < numT; ++u) {
          const size_t left = vThreads[u]->numLeft.load(std::memory_order_relaxed);
          if (u != t && left > most) {
            victim = u;
            most = left;
          }
        }
        if (victim == t || bStop.load(std::memory_order_relaxed)) return false;
        thread.bAnswered.store(false, std::memory_order_relaxed);
        int expected = InsertionThread::noAsk;
        // Release: what this thread did with its vMine comes before the
        // answer's writes to it.
        if (!vThreads[victim]->ask.compare_exchange_strong(expected, static_cast<int>(t), std::memory_order_release,
                                                           std::memory_order_relaxed)) {
          std::this_thread::yield();
          continue;
        }
        while (!thread.bAnswered.load(std::memory_order_acquire)) {
          if (bStop.load(std::memory_order_relaxed)) return false;
          std::this_thread::yield();
        }
        if (!thread.vMine.empty()) return true;
      }
    };
    const auto work = [&](size_t t) {
      InsertionThread& thread = *vThreads[t];
      insertMine(t);
      while (bShare) {
        thread.numLeft.store(0, std::memory_order_relaxed);
        // An ask that came after the last look is answered with nothing.
        const int asker = thread.ask.exchange(InsertionThread::closed, std::memory_order_acquire);
        if (asker >= 0) answer(thread, asker, thread.vMine.size());
        if (!takeShare(t)) return;
        thread.ask.store(InsertionThread::noAsk, std::memory_order_relaxed);
        insertMine(t);
      }
    };
    runThreads(numT, bStop, work);
    if (bRegrid) {
      runShares(numT, vCurve.size(), minRowsPerThread, [&](size_t begin, size_t end) {
        for (size_t i = begin; i < end; ++i) vCurve[i]->setCurveRank(static_cast<unsigned int>(i));
      });
    }

    vActive.clear();
    for (size_t t = 0; t < numT; ++t) {
      InsertionThread& thread = *vThreads[t];
      numDone += thread.numInserted.load(std::memory_order_relaxed);
      vActive.insert(vActive.end(), thread.vPostponed.begin(), thread.vPostponed.end());
    }
    const size_t numPostponed = vActive.size();
    if (bStop.load()) return nullptr;
    // The points left lie where the ranges met. Those between ranges that
    // follow each other on the curve are inside a range of the next round;
    // those where distant parts of the curve meet in space need larger
    // ranges: a round that inserted less than half of its points halves
    // the thread count, and one of two threads that inserted less than a
    // tenth leaves the rest to one thread.
    if (numT == 2 && 10 * numPostponed > 9 * m) break;
    if (numPostponed * restShare * maxT < levelSize) break;
    if (2 * numPostponed > m) numT = std::max<size_t>(2, numT / 2);
    std::sort(vActive.begin(), vActive.end(),
              [](const Point3* a, const Point3* b) { return a->getCurveRank() < b->getCurveRank(); });
  }

  // One thread for the rest, as the one-thread road inserts.
  Tet3* pCur = vThreads[0]->getCurrent();
  for (Point3*& pVtx : vActive) {
    if (pCur == nullptr || pCur->hasBeenVisited) pCur = hc3.getCloseTet(pVtx);
    pCur = insertVertex(pVtx, pCur);
    ++numDone;
  }
  if (pCur == nullptr || pCur->hasBeenVisited) pCur = hc3.getCloseTet(vCurve[0]);
  return pCur;
}

// The threads' points and the owners of all vertices for a round of two
// threads after the first: the sides of a plane through the median of the
// points left, across the axis of their largest spread. The points a round
// leaves lie along its boundary, a thin sheet (or, after two rounds, a
// thin tube), which the next plane cuts across instead of meeting along
// its length as the ranges of the curve do.
void Dt3::assignHalves(const std::vector<Point3*>& vActive, const std::vector<Point3*>& vCurve) {
  // The spread is measured between the quartiles: a few stray points must
  // not make the box of all of them the measure.
  const size_t m = vActive.size();
  std::vector<double> vCoord(m);
  const auto coordinateOf = [](const Point3* p, int axis) { return axis == 0 ? p->x() : (axis == 1 ? p->y() : p->z()); };
  const auto quantile = [&](size_t k) {
    std::nth_element(vCoord.begin(), vCoord.begin() + static_cast<long>(k), vCoord.end());
    return vCoord[k];
  };
  int axis = 0;
  double split = 0.0, widest = -1.0;
  for (int i = 0; i < 3; ++i) {
    for (size_t k = 0; k < m; ++k) vCoord[k] = coordinateOf(vActive[k], i);
    const double spread = quantile(3 * m / 4) - quantile(m / 4);
    if (spread > widest) {
      widest = spread;
      axis = i;
      split = quantile(m / 2);
    }
  }
  const auto side = [&](const Point3* p) { return coordinateOf(p, axis) < split ? 0u : 1u; };
  handOutByOwner(vThreads, 2, vActive, vCurve, [&](size_t i) { return side(vActive[i]); }, side);
}

// The threads' points and the owners of all vertices for a round on the
// shifted grid: the cells go to the threads in the grid's curve order, in
// runs of about equal numbers of points; each vertex's rank becomes the
// thread of its cell, and each thread's range that one rank.
void Dt3::assignCells(const std::vector<Point3*>& vActive, const std::vector<Point3*>& vCurve, size_t numT,
                      int round) {
  const ShiftedGrid grid(hc3.getBox(), numT, round);
  const size_t m = vActive.size();
  std::vector<unsigned int> vCell(m);
  runShares(numT, m, minRowsPerThread, [&](size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i) vCell[i] = grid.cellOf(vActive[i]);
  });
  // The points of each cell, then in place the cell's thread.
  std::vector<unsigned int> vOwner(ShiftedGrid::numCells, 0);
  for (unsigned int c : vCell) ++vOwner[c];
  size_t numBefore = 0;
  unsigned int t = 0;
  for (unsigned int& owner : vOwner) {
    numBefore += owner;
    owner = t;
    if (t + 1 < numT && numBefore * numT >= (t + 1) * m) ++t;
  }
  handOutByOwner(vThreads, numT, vActive, vCurve, [&](size_t i) { return vOwner[vCell[i]]; },
                 [&](const Point3* p) { return vOwner[grid.cellOf(p)]; });
}

// ---------------------------------------------------------------------------
// Point location of a batch: the mesh is only read, so the threads need no
// ownership; each takes an equal run of the curve order.

void Dt3::locateRunsThreaded(const double* pXyz, const std::vector<std::pair<unsigned int, size_t>>& vOrder,
                             std::vector<Tet3*>& vTets) {
  const size_t n = vOrder.size();
  if (n == 0) return;
  const size_t numT = threadsFor(static_cast<size_t>(numThreads), n, minRowsPerThread);
  struct alignas(64) Count {
    std::atomic<unsigned long> n{0};
  };
  std::unique_ptr<Count[]> vDone(new Count[numT]);
  // Each run starts at the store's close tetrahedron of its first row, found
  // here: the store's key function is not for several threads at once.
  std::vector<Tet3*> vStart(numT);
  for (size_t t = 0; t < numT; ++t) {
    const double* p = pXyz + 3 * vOrder[n * t / numT].second;
    Point3 q(p[0], p[1], p[2]);
    vStart[t] = hc3.getCloseTet(&q);
  }
  std::atomic<bool> bStop(false);
  runThreads(numT, bStop, [&](size_t t) {
    Tet3* pHint = vStart[t];
    unsigned long sinceReport = 0;
    for (size_t k = n * t / numT; k < n * (t + 1) / numT && !bStop.load(std::memory_order_relaxed); ++k) {
      const double* p = pXyz + 3 * vOrder[k].second;
      Tet3* pTet = findTetContaining(Point3(p[0], p[1], p[2]), pHint);
      vTets[vOrder[k].second] = pTet;
      if (pTet != nullptr) pHint = pTet;
      vDone[t].n.store(vDone[t].n.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
      // The caller's thread reports the progress of all.
      if (t == 0 && pProgress != nullptr && ++sinceReport * numT >= numInsertionsPerReport) {
        sinceReport = 0;
        unsigned long numNow = 0;
        for (size_t u = 0; u < numT; ++u) numNow += vDone[u].n.load(std::memory_order_relaxed);
        if (!pProgress(pProgressUser, numNow, n)) bStop.store(true);
      }
    }
  });
}

void Dt3::getTetrahedraInRecordOrder(std::vector<Tet3*>& vTet) const {
  VELM_ASSERT(vTet.empty());
  struct Run {
    Tet3* pFirst;
    size_t size;
  };
  std::vector<Run> vRuns;
  size_t numRecords = 0;
  const auto addPool = [&](const BRIX_TOOLS::SimplePool<Tet3>& pool) {
    for (size_t i = 0; i < pool.getNumBlocks(); ++i) {
      const size_t size = static_cast<size_t>(pool.getNumHandedOut(i));
      if (size > 0) vRuns.push_back({pool.getBlocks()[i], size});
      numRecords += size;
    }
  };
  addPool(poolTet);
  for (const auto& pThread : vThreads) addPool(pThread->getPool());
  // Thread t takes the records [numRecords * t / numT, numRecords * (t+1) /
  // numT) of the runs laid end to end and collects its live ones; then each
  // copies its own to their place.
  const size_t numT = threadsFor(static_cast<size_t>(numThreads), numRecords, minRowsPerThread);
  std::vector<std::vector<Tet3*>> vFound(numT);
  std::atomic<bool> bStop(false);
  runThreads(numT, bStop, [&](size_t t) {
    const size_t first = numRecords * t / numT, end = numRecords * (t + 1) / numT;
    std::vector<Tet3*>& vMine = vFound[t];
    vMine.reserve(end - first);
    size_t runStart = 0;
    for (const Run& run : vRuns) {
      const size_t from = std::max(first, runStart), to = std::min(end, runStart + run.size);
      for (size_t k = from; k < to; ++k) {
        Tet3* pTet = run.pFirst + (k - runStart);
        if (!pTet->hasBeenVisited) vMine.push_back(pTet);
      }
      runStart += run.size;
    }
  });
  std::vector<size_t> vOffset(numT + 1, 0);
  for (size_t t = 0; t < numT; ++t) vOffset[t + 1] = vOffset[t] + vFound[t].size();
  vTet.resize(vOffset[numT]);
  runThreads(numT, bStop, [&](size_t t) {
    std::copy(vFound[t].begin(), vFound[t].end(), vTet.begin() + static_cast<long>(vOffset[t]));
    std::vector<Tet3*>().swap(vFound[t]);
  });
}

} // namespace VELM3D
