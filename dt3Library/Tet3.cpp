// Tet3.cpp: the tetrahedron record's tables, checks and stream form, and the
// edge and facet handles. The numbering of corners and facets is drawn in
// Tet3.h beside facetIndices.
#include "Tet3.h"

#include <cstdlib>
#include <iostream>

#include "BrixTest3.h"
#include "freeFunctions.h"

namespace VELM3D {

std::atomic<int> Tet3::runningLabel{1000};

const int Tet3::facetIndices[4][3] = {{1, 2, 3}, {0, 3, 2}, {0, 1, 3}, {0, 2, 1}};

// Edge j of facet i as an ordered pair of corner indices.
static const int edgeIndices[4][3][2] = {{{1, 3}, {3, 2}, {2, 1}},
                                         {{0, 2}, {2, 3}, {3, 0}},
                                         {{0, 3}, {3, 1}, {1, 0}},
                                         {{0, 1}, {1, 2}, {2, 0}}};

Tet3::Tet3() : hasBeenVisited(false), label(runningLabel++), customIndex(-1) {
  std::cout << "Tet default constructor (is actually not called)" << std::endl;
  for (int i = 0; i < 4; ++i) {
    aCorners[i] = nullptr;
    aOppTets[i] = nullptr;
  }
}

// Copies nothing on purpose: a Tet3 is a record of the mesh, never a value.
Tet3::Tet3(const Tet3&) { std::cout << "CCTOR of Tet3" << std::endl; }

void Tet3::intraTetIndexFailed(const Tet3* t) const {
  std::cout << "Tet3::getIntraTetIndex went wrong: " << *t << ", this is " << *this << std::endl;
  exit(1);
}

int Tet3::getIntraTetIndexInOppTetForReg(const Tet3* pOpp, int ith) const {
  if (static_cast<unsigned int>(ith) > 3) return -1;
  const int* fi = facetIndices[ith];
  const Point3* a = pOpp->aCorners[fi[0]];
  const Point3* b = pOpp->aCorners[fi[1]];
  const Point3* c = pOpp->aCorners[fi[2]];
  for (int i = 0; i < 3; ++i) {
    const Point3* p = aCorners[i];
    if (p != a && p != b && p != c) return i;
  }
  return 3;
}

Point3* Tet3::getOppVtxInOppTet(int i, bool bNullAllowed) const {
  const Tet3* pOpp = aOppTets[i];
  if (pOpp == nullptr) {
    if (bNullAllowed) return nullptr;
    error("Tet3::getOppVtxInOppTet", "no neighbor tet");
    exit(1);
  }
  return pOpp->getCorner(pOpp->getIntraTetIndex(this));
}

std::pair<int, int> Tet3::getEdgeIndices(int i, int j) {
  return std::make_pair(edgeIndices[i][j][0], edgeIndices[i][j][1]);
}

Point3 Tet3::getCircumcenter() const {
  const Point3& a = *aCorners[0];
  const double ux = aCorners[1]->x() - a.x(), uy = aCorners[1]->y() - a.y(), uz = aCorners[1]->z() - a.z();
  const double vx = aCorners[2]->x() - a.x(), vy = aCorners[2]->y() - a.y(), vz = aCorners[2]->z() - a.z();
  const double wx = aCorners[3]->x() - a.x(), wy = aCorners[3]->y() - a.y(), wz = aCorners[3]->z() - a.z();
  const double s = 0.5 / (uz * (vx * wy - vy * wx) + (uy * (vz * wx - vx * wz) + ux * (vy * wz - vz * wy)));
  const double uu = ux * ux + uy * uy + uz * uz;
  const double vv = vx * vx + vy * vy + vz * vz;
  const double ww = wx * wx + wy * wy + wz * wz;
  // |w|^2 (u x v) + |v|^2 (w x u) + |u|^2 (v x w)
  const double cx = ww * (uy * vz - uz * vy) + vv * (wy * uz - wz * uy) + uu * (vy * wz - vz * wy);
  const double cy = ww * (uz * vx - ux * vz) + vv * (wz * ux - wx * uz) + uu * (vz * wx - vx * wz);
  const double cz = ww * (ux * vy - uy * vx) + vv * (wx * uy - wy * ux) + uu * (vx * wy - vy * wx);
  return Point3(a.x() + s * cx, a.y() + s * cy, a.z() + s * cz);
}

bool Tet3::haveCommonFacet(Tet3* pA, int ith, Tet3* pB, int jth) {
  const int* fa = facetIndices[ith];
  const int* fb = facetIndices[jth];
  bool bCommon = true;
  for (int i = 0; i < 3 && bCommon; ++i) {
    const Point3* p = pA->aCorners[fa[i]];
    bCommon = (p == pB->aCorners[fb[0]] || p == pB->aCorners[fb[1]] || p == pB->aCorners[fb[2]]);
  }
  if (bCommon) return true;
  std::cout << "Tet3::haveCommonFacet() ERROR" << std::endl;
  std::cout << *pA << std::endl;
  std::cout << "...with index " << ith << std::endl;
  std::cout << fa[0] << "," << fa[1] << "," << fa[2] << std::endl;
  std::cout << *pB << std::endl;
  std::cout << "...with index " << jth << std::endl;
  std::cout << fb[0] << "," << fb[1] << "," << fb[2] << std::endl;
  exit(1);
}

int Tet3::debug_getOppTetIndex(int i) const {
  if (aOppTets[i] == nullptr) return -1;
  std::cout << "Tet3::debug_getTetIndex(): Not implemented yet" << std::endl;
  return 0;
}

Edge3 Tet3::getEdge(int opp3, int opp2) { return Edge3(this, opp3, opp2); }
Facet3 Tet3::getFacet(int i) { return Facet3(this, i); }

std::ostream& operator<<(std::ostream& stream, const Tet3& tet) {
  ExactTest predicates;
  const Orientation3 ori = predicates.getOrientation3(tet.aCorners[0], tet.aCorners[1],
                                                      tet.aCorners[2], tet.aCorners[3]);
  std::string oriText = "ownOri=" + predicates.getOriString(ori);
  if (ori != ORIENTATION3_POSITIVE) oriText = redString(oriText, 0);
  stream << "Tetrahedron (ID=" << tet.label << "), (this=" << static_cast<const void*>(&tet)
         << "): hasBeenVisited=" << tet.hasBeenVisited << ", " << oriText << std::endl;
  for (int i = 0; i < 4; ++i) {
    stream << "ith=" << i << ", vertex (" << static_cast<const void*>(tet.aCorners[i])
           << "): " << *tet.aCorners[i] << "  oppTet=" << static_cast<const void*>(tet.aOppTets[i]);
    if (tet.aOppTets[i] == nullptr) stream << " (NULL)";
    stream << std::endl;
  }
  return stream;
}

// ---------------------------------------------------------------------------
// Edge and facet handles.

const int Edge3::edgeSrcTable[4][4] = {{-99, 2, 3, 1}, {3, -99, 0, 2}, {1, 3, -99, 0}, {2, 0, 1, -99}};
const int Edge3::edgeTrgTable[4][4] = {{-99, 3, 1, 2}, {2, -99, 3, 0}, {3, 0, -99, 1}, {1, 2, 0, -99}};
const int Facet3::facetCornerTable[4][3] = {{1, 3, 2}, {0, 2, 3}, {0, 3, 1}, {0, 1, 2}};

Edge3::Edge3(Tet3* pTet_, int opp3ICI_, int opp2ICI_) : pTet(pTet_), opp3ICI(opp3ICI_), opp2ICI(opp2ICI_) {
  Point3* pSrc = getSourceVtx();
  Point3* pTrg = getTargetVtx();
  if (reinterpret_cast<unsigned long>(pSrc) < reinterpret_cast<unsigned long>(pTrg)) {
    pVtxMin = pSrc;
    pVtxMax = pTrg;
  } else {
    pVtxMin = pTrg;
    pVtxMax = pSrc;
  }
}

bool Edge3::operator<(const Edge3& e) const {
  const unsigned long aMin = reinterpret_cast<unsigned long>(pVtxMin);
  const unsigned long bMin = reinterpret_cast<unsigned long>(e.pVtxMin);
  if (aMin < bMin) return true;
  if (aMin > bMin) return false;
  return reinterpret_cast<unsigned long>(pVtxMax) < reinterpret_cast<unsigned long>(e.pVtxMax);
}

bool Edge3::operator==(const Edge3& e) const {
  const Point3* s0 = getSourceVtx();
  const Point3* t0 = getTargetVtx();
  const Point3* s1 = e.getSourceVtx();
  const Point3* t1 = e.getTargetVtx();
  return (s0 == s1 && t0 == t1) || (s0 == t1 && t0 == s1);
}

std::ostream& operator<<(std::ostream& stream, Edge3& e) {
  Tet3* pTet = e.getTet();
  stream << "Edge (pTet" << static_cast<const void*>(pTet) << "): " << std::endl;
  stream << "opp3ICI=" << e.getOpp3Index() << ", "
         << static_cast<const void*>(pTet->getCorner(e.getOpp3Index())) << std::endl;
  stream << "opp2ICI=" << e.getOpp2Index() << ", "
         << static_cast<const void*>(pTet->getCorner(e.getOpp2Index())) << std::endl;
  stream << "srcICI=" << e.getSourceIndex() << ", " << static_cast<const void*>(e.getSourceVtx())
         << std::endl;
  stream << "trgICI=" << e.getTargetIndex() << ", " << static_cast<const void*>(e.getTargetVtx())
         << std::endl;
  return stream;
}

bool Facet3::operator==(const Facet3& f) const {
  if (pTet == f.pTet && opp3ICI == f.opp3ICI) return true;
  return pTet->getOppTet(opp3ICI) == f.pTet && f.opp3ICI == pTet->getIntraTetIndexInOppTet(opp3ICI);
}

TetAroundEdgeIterator& TetAroundEdgeIterator::operator++() {
  Tet3* pCur = curEdge.getTet();
  Tet3* pNext = pCur->getOppTet(curEdge.getOpp2Index());
  const Point3* pSrc = curEdge.getSourceVtx();
  const Point3* pTrg = curEdge.getTargetVtx();
  const int a = pNext->getIntraTetIndex(pCur);
  int b = 0;
  for (; b < 4; ++b) {
    if (b == a) continue;
    const Point3* p = pNext->getCorner(b);
    if (p != pSrc && p != pTrg) break;
  }
  curEdge = Edge3(pNext, a, b);
  return *this;
}

} // namespace VELM3D
