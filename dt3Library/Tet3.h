// Tet3.h: the cell record of the mesh, and the handles on its edges and facets.
//
// Corner and facet numbering. Facet i is the facet opposite corner i, and
// neighbour i (aOppTets[i]) is the tetrahedron across it, null at a hull
// facet. Corners 0,1,2,3 of a live tetrahedron are in ORIENTATION3_POSITIVE
// order: corner 3 lies on the side to which (c1-c0) x (c2-c0) points.
//
//              3
//             /|\          facetIndices (corners of facet i, in the order
//            / | \         that keeps the orientation when corner i is
//           /  |  \        replaced by a point put in front):
//          0---|---2         facet 0: 1 2 3     facet 2: 0 1 3
//           \  |  /          facet 1: 0 3 2     facet 3: 0 2 1
//            \ | /
//             \|/
//              1
//
// Records come from raw pool memory and are filled by setProperties; they are
// never constructed in the usual way and never destroyed singly. Each
// setProperties gives the record a new label (from 1000 on) and makes the
// tetrahedron the incident one of its four corners. Labels come from the
// process-wide runningLabel, which a triangulation draws from in blocks
// (takeLabelBlock), so that each label is unique per life of a tetrahedron
// also when triangulations run in several threads, and increasing within
// one thread's block.
#pragma once

#include <algorithm>
#include <atomic>
#include <iosfwd>
#include <utility>
#include <vector>

#include "Point3.h"

namespace VELM3D {

class Edge3;
class Facet3;

class Tet3 {
public:
  Tet3();
  Tet3(const Tet3&);
  ~Tet3() {}

  // With the next label of runningLabel itself.
  void setProperties(Point3* a, Point3* b, Point3* c, Point3* d) { setProperties(a, b, c, d, runningLabel++); }
  void setProperties(Point3* a, Point3* b, Point3* c, Point3* d, int label_) {
    label = label_;
    aCorners[0] = a;
    aCorners[1] = b;
    aCorners[2] = c;
    aCorners[3] = d;
    a->setOneTet(this);
    b->setOneTet(this);
    c->setOneTet(this);
    d->setOneTet(this);
    aOppTets[0] = aOppTets[1] = aOppTets[2] = aOppTets[3] = nullptr;
    hasBeenVisited = false;
    customIndex = -1;
  }

  Point3* getCorner(int i) const { return aCorners[i]; }
  void setCorner(int i, Point3* p) { aCorners[i] = p; }
  void getCorners(Point3*& a, Point3*& b, Point3*& c, Point3*& d) const {
    a = aCorners[0];
    b = aCorners[1];
    c = aCorners[2];
    d = aCorners[3];
  }
  Tet3* getOppTet(int i) const { return aOppTets[i]; }
  Tet3* getOppTet(const Point3* p) const { return aOppTets[getIntraTetIndex(p)]; }
  void setOppTet(int i, Tet3* t) { aOppTets[i] = t; }
  int getCustomIndex() const { return customIndex; }
  void setCustomIndex(int ci) { customIndex = ci; }
  int getLabel() const { return label; }

  bool hasVertex(const Point3* p) const {
    return aCorners[0] == p || aCorners[1] == p || aCorners[2] == p || aCorners[3] == p;
  }
  bool hasVertex(const Point3& p) const {
    return *aCorners[0] == p || *aCorners[1] == p || *aCorners[2] == p || *aCorners[3] == p;
  }
  // Index of corner p; anything that is no corner answers 3, unchecked.
  int getIntraTetIndex(const Point3* p) const {
    if (aCorners[0] == p) return 0;
    if (aCorners[1] == p) return 1;
    if (aCorners[2] == p) return 2;
    return 3;
  }
  // Index i with aOppTets[i]==t; a t that is no neighbour ends the process.
  int getIntraTetIndex(const Tet3* t) const {
    if (aOppTets[0] == t) return 0;
    if (aOppTets[1] == t) return 1;
    if (aOppTets[2] == t) return 2;
    if (aOppTets[3] == t) return 3;
    intraTetIndexFailed(t);
  }
  int getIntraTetIndexInOppTet(int i) const { return aOppTets[i]->getIntraTetIndex(this); }
  int getIntraTetIndexInOppTetForReg(const Tet3* pOpp, int ith) const;
  Point3* getOppVtxInOppTet(int i, bool bNullAllowed) const;
  void getFacetIndices(int i, int& a, int& b, int& c) const {
    a = facetIndices[i][0];
    b = facetIndices[i][1];
    c = facetIndices[i][2];
  }
  static std::pair<int, int> getEdgeIndices(int i, int j);
  Point3 getCircumcenter() const;
  static bool haveCommonFacet(Tet3* pA, int ith, Tet3* pB, int jth);
  int debug_getOppTetIndex(int i) const;

  Edge3 getEdge(int opp3, int opp2);
  Facet3 getFacet(int i);

  static std::atomic<int> runningLabel;
  // The first of numLabels fresh labels, for a triangulation to hand out.
  static int takeLabelBlock(int numLabels) { return runningLabel.fetch_add(numLabels, std::memory_order_relaxed); }
  static const int facetIndices[4][3];

  bool hasBeenVisited;

private:
  [[noreturn]] void intraTetIndexFailed(const Tet3* t) const;

  int label;
  Point3* aCorners[4];
  Tet3* aOppTets[4];
  int customIndex;

  friend std::ostream& operator<<(std::ostream& stream, const Tet3& tet);
};

std::ostream& operator<<(std::ostream& stream, const Tet3& tet);

// An edge named through a tetrahedron by the two corners that are not on it.
// Crossing the facet opposite corner opp2ICI stays on the edge and leads on
// around it; opp3ICI is the corner the walk has just left behind.
class Edge3 {
public:
  Edge3(Tet3* pTet, int opp3ICI, int opp2ICI);

  Tet3* getTet() const { return pTet; }
  int getOpp3Index() const { return opp3ICI; }
  int getOpp2Index() const { return opp2ICI; }
  int getSourceIndex() const { return edgeSrcTable[opp3ICI][opp2ICI]; }
  int getTargetIndex() const { return edgeTrgTable[opp3ICI][opp2ICI]; }
  Point3* getSourceVtx() const { return pTet->getCorner(getSourceIndex()); }
  Point3* getTargetVtx() const { return pTet->getCorner(getTargetIndex()); }

  bool operator<(const Edge3& e) const;
  bool operator==(const Edge3& e) const;
  bool operator!=(const Edge3& e) const { return !(*this == e); }

  static const int edgeSrcTable[4][4];
  static const int edgeTrgTable[4][4];

private:
  Tet3* pTet;
  int opp3ICI;
  int opp2ICI;
  Point3* pVtxMin;
  Point3* pVtxMax;
};

std::ostream& operator<<(std::ostream& stream, Edge3& e);

// A facet named through a tetrahedron by the corner opposite it.
class Facet3 {
public:
  Facet3(Tet3* pTet_, int opp3ICI_) : pTet(pTet_), opp3ICI(opp3ICI_) {}
  Tet3* getTet() { return pTet; }
  int getOpp3Index() const { return opp3ICI; }
  int getIntraTetIndex(int ith) const { return facetCornerTable[opp3ICI][ith]; }
  Edge3 getEdge(int ith) const { return Edge3(pTet, opp3ICI, getIntraTetIndex(ith)); }
  bool operator==(const Facet3& f) const;
  bool operator!=(const Facet3& f) const { return !(*this == f); }

  static const int facetCornerTable[4][3];

private:
  Tet3* pTet;
  int opp3ICI;
};

// An edge handle whose tetrahedron moves round the edge. It keeps no memory
// of its start; a caller that wants to notice the return keeps a copy. It
// reads like the Edge3 it holds.
class TetAroundEdgeIterator {
public:
  explicit TetAroundEdgeIterator(const Edge3& e) : curEdge(e), pAux(nullptr), auxIndex(-1) {}
  TetAroundEdgeIterator& operator++();

  operator const Edge3&() const { return curEdge; }
  const Edge3& getEdge() const { return curEdge; }
  Tet3* getTet() const { return curEdge.getTet(); }
  int getOpp3Index() const { return curEdge.getOpp3Index(); }
  int getOpp2Index() const { return curEdge.getOpp2Index(); }
  Point3* getSourceVtx() const { return curEdge.getSourceVtx(); }
  Point3* getTargetVtx() const { return curEdge.getTargetVtx(); }

private:
  Edge3 curEdge;
  [[maybe_unused]] void* pAux;
  [[maybe_unused]] int auxIndex;
};

// Sorts by value and removes repeated elements, keeping one of each.
template <class Container> void oneInstance(Container& v) {
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
}

} // namespace VELM3D
