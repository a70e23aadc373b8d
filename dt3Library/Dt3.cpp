// Dt3.cpp: the triangulation object. The road of a point, in file order:
//   intake     insertVector, insert: range flag, then the store
//   store      hc3.addPoints/addPoint (HC3.cpp): curve order, duplicates out
//   first tet  createInitialTet: the first four vertices that span space
//   levels     triangulate, getLevelsRec: coarse-to-fine rounds on the curve
//   walk       locateConflictTet, coplanarCase: visibility walk to the point
//   cavity     insertVertex, enterCavity: flood over conflicting tetrahedra
//   new tets   newTetOnFacet, glueNewTet: one per boundary facet, linked out
//   registry   tcsTreatment, registerTets, tcsFinalPass: inner facets paired
//   hull       ch_insertVertex, ch_getVisibleTets, extractVisible...Doomed
//   gluing     glueTetsToVisibleKeptOnes, glueTetsToBackSidesOfDoomedOnes
// then duplicates, queries, the self-test and the debug output.
//
// The mesh invariants are listed in Dt3.h. Every insertion starts from an
// empty facet registry, swaps the two retirement arrays before it makes or
// dooms a tetrahedron, and ends with the registry empty again.
#include "Dt3.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <set>
#include <sstream>
#include <thread>

#include "BrixTest3Inline.h"
#include "Surface3.h"
#include "ThreadedInsertion.h"
#include "Visualizer3.h"

namespace VELM3D {

namespace {

// The facet after i, cyclically: the walk tests facets in this order.
const int nextFacetIndex[4] = {1, 2, 3, 0};

} // namespace

// ---------------------------------------------------------------------------
// Life cycle.

Dt3::Dt3(Velm_3D* pInterface_)
    : bFullDimensional(false), hc3(27), pInterface(pInterface_), bVerbose(false),
      pProgress(nullptr), pProgressUser(nullptr), bAllFloorFree(true), bVerticesWaiting(false), numThreads(1), nextLabel(0), labelEnd(0) {
  poolTet.init(28, -1);
  vDoomed.reserve(512);
  vDoomedPrev.reserve(512);
  vStack.reserve(64);
}

Dt3::~Dt3() {
  for (Surface3* pSurface : vSurfaces) delete pSurface;
  // The members follow in reverse order of declaration: the vertex store
  // with all vertices, the arrays, then the tetrahedron and registry pools.
}

void Dt3::takeLabelBlock() {
  nextLabel = Tet3::takeLabelBlock(labelBlockSize);
  labelEnd = nextLabel + labelBlockSize;
}

Tet3* Dt3::newTetFromPool() {
  Tet3* ret = poolTet.nextObject();
  VELM_ASSERT(ret!=NULL);
  return ret;
}

Surface3* Dt3::createEmptySurface() {
  Surface3* pSurface = new Surface3(this);
  vSurfaces.push_back(pSurface);
  return pSurface;
}

// ---------------------------------------------------------------------------
// Intake: the range flag, the store, and the first tetrahedron once four
// stored vertices span space.

void Dt3::insertVector(std::vector<Point3>& vPoints, std::vector<Point3*>& vUserHandles) {
  if (bVerbose) consoleLine("\nDt3::insert(vector,vector) has been called");
  if (!vUserHandles.empty()) {
    warning("Dt3::insert()", "vUserHandles is not empty as it should be");
    vUserHandles.clear();
  }
  const size_t n = vPoints.size();
  consoleLine("numPoints=" + std::to_string(n));
  if (n == 0) return;
  for (const Point3& p : vPoints) bAllFloorFree = bAllFloorFree && kernels::inFloorFreeRange(p);
  std::vector<Point3*> vNewVertices;
  hc3.addPoints(vPoints, vUserHandles, vNewVertices);

  if (bFullDimensional) {
    // A batch of points that are all stored already brings nothing new.
    if (vNewVertices.empty()) return;
    triangulateList(vNewVertices, hc3.getCloseTet(vNewVertices[0]), true);
    return;
  }
  bVerticesWaiting = true;
  Tet3* pFirstTet = createInitialTet();
  if (pFirstTet == nullptr) return;
  if (hc3.getNumStoredVtx() == n) {
    triangulateList(vNewVertices, pFirstTet, true);
  } else {
    std::vector<Point3*> vAll;
    hc3.getVertices(vAll);
    std::vector<Point3*>().swap(vNewVertices);
    triangulateList(vAll, pFirstTet, true);
    bVerticesWaiting = false;
  }
}

void Dt3::insertRows(const double* pXyz, size_t numRows, std::vector<Point3*>& vUserHandles) {
  vUserHandles.clear();
  // No row still takes in the vertices that earlier calls left waiting.
  if (numRows == 0 && !bVerticesWaiting) return;
  for (size_t i = 0; i < numRows && bAllFloorFree; ++i) bAllFloorFree = kernels::inFloorFreeRange(pXyz + 3 * i);
  std::vector<Point3*> vNewVertices;
  hc3.addRows(pXyz, numRows, vUserHandles, vNewVertices);

  Tet3* pStart = nullptr;
  if (!bFullDimensional) {
    bVerticesWaiting = true;
    pStart = createInitialTet();
    if (pStart == nullptr) return;
    // Every stored vertex goes in, in the store's curve order; the first
    // tetrahedron's corners meet themselves as duplicates.
    vNewVertices.clear();
    hc3.getVertices(vNewVertices);
  } else if (bVerticesWaiting) {
    // Earlier calls left vertices outside the mesh: all of them go in with
    // the new ones, in the store's curve order.
    std::vector<Point3*> vAll;
    hc3.getVertices(vAll);
    vNewVertices.clear();
    for (Point3* pVtx : vAll)
      if (pVtx->getOneTet() == nullptr) vNewVertices.push_back(pVtx);
  }
  bVerticesWaiting = false;
  if (vNewVertices.empty()) return;
  if (pStart == nullptr) pStart = hc3.getCloseTet(vNewVertices[0]);
  triangulateList(vNewVertices, pStart, true);
}

Point3* Dt3::insert(Point3& p) {
  bAllFloorFree = bAllFloorFree && kernels::inFloorFreeRange(p);
  std::pair<Point3*, Tet3*> stored = hc3.addPoint(p);
  Point3* pVtx = stored.first;
  if (bFullDimensional) {
    Tet3* pLastTet = stored.second;
    // The curve neighbour may be a vertex still waiting outside the mesh;
    // then the store's full scan finds a start.
    if (pLastTet == nullptr) pLastTet = hc3.getCloseTet(pVtx);
    VELM_ASSERT(!pLastTet->hasBeenVisited);
    insertVertex(pVtx, pLastTet);
    return pVtx;
  }
  bVerticesWaiting = true;
  Tet3* pFirstTet = createInitialTet();
  if (pFirstTet != nullptr && hc3.getNumStoredVtx() >= 5) {
    // Deliberately empty: the other stored vertices stay outside the mesh,
    // since later insertions triangulate only the vertices they add.
    std::vector<Point3*> vNone;
    triangulate(vNone, pFirstTet);
  }
  return pVtx;
}

// The first tetrahedron: among the stored vertices in key order, the
// lexicographically first index quadruple i<j<k<l that is not coplanar.
//
// The search needs only one pass. With i=0 and j=1: every k before the first
// one that is not collinear with v0, v1 leaves all l coplanar, and if that
// first such k finds no l off the plane, then all later points lie in the
// plane of v0, v1, vk (the skipped ones lie on the line v0 v1), so the whole
// set is coplanar and no other quadruple exists either. If no k is found, the
// whole set is collinear. Hence the result is the first quadruple of the full
// lexicographic search, found in linear time.
Tet3* Dt3::createInitialTet() {
  VELM_ASSERT(!bFullDimensional);
  std::vector<Point3*> v;
  hc3.getVertices(v);
  if (v.size() < 4) return nullptr;
  Point3* a = v[0];
  Point3* b = v[1];
  double pa[3], pb[3];
  a->xyz(pa[0], pa[1], pa[2]);
  b->xyz(pb[0], pb[1], pb[2]);
  size_t k = 2;
  for (; k < v.size(); ++k) {
    double pc[3];
    v[k]->xyz(pc[0], pc[1], pc[2]);
    // Collinear exactly when all three coordinate projections are.
    double axy[2] = {pa[0], pa[1]}, bxy[2] = {pb[0], pb[1]}, cxy[2] = {pc[0], pc[1]};
    double ayz[2] = {pa[1], pa[2]}, byz[2] = {pb[1], pb[2]}, cyz[2] = {pc[1], pc[2]};
    double azx[2] = {pa[2], pa[0]}, bzx[2] = {pb[2], pb[0]}, czx[2] = {pc[2], pc[0]};
    if (predicates.orient2d(axy, bxy, cxy) != 0.0 || predicates.orient2d(ayz, byz, cyz) != 0.0 ||
        predicates.orient2d(azx, bzx, czx) != 0.0)
      break;
  }
  if (k + 1 >= v.size()) return nullptr;
  Point3* c = v[k];
  for (size_t l = k + 1; l < v.size(); ++l) {
    Point3* d = v[l];
    Orientation3 ori = predicates.getOrientation3(a, b, c, d);
    if (ori == ORI3_ZERO) continue;
    if (ori == ORIENTATION3_NEGATIVE) std::swap(a, b);
    ori = predicates.getOrientation3(a, b, c, d);
    VELM_ASSERT(ori==ORIENTATION3_POSITIVE);
    Tet3* pTet = createTet(a, b, c, d);
    bFullDimensional = true;
    return pTet;
  }
  return nullptr;
}

// ---------------------------------------------------------------------------
// Insertion driver.

namespace {

// The split of [first, last) into levels: the middle element on this level,
// the halves on the next ones; below maxLevel nothing is split any more.
// sink(level, i) receives the elements.
template <class Sink>
void splitLevels(unsigned long first, unsigned long last, int level, int maxLevel, const Sink& sink) {
  if (last - first < 2 || level >= maxLevel) {
    for (unsigned long i = first; i < last; ++i) sink(level, i);
    return;
  }
  const unsigned long mid = first + (last - first) / 2;
  sink(level, mid);
  splitLevels(first, mid, level + 1, maxLevel, sink);
  splitLevels(mid + 1, last, level + 1, maxLevel, sink);
}

} // namespace

void getLevelsRec(std::vector<Point3*>& vVertices, unsigned long first, unsigned long last, int level,
                  int maxLevel, std::vector<std::vector<Point3*>>& vvLevels) {
  splitLevels(first, last, level, maxLevel,
              [&](int k, unsigned long i) { vvLevels[k].push_back(vVertices[i]); });
}

void Dt3::triangulate(std::vector<Point3*>& vVertices, Tet3* pLastTet) {
  triangulateList(vVertices, pLastTet, false);
}

// Inserts in levels of increasing fineness over the curve-ordered list; each
// level is walked in the direction that starts where the previous one ended.
// The levels are sized exactly, and a list of the intake's own (bConsume) is
// released once they hold it: the memory of a large insertion peaks at its
// end, with the most tetrahedra.
void Dt3::triangulateList(std::vector<Point3*>& vVertices, Tet3* pLastTet, bool bConsume) {
  if (pLastTet == nullptr) {
    goToHell("pLastTet==NULL in Dt3::triangulate");
    return;
  }
  if (vVertices.empty()) {
    consoleLine("Attention: triangulate has got an empty vector");
    return;
  }
  // The list may come from a caller of this public entry, not the intake.
  for (const Point3* p : vVertices) bAllFloorFree = bAllFloorFree && kernels::inFloorFreeRange(*p);
  const unsigned long n = vVertices.size();
  const int numLevels =
      std::max(static_cast<int>(std::ceil(std::log(static_cast<double>(n)) / 0.6931471805599453)) - 4, 0);
  std::vector<std::vector<Point3*>> vvLevels(numLevels + 1);
  std::vector<unsigned long> vLevelSizes(numLevels + 1, 0);
  splitLevels(0, n, 0, numLevels, [&](int k, unsigned long) { ++vLevelSizes[k]; });
  for (int k = 0; k <= numLevels; ++k) vvLevels[k].reserve(vLevelSizes[k]);
  getLevelsRec(vVertices, 0, n, 0, numLevels, vvLevels);
  if (bConsume) std::vector<Point3*>().swap(vVertices);

  // A report between two insertions finds the mesh complete for the
  // vertices inserted so far, so that stopping there is safe.
  unsigned long numDone = 0;
  const auto bStop = [&]() {
    if (pProgress == nullptr || ++numDone % numInsertionsPerReport != 0 || pProgress(pProgressUser, numDone, n))
      return false;
    bVerticesWaiting = true;
    return true;
  };
  Tet3* pCur = pLastTet;
  std::vector<Point3*> vCurve; // ranked once the first level goes to threads
  unsigned long numBefore = 0;  // the points of the levels before
  for (int k = 0; k <= numLevels; numBefore += vLevelSizes[k++]) {
    std::vector<Point3*>& vLevel = vvLevels[k];
    if (numThreads > 1 && numBefore >= minMeshForThreads && vLevel.size() >= minLevelForThreads) {
      if (vCurve.empty()) {
        hc3.getVertices(vCurve);
        for (size_t i = 0; i < vCurve.size(); ++i) vCurve[i]->setCurveRank(static_cast<unsigned int>(i));
      }
      pCur = triangulateLevelThreaded(vLevel, vCurve, numDone, n);
      if (pCur == nullptr) {
        bVerticesWaiting = true;
        return;
      }
      continue;
    }
    if (k % 2 == 0) {
      for (size_t i = vLevel.size(); i-- > 0;) {
        pCur = insertVertex(vLevel[i], pCur);
        if (bStop()) return;
      }
    } else {
      for (size_t i = 0; i < vLevel.size(); ++i) {
        pCur = insertVertex(vLevel[i], pCur);
        if (bStop()) return;
      }
    }
  }
}

void Dt3::setNumThreads(int n) {
  VELM_ASSERT(n>=0);
  numThreads = n > 0 ? n : std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  hc3.setNumThreads(numThreads);
}

void Dt3::debug_triangulateInOrder(std::vector<Point3*>& vVertices, Tet3* pLastTet) {
  fatBar("This is debug_triangulateInOrder", false, false);
  for (Point3*& pVtx : vVertices) pLastTet = insertVertex(pVtx, pLastTet);
}

Tet3* Dt3::locate(Point3 p) {
  Tet3* pTet = hc3.getCloseTet(p);
  if (pTet == nullptr) return nullptr;
  const int locateResult = locateConflictTet(&p, pTet);
  if (locateResult == locateInConflict || locateResult == locateOnVertex) return pTet;
  return nullptr;
}

Tet3* Dt3::findTetContaining(const Point3& p, Tet3* pHint) {
  if (!bFullDimensional) return nullptr;
  Point3 q(p.x(), p.y(), p.z());
  Tet3* pTet = pHint != nullptr ? pHint : hc3.getCloseTet(q);
  const int locateResult = locateConflictTet(&q, pTet);
  if (locateResult == locateInConflict || locateResult == locateOnVertex) return pTet;
  VELM_ASSERT(locateResult!=locateStepLimit);
  // The walk stopped at hull facet locateResult: q lies beyond it, or in its
  // plane and then in its closed triangle.
  return predicates.getOrientation3(pTet, locateResult, &q) == ORI3_ZERO ? pTet : nullptr;
}

void Dt3::findTetsContaining(const double* pXyz, size_t numRows, std::vector<Tet3*>& vTets) {
  vTets.assign(numRows, nullptr);
  if (!bFullDimensional) return;
  std::vector<std::pair<unsigned int, size_t>> vOrder;
  vOrder.reserve(numRows);
  for (size_t i = 0; i < numRows; ++i) {
    const double* p = pXyz + 3 * i;
    if (std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]))
      vOrder.emplace_back(hc3.iReset(Point3(p[0], p[1], p[2])), i);
  }
  std::sort(vOrder.begin(), vOrder.end());
  locateRunsThreaded(pXyz, vOrder, vTets);
}

void Dt3::insertPendingPoints() { fatBar("Dt3::insertPendingPoints() is currently not active", false, false); }

Point3* Dt3::createPendingVertex(double, double, double) {
  fatBar("Dt3::createPendingVertex is disabled", false, false);
  return nullptr;
}

// ---------------------------------------------------------------------------
// Point location: a visibility walk by exact orientation tests that never
// tests the facet through which it entered a tetrahedron.
//
// Results: locateInConflict (-1) the point is in pStartTet and in conflict
// with it; locateOnVertex (-2) a corner of pStartTet has the point's
// coordinates; 0..3 a hull facet of pStartTet that the point lies beyond, or
// in whose closed triangle it lies; locateStepLimit (-99) the step limit ran
// out.

[[gnu::always_inline]] inline Orientation3 Dt3::facetOrientation(Tet3* pTet, int ith, const Point3* pVtx, bool bFloorFree) const {
  // The floored form is the rare one and stays out of line, so that the
  // loops around the inlined floor-free form keep their registers.
  return bFloorFree ? orientationOfFacet<true>(predicates, pTet, ith, pVtx) : predicates.getOrientation3(pTet, ith, pVtx);
}

inline SphereInclusion Dt3::sphereInclusion(Tet3* pTet, const Point3* pVtx) const {
  return bAllFloorFree ? sphereInclusionOf<true>(predicates, pTet, pVtx) : predicates.sphereInclusionTest(pTet, pVtx);
}

int Dt3::locateConflictTet(Point3* pVtx, Tet3*& pStartTet) {
  if (pStartTet == nullptr) {
    goToHell("locateConflictTet");
    return locateStepLimit;
  }
  // A query of locate need not be stored: it must be in the range too.
  const bool bFloorFree = bAllFloorFree && kernels::inFloorFreeRange(*pVtx);
  int ith = 0;
  int numFacetsLeft = 4;
  int numSteps = 0;
  while (true) {
    if (numSteps == 10000) {
      // The walk cycled or the mesh is damaged: step to a random neighbour so
      // that a retry would start elsewhere, and give up.
      Tet3* pNeigh = pStartTet->getOppTet(rand() % 4);
      if (pNeigh != nullptr) pStartTet = pNeigh;
      consoleLine("watchDog: bad point");
      return locateStepLimit;
    }
    ++numSteps;
    const Orientation3 ori = facetOrientation(pStartTet, ith, pVtx, bFloorFree);
    if (ori == ORIENTATION3_NEGATIVE) {
      Tet3* pNext = pStartTet->getOppTet(ith);
      if (pNext == nullptr) return ith;
      const int entry = pNext->getIntraTetIndex(pStartTet);
      pStartTet = pNext;
      ith = nextFacetIndex[entry];
      numFacetsLeft = 3;
      continue;
    }
    if (ori == ORI3_ZERO) {
      const int result = coplanarCase(pVtx, pStartTet, ith, bFloorFree);
      if (result != walkGoesOn) return result;
    }
    ith = nextFacetIndex[ith];
    if (--numFacetsLeft == 0) {
      // All four facets are positive: the point is strictly inside.
      VELM_ASSERT(predicates.getOrientation3(pStartTet,0,pVtx)==ORIENTATION3_POSITIVE);
      VELM_ASSERT(predicates.getOrientation3(pStartTet,1,pVtx)==ORIENTATION3_POSITIVE);
      VELM_ASSERT(predicates.getOrientation3(pStartTet,2,pVtx)==ORIENTATION3_POSITIVE);
      VELM_ASSERT(predicates.getOrientation3(pStartTet,3,pVtx)==ORIENTATION3_POSITIVE);
      VELM_ASSERT(predicates.sphereInclusionTest(pStartTet,pVtx)==SIC_INSIDE);
      return locateInConflict;
    }
  }
}

// The point lies in the plane of facet ith. All four facets are tested again
// (the extra tests are no walk steps); a negative one means that the plane
// decides nothing and the walk goes on as after a positive facet. Otherwise
// the point lies in the closed tetrahedron: on a corner, inside a facet, or
// on an edge, round which the walk circulates until the edge closes (an
// inner edge) or reaches the hull.
int Dt3::coplanarCase(Point3* pVtx, Tet3*& pStartTet, int ith, bool bFloorFree) {
  if (pStartTet->hasVertex(*pVtx)) return locateOnVertex;
  int numPositive = 0, numNegative = 0, numCoplanar = 0;
  int outIndex = -1, opp2ICI = -1;
  for (int k = 0; k < 4; ++k) {
    const Orientation3 oriK = facetOrientation(pStartTet, k, pVtx, bFloorFree);
    if (oriK == ORIENTATION3_POSITIVE) {
      ++numPositive;
    } else if (oriK == ORIENTATION3_NEGATIVE) {
      ++numNegative;
    } else {
      ++numCoplanar;
      if (pStartTet->getOppTet(k) == nullptr) outIndex = k;
      if (k != ith) opp2ICI = k;
    }
  }
  if (numNegative > 0) return walkGoesOn;
  if (numPositive == 3 && numCoplanar == 1) return outIndex;
  VELM_ASSERT(numPositive==2);
  VELM_ASSERT(numCoplanar==2);
  VELM_ASSERT(opp2ICI>=0);
  // On the edge shared by facets ith and opp2ICI.
  const Edge3 startEdge(pStartTet, ith, opp2ICI);
  TetAroundEdgeIterator it(startEdge);
  while (it.getTet()->getOppTet(it.getOpp2Index()) != nullptr) {
    ++it;
    if (it.getEdge() == startEdge && it.getTet() == startEdge.getTet()) return locateInConflict;
  }
  pStartTet = it.getTet();
  outIndex = it.getOpp2Index();
  VELM_ASSERT(pStartTet!=NULL);
  VELM_ASSERT(pStartTet->getOppTet(outIndex)==NULL);
  return outIndex;
}

// ---------------------------------------------------------------------------
// Interior insertion: Bowyer-Watson with an explicit stack. The cavity grows
// from the located tetrahedron over facets whose neighbour has the point
// strictly inside its circumsphere; each boundary facet gets a new
// tetrahedron with the point as corner 0, so facet 0 of every new
// tetrahedron is its outer facet and facets 1, 2, 3 are inner ones.

inline void Dt3::enterCavity(Tet3* pTet, std::vector<Tet3*>& vFlood) {
  pTet->hasBeenVisited = true;
  vFlood.push_back(pTet);
  doom(pTet);
}

inline Tet3* Dt3::newTetOnFacet(Tet3* pCavTet, int ith, Point3* pVtx, Tet3* pOppTet) {
  Tet3* pNewTet = createTet(pCavTet, ith, pVtx);
  glueNewTet(pNewTet, pOppTet, pOppTet != nullptr ? pOppTet->getIntraTetIndex(pCavTet) : -1);
  return pNewTet;
}

inline void Dt3::glueNewTet(Tet3* pNewTet, Tet3* pOppTet, int j) { registry.glue(pNewTet, pOppTet, j); }

Tet3* Dt3::insertVertex(Point3*& pVtx, Tet3* pCurTet) {
  VELM_ASSERT(!pCurTet->hasBeenVisited);
  VELM_ASSERT(registry.getNumOpen()==0);
  VELM_ASSERT(registry.isOverflowEmpty());
  registry.startInsertion();

  const int locateResult = locateConflictTet(pVtx, pCurTet);
  if (locateResult == locateOnVertex) return duplicateInsertCheck(pVtx, pCurTet, locateResult);
  VELM_ASSERT(locateResult!=-99);
  if (locateResult >= 0) {
    Tet3* pRet = ch_insertVertex(pVtx, pCurTet, locateResult);
    VELM_ASSERT(pRet!=NULL);
    VELM_ASSERT(!pRet->hasBeenVisited);
    return pRet;
  }
  VELM_ASSERT(locateResult==-1);

  swapDoomedVectors();
  enterCavity(pCurTet, vStack);
  Tet3* pNewTet = nullptr;
  while (!vStack.empty()) {
    Tet3* pCavTet = vStack.back();
    vStack.pop_back();
    // The neighbours are read next; ask for all four at once.
    for (int i = 0; i < 4; ++i) __builtin_prefetch(pCavTet->getOppTet(i));
    for (int ith = 3; ith >= 0; --ith) {
      Tet3* pOppTet = pCavTet->getOppTet(ith);
      if (pOppTet != nullptr) {
        if (pOppTet->hasBeenVisited) continue;
        if (sphereInclusion(pOppTet, pVtx) != SIC_OUTSIDE) {
          enterCavity(pOppTet, vStack);
          continue;
        }
      }
      // At this point facet ith lies on the cavity's boundary.
      pNewTet = newTetOnFacet(pCavTet, ith, pVtx, pOppTet);
    }
  }
  tcsFinalPass();
  if (registry.getNumOpen() != 0) {
    consoleLine("numStoredTCS after insertVertex: " + std::to_string(registry.getNumOpen()));
    VELM_ASSERT(registry.getNumOpen()==0);
  }
  return pNewTet;
}

// ---------------------------------------------------------------------------
// Facet registry: the rare paths (the hot one is FacetRegistry::offer).

void reportSelfLink(Tet3* fromTet, Tet3* toTet) {
  std::cout << "register tets has been called with fromTet==toTet==" << static_cast<void*>(fromTet) << std::endl;
  std::cout << *fromTet << std::endl;
  VELM_ASSERT(fromTet!=toTet);
}

// The bucket holds another pair: the partner is looked for in a short
// overflow list, else the entry joins the list. A long list (a large cavity,
// thousands of open facets, as on the rounded planes of scanned data) is
// not scanned, which would make each cavity's gluing quadratic: its entries
// wait for finalPass.
void FacetRegistry::overflow(Tet3* pTet, int ith, Point3* pVtxLow, Point3* pVtxHigh) {
  if (vOverflow.size() <= maxScanned) {
    for (auto it = vOverflow.begin(); it != vOverflow.end(); ++it) {
      TwoTetStruct* pEntry = *it;
      if (pEntry->pVtxLow == pVtxLow && pEntry->pVtxHigh == pVtxHigh && pEntry->pTet != pTet) {
        link(pEntry->pTet, pEntry->ith, pTet, ith);
        *it = vOverflow.back();
        vOverflow.pop_back();
        --numOpen;
        return;
      }
    }
  }
  TwoTetStruct* pEntry = pool.nextObject();
  *pEntry = TwoTetStruct{pVtxLow, pVtxHigh, pTet, ith};
  vOverflow.push_back(pEntry);
  ++numOpen;
}

// Pairs the overflow list: sorted by pair, the two halves of a pair that
// both stayed in it lie side by side. A half whose partner took the bucket
// after it (when the pair that held the bucket had closed) is offered to the
// table again, and finds it there.
void FacetRegistry::finalPass() {
  if (vOverflow.empty()) return;
  const auto byPair = [](const TwoTetStruct* a, const TwoTetStruct* b) {
    return a->pVtxLow != b->pVtxLow ? a->pVtxLow < b->pVtxLow : a->pVtxHigh < b->pVtxHigh;
  };
  std::sort(vOverflow.begin(), vOverflow.end(), byPair);
  const size_t n = vOverflow.size();
  for (size_t i = 0; i < n; ++i) {
    const TwoTetStruct entry = *vOverflow[i];
    if (i + 1 < n && vOverflow[i + 1]->pVtxLow == entry.pVtxLow && vOverflow[i + 1]->pVtxHigh == entry.pVtxHigh) {
      link(entry.pTet, entry.ith, vOverflow[i + 1]->pTet, vOverflow[i + 1]->ith);
      numOpen -= 2;
      ++i;
      continue;
    }
    // Leaves the list for the table, where its partner waits.
    --numOpen;
    offer(hash(entry.pVtxLow, entry.pVtxHigh), entry.pTet, entry.ith, entry.pVtxLow, entry.pVtxHigh);
  }
  vOverflow.clear();
}

void FacetRegistry::clear() {
  std::fill(vTable.begin(), vTable.end(), nullptr);
  vOverflow.clear();
  pool.reset();
  numOpen = 0;
}

// ---------------------------------------------------------------------------
// Hull insertion: the point lies on or beyond the hull. The tetrahedra with a
// hull facet that the point sees are found by a flood over the hull surface;
// those in conflict go (with the conflict flood from them), the others stay
// and get a new tetrahedron on each visible hull facet.

Tet3* Dt3::ch_insertVertex(Point3*& pVtx, Tet3* pCurTet, int opp3ICI) {
  VELM_ASSERT(pCurTet!=NULL);
  VELM_ASSERT(opp3ICI>-1);
  VELM_ASSERT(registry.getNumOpen()==0);
  swapDoomedVectors();
  std::vector<Tet3*> vVisibleTets, vStayTets, vDoomedTets;
  ch_getVisibleTets(pVtx, pCurTet, opp3ICI, vVisibleTets);
  extractVisibleStayAndToBeDoomed(vVisibleTets, vStayTets, vDoomedTets, pVtx);
  Tet3* pNewTet1 = glueTetsToVisibleKeptOnes(vStayTets, pVtx);
  Tet3* pNewTet2 = nullptr;
  if (!vDoomedTets.empty()) pNewTet2 = glueTetsToBackSidesOfDoomedOnes(vDoomedTets, pVtx);
  tcsFinalPass();
  // What is still open now are the new hull facets; they keep null links.
  tcsReset();
  if (pNewTet1 != nullptr) return pNewTet1;
  if (pNewTet2 != nullptr) return pNewTet2;
  VELM_ASSERT(pNewTet1!=NULL);
  return nullptr;
}

void Dt3::ch_getVisibleTets(Point3*& pVtx, Tet3* pStartTet, int opp3ICI, std::vector<Tet3*>& vVisibleTets) {
  // The start facet counts as visible without a test: the point may lie in
  // its plane.
  vVisibleTets.push_back(pStartTet);
  std::set<Edge3> sEdges;
  std::vector<Edge3> vEdgeStack;
  for (int k = 0; k < 4; ++k) {
    if (k == opp3ICI) continue;
    const Edge3 e = pStartTet->getEdge(opp3ICI, k);
    vEdgeStack.push_back(e);
    sEdges.insert(e);
  }
  while (!vEdgeStack.empty()) {
    TetAroundEdgeIterator it(vEdgeStack.back());
    vEdgeStack.pop_back();
    // Turn away from the hull facet through the interior until the other
    // hull facet at this edge.
    while (it.getTet()->getOppTet(it.getOpp2Index()) != nullptr) ++it;
    Tet3* pCurTet = it.getTet();
    const int opp2ICI = it.getOpp2Index();
    VELM_ASSERT(pCurTet->getOppTet(opp2ICI)==NULL);
    if (facetOrientation(pCurTet, opp2ICI, pVtx, bAllFloorFree) != ORIENTATION3_NEGATIVE) continue;
    for (int k = 0; k < 4; ++k) {
      if (k == opp2ICI) continue;
      const Edge3 e = pCurTet->getEdge(opp2ICI, k);
      if (sEdges.insert(e).second) vEdgeStack.push_back(e);
    }
    vVisibleTets.push_back(pCurTet);
  }
  // A tetrahedron with several visible hull facets is listed once. They go
  // in the order of their labels, the order of their making: the new
  // tetrahedra then take their records in an order that the calls and their
  // points decide, not the addresses the pools' blocks happened to get.
  std::sort(vVisibleTets.begin(), vVisibleTets.end(),
            [](const Tet3* a, const Tet3* b) { return a->getLabel() < b->getLabel(); });
  vVisibleTets.erase(std::unique(vVisibleTets.begin(), vVisibleTets.end()), vVisibleTets.end());
}

void Dt3::extractVisibleStayAndToBeDoomed(std::vector<Tet3*>& vVisibleTets, std::vector<Tet3*>& vStayTets,
                                          std::vector<Tet3*>& vDoomedTets, Point3* pVtx) {
  for (Tet3* pTet : vVisibleTets) {
    if (sphereInclusion(pTet, pVtx) != SIC_OUTSIDE) {
      enterCavity(pTet, vDoomedTets);
    } else {
      vStayTets.push_back(pTet);
    }
  }
  if (vDoomedTets.empty()) return;
  std::vector<Tet3*> vWork(vDoomedTets);
  while (!vWork.empty()) {
    Tet3* pCurTet = vWork.back();
    vWork.pop_back();
    VELM_ASSERT(pCurTet!=NULL);
    for (int i = 0; i < 4; ++i) {
      Tet3* pOppTet = pCurTet->getOppTet(i);
      if (pOppTet == nullptr || pOppTet->hasBeenVisited) continue;
      if (sphereInclusion(pOppTet, pVtx) != SIC_OUTSIDE) {
        enterCavity(pOppTet, vWork);
        vDoomedTets.push_back(pOppTet);
      }
    }
  }
}

Tet3* Dt3::glueTetsToVisibleKeptOnes(std::vector<Tet3*>& vStayTets, Point3* pVtx) {
  if (vStayTets.empty()) return nullptr;
  Tet3* pNewTet = nullptr;
  for (Tet3* pCHTet : vStayTets) {
    VELM_ASSERT(!pCHTet->hasBeenVisited);
    for (int k = 0; k < 4; ++k) {
      if (pCHTet->getOppTet(k) != nullptr) continue;
      const Orientation3 orient = facetOrientation(pCHTet, k, pVtx, bAllFloorFree);
      if (orient == ORIENTATION3_POSITIVE || orient == ORI3_ZERO) continue;
      VELM_ASSERT(orient==ORIENTATION3_NEGATIVE);
      // The corners of facet k in the order of its orientation test: the new
      // tetrahedron lies outside, with facet 0 against facet k.
      Point3* c0 = pCHTet->getCorner(0);
      Point3* c1 = pCHTet->getCorner(1);
      Point3* c2 = pCHTet->getCorner(2);
      Point3* c3 = pCHTet->getCorner(3);
      switch (k) {
      case 0: pNewTet = createTet(pVtx, c1, c3, c2); break;
      case 1: pNewTet = createTet(pVtx, c0, c2, c3); break;
      case 2: pNewTet = createTet(pVtx, c0, c3, c1); break;
      default: pNewTet = createTet(pVtx, c0, c1, c2); break;
      }
      glueNewTet(pNewTet, pCHTet, k);
    }
  }
  VELM_ASSERT(pNewTet!=NULL);
  return pNewTet;
}

Tet3* Dt3::glueTetsToBackSidesOfDoomedOnes(std::vector<Tet3*>& vDoomedTets, Point3* pVtx) {
  if (vDoomedTets.empty()) {
    std::cout << "Warning: vDoomedTets() without input tets, returning NULL" << std::endl;
    VELM_ASSERT(false);
  }
  Tet3* pNewTet = nullptr;
  for (Tet3* pDoomedTet : vDoomedTets) {
    VELM_ASSERT(pDoomedTet->hasBeenVisited);
    for (int k = 0; k < 4; ++k) {
      // A facet seen from outside vanishes with the tetrahedron; a coplanar
      // one would give a flat tetrahedron.
      if (facetOrientation(pDoomedTet, k, pVtx, bAllFloorFree) != ORIENTATION3_POSITIVE) continue;
      Tet3* pOppTet = pDoomedTet->getOppTet(k);
      if (pOppTet != nullptr && pOppTet->hasBeenVisited) continue;
      pNewTet = newTetOnFacet(pDoomedTet, k, pVtx, pOppTet);
      VELM_ASSERT(pNewTet!=NULL);
      VELM_ASSERT(!pNewTet->hasBeenVisited);
    }
  }
  VELM_ASSERT(pNewTet!=NULL);
  return pNewTet;
}

// ---------------------------------------------------------------------------
// Duplicates: the walk met a corner with the point's coordinates.

Tet3* Dt3::duplicateInsertCheck(Point3*& pVtx, Tet3* pCurTet, int locateResult) {
  VELM_ASSERT(locateResult==-2);
  for (int i = 0; i < 4; ++i) {
    Point3* pCorner = pCurTet->getCorner(i);
    if (*pCorner == *pVtx) {
      pVtx = pCorner;
      return pCurTet;
    }
  }
  error("insertVertex()", "Proxy not found");
  return nullptr;
}

// ---------------------------------------------------------------------------
// Queries. They walk the mesh from the incident tetrahedra of the vertices
// with a visited set of their own (never the hasBeenVisited mark) and give
// their results in ascending address order, except getIncidentTetrahera,
// which gives discovery order.

void Dt3::getAllTetrahedra(std::vector<Tet3*>& vTet) {
  VELM_ASSERT(vTet.empty());
  collectTets(vTet);
  if (vTet.empty()) consoleLine("Dt3::getAllTetrahedra(), oneTet==NULL");
}

void Dt3::collectTets(std::vector<Tet3*>& vTet) const {
  std::vector<Point3*> vVertices;
  hc3.getVertices(vVertices);
  Tet3* pSeed = nullptr;
  for (Point3* pVtx : vVertices) {
    Tet3* pTet = pVtx->getOneTet();
    if (pTet != nullptr && !pTet->hasBeenVisited) {
      pSeed = pTet;
      break;
    }
  }
  if (pSeed == nullptr) return;
  std::vector<const BRIX_TOOLS::SimplePool<Tet3>*> vPools{&poolTet};
  for (const auto& pThread : vThreads) vPools.push_back(&pThread->getPool());
  BRIX_TOOLS::PoolRecordSet<Tet3> sSeen(vPools);
  std::vector<Tet3*> vWork;
  vWork.push_back(pSeed);
  sSeen.insert(pSeed);
  while (!vWork.empty()) {
    Tet3* pCurrentTet = vWork.back();
    vWork.pop_back();
    VELM_ASSERT(pCurrentTet!=NULL);
    for (int i = 0; i < 4; ++i) {
      Tet3* pOpp = pCurrentTet->getOppTet(i);
      if (pOpp != nullptr && sSeen.insert(pOpp)) vWork.push_back(pOpp);
    }
  }
  sSeen.appendTo(vTet);
}

void Dt3::getTetsAroundVertex(Point3* pVtx, std::vector<Tet3*>& vTet) {
  Tet3* pSeed = pVtx->getOneTet();
  if (pSeed == nullptr) error("Dt3::getTetsAroundVertex()", "pVtx does not belong to the triangulation");
  std::set<Tet3*> sSeen;
  std::vector<Tet3*> vWork;
  vWork.push_back(pSeed);
  sSeen.insert(pSeed);
  while (!vWork.empty()) {
    Tet3* pTet = vWork.back();
    vWork.pop_back();
    const int k = pTet->getIntraTetIndex(pVtx);
    for (int i = 0; i < 4; ++i) {
      if (i == k) continue;
      Tet3* pOpp = pTet->getOppTet(i);
      if (pOpp != nullptr && sSeen.insert(pOpp).second) vWork.push_back(pOpp);
    }
  }
  vTet.insert(vTet.end(), sSeen.begin(), sSeen.end());
}

void Dt3::getIncidentTetrahera(Point3* pVtx, std::vector<Tet3*>& vTet) {
  if (!bFullDimensional) {
    warning("Dt3::getIncidentTetrahedra()", "triangulation is not full dimensional yet");
    return;
  }
  if (pVtx->getOneTet() == nullptr) {
    warning("Dt3::getIncidentTetrahedra()", "pVtx not triangulated yet");
    return;
  }
  std::set<Tet3*> sSeen;
  std::vector<Tet3*> vWork;
  vWork.push_back(pVtx->getOneTet());
  while (!vWork.empty()) {
    Tet3* pTet = vWork.back();
    vWork.pop_back();
    for (int i = 0; i < 4; ++i) {
      Tet3* pOpp = pTet->getOppTet(i);
      if (pOpp == nullptr || !pOpp->hasVertex(pVtx) || !sSeen.insert(pOpp).second) continue;
      vTet.push_back(pOpp);
      vWork.push_back(pOpp);
    }
  }
}

// ---------------------------------------------------------------------------
// Validity check: exact orientation of every neighbour's opposite vertex and,
// on request, the empty-sphere property. Stops at the first fault and leaves
// a Geomview picture of it.

MeshFault Dt3::findFault(bool bCheckVisited, bool bCheckSphereInc, bool bComplete) const {
  std::vector<Tet3*> vTets;
  collectTets(vTets);
  MeshFault fault;
  const auto found = [&](MeshFault::Kind kind, Tet3* pTet, int ith, Point3* pVtx) {
    fault.kind = kind;
    fault.pTet = pTet;
    fault.ith = ith;
    fault.pVtx = pVtx;
    return fault;
  };
  for (Tet3* pTet : vTets) {
    if (bCheckVisited && pTet->hasBeenVisited) return found(MeshFault::VISITED, pTet, -1, nullptr);
    if (bComplete) {
      fault.ori = predicates.getOrientation3(pTet->getCorner(0), pTet->getCorner(1), pTet->getCorner(2),
                                             pTet->getCorner(3));
      if (fault.ori != ORIENTATION3_POSITIVE) return found(MeshFault::NOT_POSITIVE, pTet, -1, nullptr);
    }
    for (int i = 0; i < 4; ++i) {
      const Tet3* pOpp = pTet->getOppTet(i);
      if (pOpp == nullptr) continue;
      int j = 0;
      while (j < 4 && pOpp->getOppTet(j) != pTet) ++j;
      if (j == 4) return found(MeshFault::ONE_WAY_LINK, pTet, i, nullptr);
      Point3* pOppVtx = pOpp->getCorner(j);
      // The neighbour's facet j must be facet i: three corners of pTet, and
      // not the corner opposite facet i.
      if (bComplete)
        for (int k = 0; k < 3; ++k) {
          const Point3* pCorner = pOpp->getCorner(Tet3::facetIndices[j][k]);
          if (!pTet->hasVertex(pCorner) || pCorner == pTet->getCorner(i))
            return found(MeshFault::FACET_MISMATCH, pTet, i, pOppVtx);
        }
      fault.ori = predicates.getOrientation3(pTet, i, pOppVtx);
      if (fault.ori != ORIENTATION3_NEGATIVE) return found(MeshFault::SIDE, pTet, i, pOppVtx);
      if (bCheckSphereInc && predicates.sphereInclusionTest(pTet, pOppVtx) == SIC_INSIDE)
        return found(MeshFault::SPHERE, pTet, i, pOppVtx);
    }
  }
  if (bComplete) {
    // vTets is in ascending address order.
    std::vector<Point3*> vVertices;
    hc3.getVertices(vVertices);
    for (Point3* pVtx : vVertices) {
      Tet3* pOne = pVtx->getOneTet();
      if (pOne == nullptr || !pOne->hasVertex(pVtx) || !std::binary_search(vTets.begin(), vTets.end(), pOne))
        return found(MeshFault::VERTEX_OUT, pOne, -1, pVtx);
    }
  }
  fault.ori = ORIENTATION3_POSITIVE;
  return fault;
}

std::string MeshFault::describe() const {
  static const char* const aKindText[] = {"no fault",
                                          "a live tetrahedron is marked visited",
                                          "the neighbour does not link back",
                                          "the neighbour shares other corners",
                                          "the neighbour's vertex is not beyond the facet",
                                          "a vertex lies inside the circumsphere",
                                          "the corners are not in positive order",
                                          "a stored vertex is not in the mesh"};
  std::ostringstream oss;
  oss.precision(17);
  oss << aKindText[kind];
  if (pTet != nullptr) {
    oss << ": tetrahedron " << pTet->getLabel();
    for (int i = 0; i < 4; ++i) {
      const Point3* pCorner = pTet->getCorner(i);
      oss << (i == 0 ? " (" : ", ") << pCorner->x() << " " << pCorner->y() << " " << pCorner->z();
    }
    oss << ")";
  }
  if (ith >= 0) oss << ", facet " << ith;
  if (pVtx != nullptr) oss << ", vertex (" << pVtx->x() << " " << pVtx->y() << " " << pVtx->z() << ")";
  return oss.str();
}

// The report of each fault on the console, as the self-test has always given
// it; the search is findFault's. A neighbour that does not link back ends the
// process in getOppVtxInOppTet, where the broken link shows.
bool Dt3::checkValidity(const std::string& where, bool bCheckVisited, bool bCheckSphereInc) {
  std::vector<Tet3*> vTets;
  getAllTetrahedra(vTets);
  std::cout << redString("\n\n** CheckValidity at [ " + where + "]:", 0)
            << " Number of tetrahedra: " << vTets.size() << std::endl;
  std::cout << (bCheckVisited ? "   with --checkvisited" : "   without --checkvisited") << std::endl;
  std::cout << (bCheckSphereInc ? "   with --checkSphereInc" : "   without --checkSphereInc") << std::endl;
  std::cout << "   vTets.size()=" << vTets.size() << std::endl;

  const MeshFault fault = findFault(bCheckVisited, bCheckSphereInc, false);
  Tet3* pCurTet = fault.pTet;
  Point3* pOppVtx = fault.pVtx;
  switch (fault.kind) {
  case MeshFault::VISITED:
    error("Dt3::CheckValidity()", "pcurrentTet->hasBeenvisited=true");
    std::cout << *pCurTet << std::endl;
    VELM_ASSERT(false);
    return false;
  case MeshFault::ONE_WAY_LINK:
    pCurTet->getOppVtxInOppTet(fault.ith, true);
    return false;
  case MeshFault::SIDE:
    fatBar("ERROR: checkValidity at [" + where + "]", false, false);
    std::cout << "Dt3::checkValidity, HUH, vertex " << static_cast<void*>(pOppVtx)
              << " should be on the negative side, tet=" << std::endl;
    std::cout << *pCurTet << "oppIndex=" << fault.ith << ", Vertex=" << static_cast<void*>(pOppVtx) << "="
              << *pOppVtx << std::endl;
    showOrientation(fault.ori, "checkValidity");
    show(globalPrefix() + "negSideBug.list", pOppVtx);
    return false;
  case MeshFault::SPHERE: {
    fatBar("checkValidity: ERROR ERROR ERROR", false, false);
    std::cout << "Dt3::checkValidity, HUH - sphereIncTest failed: " << std::endl;
    std::cout << *pCurTet << ", Vertex=" << static_cast<void*>(pOppVtx) << "=" << *pOppVtx << std::endl;
    Visualizer3 vis(globalPrefix() + "sphereIncBug.list");
    vis.writeTetrahedron(pCurTet, "1 0 0 0.5");
    vis.writePoint(*pOppVtx, 8, Visualizer3::CWHITE);
    const Point3 center(pCurTet->getCircumcenter());
    const Point3* p0 = pCurTet->getCorner(0);
    const double dx = center.x() - p0->x(), dy = center.y() - p0->y(), dz = center.z() - p0->z();
    vis.writeBall(center, dx * dx + dy * dy + dz * dz, true);
    vis.closeFile();
    return false;
  }
  default: break;
  }
  std::cout << greenString("** CheckValidity at (" + where + ") has been finished, seems OK", 0) << std::endl
            << std::endl;
  return true;
}

// ---------------------------------------------------------------------------
// Debug output.

void Dt3::print(const std::string& name) {
  std::vector<Tet3*> vTets;
  getAllTetrahedra(vTets);
  std::cout << yellowString("\n\n**** Dt3::print(" + name + "), numTets=" + toString(vTets.size()), 0)
            << std::endl;
  for (Tet3* pTet : vTets) std::cout << *pTet << std::endl << std::endl;
}

void Dt3::show(const std::string& filename, Point3* pVtx) {
  std::vector<Tet3*> vTets;
  getAllTetrahedra(vTets);
  std::cout << yellowString("  Dt3::show(): vTets.size()=" + toString(vTets.size()), 0) << std::endl;
  Visualizer3 vis(filename);
  for (Tet3* pTet : vTets) {
    vis.writeTetrahedron(pTet, Visualizer3::getNextColor());
    for (int i = 0; i < 4; ++i) vis.writePoint(*pTet->getCorner(i), 5, Visualizer3::CGREEN);
  }
  if (pVtx != nullptr) vis.writePoint(*pVtx, 10, Visualizer3::CRED);
  vis.closeFile();
}

void Dt3::showOrientation(Orientation3 ori, const std::string& s) {
  std::cout << s << ": ";
  switch (ori) {
  case ORIENTATION3_POSITIVE: std::cout << "positive" << std::endl; break;
  case ORIENTATION3_NEGATIVE: std::cout << "negative" << std::endl; break;
  case ORI3_ZERO: std::cout << "coplanar" << std::endl; break;
  default: break;
  }
}

void showTets(const std::string& filename, std::vector<Tet3*>& vTets) {
  Visualizer3 vis(filename);
  for (Tet3* pTet : vTets) vis.writeTetrahedron(pTet, Visualizer3::getNextColor());
  vis.closeFile();
}

void showTets(const std::string& filename, std::vector<Tet3*>& vTets, const Point3& p) {
  Visualizer3 vis(filename);
  for (Tet3* pTet : vTets) vis.writeTetrahedron(pTet, Visualizer3::getNextColor());
  vis.writePoint(p, 4, Visualizer3::CWHITE);
  vis.closeFile();
}

void listTets(const std::string& name, std::vector<Tet3*>& vTets, bool bPointersOnly) {
  std::cout << std::endl;
  std::cout << "List of tetrahedra [ " << name << " ]; " << vTets.size() << " tets" << std::endl;
  for (Tet3* pTet : vTets) {
    if (bPointersOnly)
      std::cout << static_cast<void*>(pTet) << std::endl;
    else
      std::cout << *pTet << std::endl;
  }
  std::cout << std::endl;
}

} // namespace VELM3D
