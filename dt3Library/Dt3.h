// Dt3.h: the triangulation object behind the facade.
//
// Dt3 owns all tetrahedra (through poolTet), all vertices (through hc3), the
// exact predicates and the facet registry. It has two states: before the
// first tetrahedron (points only collect in hc3) and after it (every new
// point is located and inserted). The move is one-way.
//
// Mesh invariants, which hold between insertions and which every insertion
// restores:
//  - Facet i is opposite corner i; neighbour i is the tetrahedron across it,
//    null at a hull facet. There is no infinite vertex: the live tetrahedra
//    fill the convex hull of the inserted vertices.
//  - Corners 0..3 of a live tetrahedron are ORIENTATION3_POSITIVE; the
//    neighbour's opposite vertex lies strictly on the negative side of the
//    shared facet.
//  - Neighbour links are symmetric; no live tetrahedron refers to a retired
//    one. hasBeenVisited is false on live and true on retired tetrahedra.
//  - No vertex lies strictly inside a live circumsphere (cospherical vertices
//    are allowed and left as they fall).
//  - Point3::getOneTet of a mesh vertex is a live incident tetrahedron.
//  - The facet registry is empty.
//
// Retired tetrahedra are recycled: an insertion dooms into vDoomed, and the
// exchange of vDoomed and vDoomedPrev at the start of the next insertion
// makes them available to createTet, last retired first reused.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BrixTest3.h"
#include "HC3.h"
#include "freeFunctions.h"
#include "SimplePool.h"
#include "Tet3.h"

namespace VELM3D {

class Velm_3D;
class Surface3;
class InsertionThread;

// What the walk of locateConflictTet answers besides a hull facet index 0..3.
constexpr int locateInConflict = -1; // strictly inside pStartTet, in conflict with it
constexpr int locateOnVertex = -2;   // a corner of pStartTet has the point's coordinates
constexpr int locateStepLimit = -99; // the walk's watchdog ran out of steps

// The first fault that Dt3::findFault meets, or kind NONE. pTet is the
// tetrahedron that shows it; ith its facet where the fault is one of a facet
// (-1 otherwise); pVtx the vertex concerned (null where none is).
struct MeshFault {
  enum Kind {
    NONE,
    VISITED,        // a live tetrahedron carries the retirement mark
    ONE_WAY_LINK,   // the neighbour across facet ith does not link back
    FACET_MISMATCH, // ... or does, but not with the three corners of facet ith
    SIDE,           // the neighbour's vertex pVtx is not strictly beyond facet ith
    SPHERE,         // pVtx lies strictly inside the circumsphere of pTet
    NOT_POSITIVE,   // the corners of pTet are not in positive order
    VERTEX_OUT      // the stored vertex pVtx is not a corner of a live tetrahedron
  };
  Kind kind = NONE;
  Tet3* pTet = nullptr;
  int ith = -1;
  Point3* pVtx = nullptr;
  Orientation3 ori = ORIENTATION3_POSITIVE; // the answer of the failed orientation test

  explicit operator bool() const { return kind != NONE; }
  // One line: the kind in words, the tetrahedron's label and corners, the
  // facet and the vertex's coordinates.
  std::string describe() const;
};

// One open facet of the insertion at work: a tetrahedron and the index of a
// facet that waits for its partner. The facet is named by its two vertices
// other than the new vertex, lower address first.
struct TwoTetStruct {
  Point3* pVtxLow;
  Point3* pVtxHigh;
  Tet3* pTet;
  int ith;
};

// registerTets asked to link a tetrahedron to itself: the report.
void reportSelfLink(Tet3* fromTet, Tet3* toTet);

// The facet registry of one insertion at work. All inner facets of one
// insertion contain the new vertex, so an inner facet is named by its two
// other vertices. The first tetrahedron with a pair leaves an open entry, the
// second closes it and the two are linked at once. 1024 buckets of one entry
// plus a flat overflow list. Each thread of a threaded insertion has its own.
class FacetRegistry {
public:
  FacetRegistry() : vTable(1024, nullptr), numOpen(0) { pool.init(1024, 512); }
  FacetRegistry(const FacetRegistry&) = delete;
  FacetRegistry& operator=(const FacetRegistry&) = delete;

  static unsigned long hash(const Point3* pLow, const Point3* pHigh) {
    const unsigned long a = reinterpret_cast<unsigned long>(pLow);
    const unsigned long b = reinterpret_cast<unsigned long>(pHigh);
    return ((a >> 5) & 31) | (b & 0x3E0);
  }
  // Links two tetrahedra across a facet, both ways.
  [[gnu::always_inline]] static void link(Tet3* fromTet, int ith, Tet3* toTet, int jth) {
    VELM_ASSERT(range03(ith));
    VELM_ASSERT(range03(jth));
    VELM_ASSERT(toTet!=NULL);
    if (fromTet == toTet) reportSelfLink(fromTet, toTet);
    toTet->setOppTet(jth, fromTet);
    fromTet->setOppTet(ith, toTet);
  }
  // Offers facet ith of pTet, named by its pair (lower address first) and
  // hashed by hash(); the hot path of the insertion, always inlined into it
  // (GCC drops it from the threads' insert once their file grows).
  [[gnu::always_inline]] void offer(unsigned long h, Tet3* pTet, int ith, Point3* pVtxLow, Point3* pVtxHigh) {
    TwoTetStruct*& pBucket = vTable[h];
    if (pBucket == nullptr) {
      pBucket = pool.nextObject();
      *pBucket = TwoTetStruct{pVtxLow, pVtxHigh, pTet, ith};
      ++numOpen;
      return;
    }
    if (pBucket->pVtxLow == pVtxLow && pBucket->pVtxHigh == pVtxHigh) {
      // The entry's own tetrahedron is not compared here.
      --numOpen;
      link(pBucket->pTet, pBucket->ith, pTet, ith);
      pBucket = nullptr;
      return;
    }
    overflow(pTet, ith, pVtxLow, pVtxHigh);
  }
  // Links facet 0 of a new tetrahedron (corner 0 the new vertex) to facet j
  // of pOppTet when there is one, and offers its three inner facets, each
  // named by its pair of other corners. Always inlined: the threads' insert
  // is too large for the compiler to take it in by itself, and there the
  // call went out of line through the PLT (7 % more time a point).
  [[gnu::always_inline]] void glue(Tet3* pNewTet, Tet3* pOppTet, int j) {
    if (pOppTet != nullptr) link(pNewTet, 0, pOppTet, j);
    Point3* p[3] = {pNewTet->getCorner(1), pNewTet->getCorner(2), pNewTet->getCorner(3)};
    int idx[3] = {1, 2, 3};
    // Three-element sort by address, keeping each corner's index.
    if (p[1] < p[0]) {
      std::swap(p[0], p[1]);
      std::swap(idx[0], idx[1]);
    }
    if (p[2] < p[1]) {
      std::swap(p[1], p[2]);
      std::swap(idx[1], idx[2]);
      if (p[1] < p[0]) {
        std::swap(p[0], p[1]);
        std::swap(idx[0], idx[1]);
      }
    }
    offer(hash(p[1], p[2]), pNewTet, idx[0], p[1], p[2]);
    offer(hash(p[0], p[2]), pNewTet, idx[1], p[0], p[2]);
    offer(hash(p[0], p[1]), pNewTet, idx[2], p[0], p[1]);
  }
  // Offers the overflow list again, from its back, and empties it.
  void finalPass();
  // Forgets every open entry (the new hull facets of a hull insertion).
  void clear();
  // The entries' memory is reused from the start of each insertion.
  void startInsertion() { pool.reset(); }
  int getNumOpen() const { return numOpen; }
  bool isOverflowEmpty() const { return vOverflow.empty(); }

private:
  static bool range03(int i) { return i >= 0 && i <= 3; }
  // The bucket holds another pair: the overflow list, scanned for the
  // partner while it holds at most maxScanned entries.
  static constexpr size_t maxScanned = 32;
  void overflow(Tet3* pTet, int ith, Point3* pVtxLow, Point3* pVtxHigh);

  BRIX_TOOLS::SimplePool<TwoTetStruct> pool;
  std::vector<TwoTetStruct*> vTable;
  std::vector<TwoTetStruct*> vOverflow;
  int numOpen;
};

void getLevelsRec(std::vector<Point3*>& vVertices, unsigned long first, unsigned long last,
                  int level, int maxLevel, std::vector<std::vector<Point3*>>& vvLevels);

class Dt3 {
public:
  explicit Dt3(Velm_3D* pInterface);
  ~Dt3();
  Dt3(const Dt3&) = delete;
  Dt3& operator=(const Dt3&) = delete;

  // Frame and intake.
  Velm_3D* getInterface() { return pInterface; }
  void setVerbosity(bool bVerbose_) { bVerbose = bVerbose_; }
  bool is3D() const { return bFullDimensional; }
  void getVertexPointers(std::vector<Point3*>& vVtx) const { hc3.getVertices(vVtx); }
  void insertVector(std::vector<Point3>& vPoints, std::vector<Point3*>& vUserHandles);
  Point3* insert(Point3& p);

  // Making and retiring tetrahedra.
  Tet3* createInitialTet();
  // Forced in line: the cavity loop makes one per boundary facet.
  [[gnu::always_inline]] Tet3* createTet(Point3* a, Point3* b, Point3* c, Point3* d) {
    Tet3* ret;
    if (!vDoomedPrev.empty()) {
      ret = vDoomedPrev.back();
      vDoomedPrev.pop_back();
    } else {
      ret = newTetFromPool();
    }
    ret->setProperties(a, b, c, d, takeLabel());
    return ret;
  }
  // The next label of this triangulation's block, a new block when it is
  // used up.
  int takeLabel() {
    if (__builtin_expect(nextLabel == labelEnd, 0)) takeLabelBlock();
    return nextLabel++;
  }
  void takeLabelBlock();
  static constexpr int labelBlockSize = 4096;
  Tet3* createTet(Tet3* pTet, int ith, Point3* pVtx) {
    const int* fi = Tet3::facetIndices[(ith >= 0 && ith < 3) ? ith : 3];
    return createTet(pVtx, pTet->getCorner(fi[0]), pTet->getCorner(fi[1]), pTet->getCorner(fi[2]));
  }
  void doom(Tet3* pTet) {
    pTet->setCustomIndex(-1);
    vDoomed.push_back(pTet);
  }
  void swapDoomedVectors() { vDoomed.swap(vDoomedPrev); }

  // Insertion driver.
  void triangulate(std::vector<Point3*>& vVertices, Tet3* pLastTet);

  // Progress of a bulk insertion, for a progress display or an interrupt.
  // After every numInsertionsPerReport insertions, triangulate calls
  // f(pUser, numDone, numTotal) for its current list; an answer of false
  // stops the insertion at that point. The mesh is then the Delaunay
  // triangulation of the vertices inserted so far, with all invariants kept.
  // The other vertices of the list stay in the store without a tetrahedron
  // (getOneTet() null); a later triangulate of exactly those vertices
  // completes the mesh, while insertVector skips them as already stored. The
  // object can be read, queried and destroyed as usual. A null f (the
  // default) reports nothing.
  typedef bool (*ProgressCallback)(void* pUser, unsigned long numDone, unsigned long numTotal);
  static constexpr unsigned long numInsertionsPerReport = 4096;
  // A level of a bulk insertion goes to the threads once the mesh has
  // minMeshForThreads vertices and the level minLevelForThreads points; the
  // smaller levels before run on one thread.
  static constexpr unsigned long minMeshForThreads = 2000;
  static constexpr unsigned long minLevelForThreads = 1000;
  void setProgressCallback(ProgressCallback f, void* pUser) {
    pProgress = f;
    pProgressUser = pUser;
  }
  // Threads of the bulk insertion (see Velm_3D::setNumThreads).
  void setNumThreads(int n);
  int getNumThreads() const { return numThreads; }
  void debug_triangulateInOrder(std::vector<Point3*>& vVertices, Tet3* pLastTet);
  Tet3* locate(Point3 p);
  // A live tetrahedron whose closed set holds p (a point on a facet, an
  // edge or a vertex of the hull counts as inside), null outside the convex
  // hull or before the first tetrahedron. The walk starts at pHint when it
  // is given (a live tetrahedron near p: the answer for the previous query
  // of a batch in curve order), else at the store's close tetrahedron.
  Tet3* findTetContaining(const Point3& p, Tet3* pHint = nullptr);
  // findTetContaining for each row of the row-major array pXyz, into
  // vTets[row] (resized to numRows); null for rows outside the hull and for
  // rows with a NaN or infinite coordinate. The rows are visited in the
  // store's curve order, each walk starting at the previous answer; with
  // more than one thread set (setNumThreads), each thread takes an equal run
  // of that order. With a progress callback set, it is called about every
  // numInsertionsPerReport rows, from the caller's thread, and can stop the
  // work (the rows not reached stay null).
  void findTetsContaining(const double* pXyz, size_t numRows, std::vector<Tet3*>& vTets);
  // Stores the numRows points of the row-major array pXyz (x, y, z per row)
  // and inserts every stored vertex that is not yet in the mesh, whichever
  // call stored it, as soon as the points span space. vUserHandles gets the
  // stored vertex of each row, at the row's index. Unlike insertVector, no
  // stored vertex is ever left waiting once the mesh is full dimensional.
  void insertRows(const double* pXyz, size_t numRows, std::vector<Point3*>& vUserHandles);
  void insertPendingPoints();
  Point3* createPendingVertex(double x, double y, double z);

  // One insertion.
  int locateConflictTet(Point3* pVtx, Tet3*& pStartTet);
  Tet3* insertVertex(Point3*& pVtx, Tet3* pCurTet);
  Tet3* duplicateInsertCheck(Point3*& pVtx, Tet3* pCurTet, int locateResult);

  // Facet registry (see FacetRegistry). tcsTreatment offers one inner facet
  // of the insertion at work (named by its pair of other vertices, lower
  // address first, and hashed by tcsHash); registerTets links two tetrahedra
  // across a facet. Both are the hot path of the insertion.
  void tcsTreatment(unsigned long hash, Tet3* pTet, int ith, Point3* pVtxLow, Point3* pVtxHigh) {
    registry.offer(hash, pTet, ith, pVtxLow, pVtxHigh);
  }
  static void registerTets(Tet3* fromTet, int ith, Tet3* toTet, int jth) { FacetRegistry::link(fromTet, ith, toTet, jth); }
  // Offers the overflow list again, from its back, and empties it.
  void tcsFinalPass() { registry.finalPass(); }
  void tcsReset() { registry.clear(); }
  static unsigned long tcsHash(const Point3* pLow, const Point3* pHigh) { return FacetRegistry::hash(pLow, pHigh); }

  // Hull insertion.
  Tet3* ch_insertVertex(Point3*& pVtx, Tet3* pCurTet, int opp3ICI);
  void ch_getVisibleTets(Point3*& pVtx, Tet3* pCurTet, int opp3ICI, std::vector<Tet3*>& vVisibleTets);
  void extractVisibleStayAndToBeDoomed(std::vector<Tet3*>& vVisibleTets, std::vector<Tet3*>& vStayTets,
                                       std::vector<Tet3*>& vDoomedTets, Point3* pVtx);
  Tet3* glueTetsToVisibleKeptOnes(std::vector<Tet3*>& vStayTets, Point3* pVtx);
  Tet3* glueTetsToBackSidesOfDoomedOnes(std::vector<Tet3*>& vDoomedTets, Point3* pVtx);

  // Queries, validation and debug output.
  void getAllTetrahedra(std::vector<Tet3*>& vTet);
  // The same tetrahedra in the order of their records (pool by pool, block
  // by block), without a walk: a scan of the records the pools have handed
  // out, where hasBeenVisited tells the retired from the live, on numThreads
  // threads (ThreadedInsertion.cpp). The order is the same for every count.
  // vTet must be empty.
  void getTetrahedraInRecordOrder(std::vector<Tet3*>& vTet) const;
  void getTetsAroundVertex(Point3* pVtx, std::vector<Tet3*>& vTet);
  void getIncidentTetrahera(Point3* pVtx, std::vector<Tet3*>& vTet);
  bool checkValidity(const std::string& where, bool bCheckVisited, bool bCheckSphereInc);
  // The quiet self-test: the first fault of the mesh, or kind NONE; prints
  // nothing, writes nothing, changes nothing. Every live tetrahedron is
  // visited in the order of getAllTetrahedra and its facets 0..3 in turn:
  // the visited mark (bCheckVisited), the neighbour linking back, its vertex
  // strictly beyond the facet and, with bCheckSphereInc, not strictly inside
  // the circumsphere; checkValidity reports what this finds. bComplete adds
  // the positive order of each tetrahedron's corners, the neighbour sharing
  // the facet's three corners, and that every stored vertex is a corner of a
  // live tetrahedron (which a mesh built by single insertions need not
  // satisfy, since those can leave vertices waiting).
  MeshFault findFault(bool bCheckVisited, bool bCheckSphereInc, bool bComplete) const;
  void print(const std::string& name);
  void show(const std::string& filename, Point3* pVtx);
  void showOrientation(Orientation3 ori, const std::string& s);

  Surface3* createEmptySurface();


private:
  // Every live tetrahedron, by a walk from the first stored vertex that has
  // one, appended in ascending address order; nothing when there is none.
  void collectTets(std::vector<Tet3*>& vTet) const;
  // The locations of findTetsContaining, vOrder (curve key, row) in runs
  // on numThreads threads (ThreadedInsertion.cpp).
  void locateRunsThreaded(const double* pXyz, const std::vector<std::pair<unsigned int, size_t>>& vOrder,
                          std::vector<Tet3*>& vTets);
  // One level of triangulateList on numThreads threads (ThreadedInsertion.cpp):
  // rounds of threads on owned curve ranges, then one thread for the rest.
  // vCurve is the store's curve order, ranked. numDone counts insertions
  // for the progress report. Returns a live tetrahedron, or null when the
  // progress callback stopped the work.
  Tet3* triangulateLevelThreaded(std::vector<Point3*>& vLevel, const std::vector<Point3*>& vCurve,
                                 unsigned long& numDone, unsigned long numTotal);
  // The threads' points and ranges of a round on the shifted grid
  // (ThreadedInsertion.cpp); the ranks of vCurve hold their owners until
  // the round has ended.
  void assignCells(const std::vector<Point3*>& vActive, const std::vector<Point3*>& vCurve, size_t numT, int round);
  // The same for a late round of two threads: the sides of a plane.
  void assignHalves(const std::vector<Point3*>& vActive, const std::vector<Point3*>& vCurve);
  // triangulate; with bConsume, vVertices is released once split into levels.
  void triangulateList(std::vector<Point3*>& vVertices, Tet3* pLastTet, bool bConsume);
  // Takes a fresh record from the pool (when no retired one is waiting).
  Tet3* newTetFromPool();

  // The insertion's tests, in the form the range allows (see bAllFloorFree).
  inline Orientation3 facetOrientation(Tet3* pTet, int ith, const Point3* pVtx, bool bFloorFree) const;
  inline SphereInclusion sphereInclusion(Tet3* pTet, const Point3* pVtx) const;
  // The walk's answer for a point in the plane of facet ith, or walkGoesOn.
  static constexpr int walkGoesOn = -3;
  int coplanarCase(Point3* pVtx, Tet3*& pStartTet, int ith, bool bFloorFree);

  // Cavity steps shared by the interior and the hull path: a tetrahedron in
  // conflict is marked, pushed for the flood and doomed; a boundary facet of
  // the cavity gets a new tetrahedron (corner 0 the new vertex) whose facet 0
  // is linked to pOppTet (null: a hull facet) and whose inner facets go to
  // the registry.
  [[gnu::always_inline]] inline void enterCavity(Tet3* pTet, std::vector<Tet3*>& vFlood);
  [[gnu::always_inline]] inline Tet3* newTetOnFacet(Tet3* pCavTet, int ith, Point3* pVtx, Tet3* pOppTet);
  // Links facet 0 of a new tetrahedron to facet j of pOppTet when there is
  // one, and offers the three inner facets (each named by its pair of other
  // corners) to the registry.
  [[gnu::always_inline]] inline void glueNewTet(Tet3* pNewTet, Tet3* pOppTet, int j);
  FacetRegistry registry;
  BRIX_TOOLS::SimplePool<Tet3> poolTet;
  std::vector<Tet3*> vDoomed;
  std::vector<Tet3*> vDoomedPrev;
  ExactTest predicates;
  bool bFullDimensional;
  HC3 hc3;
  std::vector<Surface3*> vSurfaces;
  Velm_3D* pInterface;
  bool bVerbose;
  // The cavity stack of insertVertex; kept between calls so that the hot
  // path does not allocate. Empty between insertions.
  std::vector<Tet3*> vStack;
  ProgressCallback pProgress;
  void* pProgressUser;
  // Whether every coordinate stored so far is 0 or of magnitude in
  // [2^-150, 2^199): then the walk and the cavity use the predicates'
  // floor-free forms, which skip the floor for underflow. Cleared for good by
  // the first point outside.
  bool bAllFloorFree;
  // Whether some stored vertex may be outside the mesh (stored before the
  // first tetrahedron, left out by insert or insertVector, or not reached
  // after a stop); insertRows then takes them all in.
  bool bVerticesWaiting;
  // Threads of a bulk insertion, 1 or more.
  int numThreads;
  // The threads' own records and registries, kept for later insertions.
  std::vector<std::unique_ptr<InsertionThread>> vThreads;
  // The labels [nextLabel, labelEnd) are this triangulation's to give.
  int nextLabel;
  int labelEnd;
};

// Free debug output of tetrahedron lists.
void showTets(const std::string& filename, std::vector<Tet3*>& vTets);
void showTets(const std::string& filename, std::vector<Tet3*>& vTets, const Point3& p);
void listTets(const std::string& name, std::vector<Tet3*>& vTets, bool bPointersOnly);

} // namespace VELM3D
