// ThreadedInsertion.cpp: a level of the bulk insertion on several threads.
// The scheme and why it needs no lock are in ThreadedInsertion.h. The one-thread
// road (Dt3::insertVertex) is not used by the threads; the walk and the
// cavity here are its counterparts with ownership tests, and the cavity is
// gathered whole before anything changes, so that a postponed point leaves
// the mesh as it was.
#include "ThreadedInsertion.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <thread>

#include "BrixTest3Inline.h"

namespace VELM3D {

namespace {

// The facet after i, cyclically: the walk tests facets in this order.
const int nextFacet[4] = {1, 2, 3, 0};

// A thread's rounds stop at this many postponed points per thread, or after
// this many rounds; one thread inserts what is left.
constexpr size_t minPointsPerThread = 256;
constexpr int maxRounds = 6;

// The boundaries' offset in round i, as a fraction of a range: 0, then half
// a range, then steps of the golden ratio. A dyadic sequence would put
// the boundaries of every round on the planes where the curve's octants
// meet, and the points there would never be inside a range.
double roundPhase(int i) {
  if (i <= 1) return 0.5 * i;
  const double x = 0.5 + 0.6180339887498949 * (i - 1);
  return x - static_cast<double>(static_cast<long>(x));
}

} // namespace

InsertionThread::InsertionThread(const ExactTest& predicates_)
    : numInserted(0), rangeLow(0), rangeWidth(0), predicates(predicates_), pCur(nullptr), nextLabel(0),
      labelEnd(0) {
  poolTet.init(4096, -1);
  vDoomed.reserve(512);
  vDoomedPrev.reserve(512);
  vCavity.reserve(64);
}

bool InsertionThread::findStart(const std::vector<Point3*>& vCurve, unsigned int rank) {
  pCur = nullptr;
  const long n = static_cast<long>(vCurve.size());
  for (long step = 1; step <= 256; ++step) {
    for (long r : {static_cast<long>(rank) - step, static_cast<long>(rank) + step}) {
      if (r < 0 || r >= n || !owns(vCurve[r])) continue;
      Tet3* pTet = vCurve[r]->getOneTet();
      if (pTet != nullptr && owns(pTet)) {
        pCur = pTet;
        return true;
      }
    }
  }
  return false;
}

inline Orientation3 InsertionThread::orientation(Tet3* pTet, int ith, const Point3* pVtx, bool bFloorFree) const {
  return bFloorFree ? orientationOfFacet<true>(predicates, pTet, ith, pVtx) : predicates.getOrientation3(pTet, ith, pVtx);
}

// The visibility walk of Dt3::locateConflictTet on owned tetrahedra: it
// stops as walkPostponed at the first neighbour that is not wholly owned
// (or when its step limit runs out), as walkHull at the hull.
int InsertionThread::locate(const Point3* pVtx, Tet3*& pTet, bool bFloorFree) const {
  int ith = 0;
  int numFacetsLeft = 4;
  for (int numSteps = 0; numSteps < 10000; ++numSteps) {
    const Orientation3 ori = orientation(pTet, ith, pVtx, bFloorFree);
    if (ori == ORIENTATION3_NEGATIVE) {
      Tet3* pNext = pTet->getOppTet(ith);
      if (pNext == nullptr) return walkHull;
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
// the tetrahedra round the edge share its two owned corners.
int InsertionThread::onFacetPlane(const Point3* pVtx, Tet3* pTet, int ith, bool bFloorFree) const {
  if (pTet->hasVertex(*pVtx)) return locateOnVertex;
  int numPositive = 0, numNegative = 0, opp2ICI = -1;
  bool bOnHull = false;
  for (int k = 0; k < 4; ++k) {
    const Orientation3 oriK = orientation(pTet, k, pVtx, bFloorFree);
    if (oriK == ORIENTATION3_POSITIVE) {
      ++numPositive;
    } else if (oriK == ORIENTATION3_NEGATIVE) {
      ++numNegative;
    } else {
      bOnHull = bOnHull || pTet->getOppTet(k) == nullptr;
      if (k != ith) opp2ICI = k;
    }
  }
  if (numNegative > 0) return walkPostponed;
  if (numPositive == 3) return bOnHull ? walkHull : locateInConflict;
  VELM_ASSERT(numPositive==2);
  const Edge3 startEdge(pTet, ith, opp2ICI);
  TetAroundEdgeIterator it(startEdge);
  while (it.getTet()->getOppTet(it.getOpp2Index()) != nullptr) {
    ++it;
    if (it.getEdge() == startEdge && it.getTet() == startEdge.getTet()) return locateInConflict;
  }
  return walkHull;
}

bool InsertionThread::gatherCavity(Tet3* pTet, const Point3* pVtx, bool bFloorFree) {
  vCavity.clear();
  pTet->hasBeenVisited = true;
  vCavity.push_back(pTet);
  for (size_t i = 0; i < vCavity.size(); ++i) {
    Tet3* pCavTet = vCavity[i];
    for (int k = 0; k < 4; ++k) __builtin_prefetch(pCavTet->getOppTet(k));
    for (int ith = 3; ith >= 0; --ith) {
      Tet3* pOppTet = pCavTet->getOppTet(ith);
      if (pOppTet == nullptr || pOppTet->hasBeenVisited) continue;
      const SphereInclusion sic = bFloorFree ? sphereInclusionOf<true>(predicates, pOppTet, pVtx)
                                             : predicates.sphereInclusionTest(pOppTet, pVtx);
      if (sic == SIC_OUTSIDE) continue;
      if (!owns(pOppTet)) {
        for (Tet3* pMarked : vCavity) pMarked->hasBeenVisited = false;
        return false;
      }
      pOppTet->hasBeenVisited = true;
      vCavity.push_back(pOppTet);
    }
  }
  return true;
}

inline Tet3* InsertionThread::createTet(Tet3* pTet, int ith, Point3* pVtx) {
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
  const int* fi = Tet3::facetIndices[ith];
  pNew->setProperties(pVtx, pTet->getCorner(fi[0]), pTet->getCorner(fi[1]), pTet->getCorner(fi[2]), nextLabel++);
  return pNew;
}

InsertionThread::Outcome InsertionThread::insert(Point3*& pVtx, bool bFloorFree) {
  Tet3* pTet = pCur;
  const int where = locate(pVtx, pTet, bFloorFree);
  if (where == walkPostponed) return POSTPONED;
  if (where == walkHull) return HULL;
  pCur = pTet;
  if (where == locateOnVertex) {
    for (int i = 0; i < 4; ++i)
      if (*pTet->getCorner(i) == *pVtx) pVtx = pTet->getCorner(i);
    return INSERTED;
  }
  if (!gatherCavity(pTet, pVtx, bFloorFree)) return POSTPONED;

  // The records retired by the previous insertion are reused; this one's
  // are still read while the new tetrahedra are made.
  vDoomed.swap(vDoomedPrev);
  registry.startInsertion();
  Tet3* pNewTet = nullptr;
  for (Tet3* pCavTet : vCavity) {
    for (int ith = 3; ith >= 0; --ith) {
      Tet3* pOppTet = pCavTet->getOppTet(ith);
      if (pOppTet != nullptr && pOppTet->hasBeenVisited) continue;
      pNewTet = createTet(pCavTet, ith, pVtx);
      registry.glue(pNewTet, pOppTet, pOppTet != nullptr ? pOppTet->getIntraTetIndex(pCavTet) : -1);
    }
  }
  for (Tet3* pCavTet : vCavity) {
    pCavTet->setCustomIndex(-1);
    vDoomed.push_back(pCavTet);
  }
  registry.finalPass();
  VELM_ASSERT(registry.getNumOpen()==0);
  pCur = pNewTet;
  numInserted.store(numInserted.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
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
  std::vector<Point3*> vLeft; // for the one-thread pass
  std::atomic<bool> bStop(false);
  std::mutex errorMutex;
  std::exception_ptr pError;
  std::string errorReport;
  const bool bFloorFree = bAllFloorFree;

  size_t numT = maxT;
  for (int round = 0; round < maxRounds && vActive.size() >= minPointsPerThread * numT; ++round) {
    // The ranges split the ranks of all stored vertices evenly; each round
    // moves their boundaries by a fraction of a range (1/2, 1/4, 3/4, ...),
    // so that the points postponed at one round's boundaries lie inside a
    // range in the next (see roundPhase). The last range wraps round the
    // end of the curve.
    const size_t m = vActive.size();
    const double phase = roundPhase(round);
    const double numRanks = static_cast<double>(vCurve.size());
    std::vector<unsigned int> vLow(numT);
    for (size_t t = 0; t < numT; ++t)
      vLow[t] = static_cast<unsigned int>((static_cast<double>(t) + phase) / static_cast<double>(numT) * numRanks);
    const auto firstFrom = [&](unsigned int rank) {
      return std::lower_bound(vActive.begin(), vActive.end(), rank,
                              [](const Point3* p, unsigned int r) { return p->getCurveRank() < r; });
    };
    for (size_t t = 0; t < numT; ++t) {
      InsertionThread& thread = *vThreads[t];
      thread.setRange(vLow[t], vLow[(t + 1) % numT] - vLow[t]);
      thread.vPostponed.clear();
      thread.numInserted.store(0, std::memory_order_relaxed);
      if (t + 1 < numT) {
        thread.vMine.assign(firstFrom(vLow[t]), firstFrom(vLow[t + 1]));
      } else {
        thread.vMine.assign(firstFrom(vLow[t]), vActive.end());
        thread.vMine.insert(thread.vMine.end(), vActive.begin(), firstFrom(vLow[0]));
      }
    }

    const auto work = [&](size_t t) {
      InsertionThread& thread = *vThreads[t];
      size_t i = 0;
      try {
        if (thread.vMine.empty() || !thread.findStart(vCurve, thread.vMine[0]->getCurveRank())) {
          thread.vPostponed.swap(thread.vMine);
          return;
        }
        unsigned long sinceReport = 0;
        for (; i < thread.vMine.size() && !bStop.load(std::memory_order_relaxed); ++i) {
          const InsertionThread::Outcome outcome = thread.insert(thread.vMine[i], bFloorFree);
          if (outcome != InsertionThread::INSERTED) {
            (outcome == InsertionThread::POSTPONED ? thread.vPostponed : thread.vHull).push_back(thread.vMine[i]);
            // The walk stopped at a foreign tetrahedron or the hull: the
            // next point starts from a tetrahedron at its curve neighbours
            // rather than from the same place.
            if (i + 1 < thread.vMine.size() && !thread.findStart(vCurve, thread.vMine[i + 1]->getCurveRank()) &&
                !thread.findStart(vCurve, thread.vMine[i]->getCurveRank()))
              thread.findStart(vCurve, thread.vMine[0]->getCurveRank());
          }
          // The caller's thread reports the progress of all.
          if (t == 0 && pProgress != nullptr && ++sinceReport * numT >= numInsertionsPerReport) {
            sinceReport = 0;
            unsigned long numNow = numDone;
            for (size_t u = 0; u < numT; ++u) numNow += vThreads[u]->numInserted.load(std::memory_order_relaxed);
            if (!pProgress(pProgressUser, numNow, numTotal)) bStop.store(true);
          }
        }
      } catch (...) {
        std::lock_guard<std::mutex> lock(errorMutex);
        if (!pError) {
          pError = std::current_exception();
          errorReport = VelmException::lastReport();
        }
        bStop.store(true);
      }
    };
    std::vector<std::thread> vRunning;
    for (size_t t = 1; t < numT; ++t) vRunning.emplace_back(work, t);
    work(0);
    for (std::thread& th : vRunning) th.join();

    vActive.clear();
    for (size_t t = 0; t < numT; ++t) {
      InsertionThread& thread = *vThreads[t];
      numDone += thread.numInserted.load(std::memory_order_relaxed);
      vActive.insert(vActive.end(), thread.vPostponed.begin(), thread.vPostponed.end());
      vLeft.insert(vLeft.end(), thread.vHull.begin(), thread.vHull.end());
      thread.vHull.clear();
    }
    const size_t numPostponed = vActive.size();
    if (pError) {
      VelmException::carryReport(errorReport);
      std::rethrow_exception(pError);
    }
    if (bStop.load()) return nullptr;
    // A round that inserted less than half of its points met the places
    // where distant parts of the curve meet, which no split into so many
    // ranges has inside one range: the rest goes to one thread.
    if (2 * numPostponed > m) break;
    std::sort(vActive.begin(), vActive.end(),
              [](const Point3* a, const Point3* b) { return a->getCurveRank() < b->getCurveRank(); });
    // Fewer, larger ranges for the fewer points of the next round.
    numT = std::max<size_t>(2, numT / 2);
  }

  // One thread for the rest, as the one-thread road inserts.
  vLeft.insert(vLeft.end(), vActive.begin(), vActive.end());
  Tet3* pCur = vThreads[0]->getCurrent();
  for (Point3*& pVtx : vLeft) {
    if (pCur == nullptr || pCur->hasBeenVisited) pCur = hc3.getCloseTet(pVtx);
    pCur = insertVertex(pVtx, pCur);
    ++numDone;
  }
  if (pCur == nullptr || pCur->hasBeenVisited) pCur = hc3.getCloseTet(vCurve[0]);
  return pCur;
}

} // namespace VELM3D
