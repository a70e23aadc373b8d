// HC3.cpp: the Hilbert-curve vertex store and its close-tetrahedron query.
//
// The curve is given by two tables indexed [octant][state], octant =
// 4*bx + 2*by + bz for the upper halves in x, y, z: addVls is the 3-bit
// digit at which the curve visits the octant in a cell of that state, nextS
// the state of the sub-cell entered there. The curve starts in state 0.
#include "HC3.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <map>

#include "Tet3.h"
#include "freeFunctions.h"

namespace VELM3D {

double sumDist = 0.0;

bool HC3::bFirstEnlarge = false;

const int HC3::addVls[8][12] = {
    {0, 0, 0, 2, 4, 6, 4, 6, 2, 2, 4, 6}, {1, 7, 3, 3, 3, 5, 7, 7, 5, 1, 5, 1},
    {3, 1, 7, 1, 5, 1, 3, 5, 3, 5, 7, 7}, {2, 6, 4, 0, 2, 2, 0, 4, 4, 6, 6, 0},
    {7, 3, 1, 5, 7, 7, 5, 1, 1, 3, 3, 5}, {6, 4, 2, 4, 0, 4, 6, 0, 6, 0, 2, 2},
    {4, 2, 6, 6, 6, 0, 2, 2, 0, 4, 0, 4}, {5, 5, 5, 7, 1, 3, 1, 3, 7, 7, 1, 3}};

const int HC3::nextS[8][12] = {
    {1, 2, 0, 6, 11, 4, 5, 6, 10, 4, 7, 10}, {2, 6, 9, 0, 11, 4, 7, 1, 3, 4, 2, 3},
    {3, 0, 10, 6, 0, 8, 5, 6, 1, 8, 11, 2},  {2, 7, 9, 11, 7, 8, 3, 10, 1, 8, 2, 6},
    {4, 8, 1, 9, 5, 0, 1, 9, 10, 2, 7, 10},  {5, 8, 1, 0, 9, 6, 1, 4, 3, 7, 5, 3},
    {3, 0, 11, 9, 0, 10, 11, 9, 5, 2, 8, 4}, {5, 7, 11, 8, 7, 6, 11, 10, 9, 3, 5, 4}};

HC3::HC3(unsigned int numBits_)
    : spareExtent(-1.0), level(0), numBits(numBits_), pMinX(&bbox.minX), pMinY(&bbox.minY),
      pMinZ(&bbox.minZ), pMaxX(&bbox.maxX), pMaxY(&bbox.maxY), pMaxZ(&bbox.maxZ), lenX(-1.0),
      lenY(-1.0), lenZ(-1.0), bConfigured(false),
      sVertices(Func_ltIdxVtxPtr(), SetNodeAllocator<IdxVtx*>(&setNodeArena)) {
  pointPool.init(4, -1);
  idxVtxPool.init(4, -1);
  if (numBits > 32 || numBits % 3 != 0) {
    std::cout << "HC3::HC3(..): invalid bitlength" << std::endl;
    exit(1);
  }
}

unsigned int HC3::iReset(const Point3& p) {
  level = numBits - 3;
  double dx = p.x() - *pMinX, dy = p.y() - *pMinY, dz = p.z() - *pMinZ;
  double hx = lenX * 0.5, hy = lenY, hz = lenZ;
  // Every octant test of a level compares against half the x extent.
  int bx = dx >= hx, by = dy >= hx, bz = dz >= hx;
  int o = 4 * bx + 2 * by + bz;
  unsigned int key = static_cast<unsigned int>(addVls[o][0]) << level;
  if (level == 0) return key;
  int s = 0;
  for (long shift = static_cast<long>(level) - 3; shift >= 0; shift -= 3) {
    hy *= 0.5;
    hz *= 0.5;
    dz -= bz * hz;
    dy -= by * hy;
    dx -= bx * hx;
    hx *= 0.5;
    bx = dx >= hx;
    by = dy >= hx;
    bz = dz >= hx;
    const int o2 = 4 * bx + 2 * by + bz;
    s = nextS[o][s];
    key += static_cast<unsigned int>(addVls[o2][s]) << shift;
    o = o2;
  }
  level = 0;
  return key;
}

void HC3::reconfig() {
  lenX = *pMaxX - *pMinX;
  lenY = *pMaxY - *pMinY;
  lenZ = *pMaxZ - *pMinZ;
  std::vector<IdxVtx*> vAll;
  vAll.reserve(sVertices.size());
  for (IdxVtx* pIv : sVertices) {
    pIv->idx = iReset(*pIv->pVtx);
    vAll.push_back(pIv);
  }
  sVertices.clear();
  for (IdxVtx* pIv : vAll) sVertices.insert(pIv);
  bConfigured = true;
}

// Widens each axis at both ends by (extent * factor) * secondFactor and
// re-keys the store. The second factor is 1 (an exact no-op) except for the
// small margin of the first bulk insertion of the process.
void HC3::enlarge(double factor, double secondFactor) {
  const double mx = ((bbox.maxX - bbox.minX) * factor) * secondFactor;
  const double my = ((bbox.maxY - bbox.minY) * factor) * secondFactor;
  const double mz = ((bbox.maxZ - bbox.minZ) * factor) * secondFactor;
  bbox.minX -= mx;
  bbox.maxX += mx;
  bbox.minY -= my;
  bbox.maxY += my;
  bbox.minZ -= mz;
  bbox.maxZ += mz;
  reconfig();
}

void HC3::addPoints(std::vector<Point3>& vPoints, std::vector<Point3*>& vUserHandles,
                    std::vector<Point3*>& vNewVertices) {
  VELM_ASSERT(vUserHandles.empty());
  if (bbox.add(vPoints)) {
    // The first bulk insertion of the process gets a small margin.
    if (!bFirstEnlarge) {
      bFirstEnlarge = true;
      enlarge(0.1, 0.5);
    } else {
      enlarge(0.5, 1.0);
    }
  }
  const size_t n = vPoints.size();
  std::vector<std::pair<unsigned int, unsigned long>> vKeys(n);
  for (size_t i = 0; i < n; ++i) vKeys[i] = std::make_pair(iReset(vPoints[i]), static_cast<unsigned long>(i));
  std::sort(vKeys.begin(), vKeys.end());

  vUserHandles.assign(n, nullptr);
  vNewVertices.reserve(vNewVertices.size() + n);
  // The records arrive in ascending key order; inserting behind the last
  // position found makes each insertion into the ordered set nearly free.
  VertexSet::iterator hint = sVertices.end();
  for (const auto& keyIndex : vKeys) {
    IdxVtx* pIv = idxVtxPool.nextObject();
    pIv->idx = keyIndex.first;
    pIv->pVtx = &vPoints[keyIndex.second];
    const size_t sizeBefore = sVertices.size();
    VertexSet::iterator it = sVertices.insert(hint, pIv);
    hint = std::next(it);
    if (sVertices.size() != sizeBefore) {
      Point3* pVtx = pointPool.nextObject();
      pVtx->init(vPoints[keyIndex.second]);
      pIv->pVtx = pVtx;
      vUserHandles[keyIndex.second] = pVtx;
      vNewVertices.push_back(pVtx);
    } else {
      vUserHandles[keyIndex.second] = (*it)->pVtx;
    }
  }
}

std::pair<Point3*, Tet3*> HC3::addPoint(Point3& p) {
  if (bbox.add(p)) enlarge(0.5, 1.0);
  IdxVtx* pIv = idxVtxPool.nextObject();
  pIv->idx = iReset(p);
  pIv->pVtx = &p;
  const std::pair<VertexSet::iterator, bool> result = sVertices.insert(pIv);
  Point3* pVtx;
  if (result.second) {
    pVtx = pointPool.nextObject();
    pVtx->init(p);
    pIv->pVtx = pVtx;
  } else {
    pVtx = (*result.first)->pVtx;
  }
  if (pVtx->getOneTet() != nullptr) return std::make_pair(pVtx, pVtx->getOneTet());
  // One step along the curve: the preceding vertex, or the following one at
  // the front of the curve.
  VertexSet::iterator it = result.first;
  if (it != sVertices.begin()) return std::make_pair(pVtx, (*std::prev(it))->pVtx->getOneTet());
  ++it;
  if (it != sVertices.end()) return std::make_pair(pVtx, (*it)->pVtx->getOneTet());
  return std::make_pair(pVtx, static_cast<Tet3*>(nullptr));
}

void HC3::getVertices(std::vector<Point3*>& v) const {
  v.reserve(v.size() + sVertices.size());
  for (const IdxVtx* pIv : sVertices) v.push_back(pIv->pVtx);
}

void HC3::checkQ() {
  double coordMin = 1.7976931348623157e308;
  double coordMax = 2.2250738585072014e-308;
  std::map<unsigned int, int> mKeyCount;
  double sum = 0.0, maxDist = 0.0;
  const Point3* pPrev = nullptr;
  for (const IdxVtx* pIv : sVertices) {
    const Point3* p = pIv->pVtx;
    const double c[3] = {p->x(), p->y(), p->z()};
    for (double v : c) {
      if (coordMin > v)
        coordMin = v;
      else if (v > coordMax)
        coordMax = v;
    }
    ++mKeyCount[pIv->idx];
    if (pPrev != nullptr) {
      const double dx = p->x() - pPrev->x(), dy = p->y() - pPrev->y(), dz = p->z() - pPrev->z();
      const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
      sum += d;
      if (d > maxDist) maxDist = d;
    }
    pPrev = p;
  }
  const double numStored = static_cast<double>(sVertices.size());
  std::cout << "Points: coordMin=" << coordMin << ", coordMax=" << coordMax << std::endl;
  std::cout << std::endl;
  const int bins = static_cast<int>(std::pow(2.0, static_cast<double>(numBits)));
  std::cout << "HC3(numBits=" << numBits << "): We have " << bins << " bins of which " << 0.125 * bins
            << " are usable, expected avgNum=" << (numStored / bins) * 8.0 << std::endl;
  std::cout << "HC3: Consecutive linear distance, avg=" << sum / numStored << ", max=" << maxDist
            << std::endl;
  int total = 0, maxCount = 0;
  for (const auto& keyCount : mKeyCount) {
    total += keyCount.second;
    maxCount = std::max(maxCount, keyCount.second);
  }
  std::cout << "HC3: NumItems per used bin, avg=" << static_cast<double>(total) / mKeyCount.size()
            << ", max=" << maxCount << std::endl;
  std::cout << std::endl;
}

Tet3* HC3::getCloseTet(Point3* pQuery) {
  static IdxVtx queryDummy = {0, nullptr};
  queryDummy.idx = iReset(*pQuery);
  const VertexSet::iterator start = sVertices.lower_bound(&queryDummy);
  for (VertexSet::iterator it = start; it != sVertices.end(); ++it) {
    Point3* pVtx = (*it)->pVtx;
    VELM_ASSERT(pVtx!=NULL);
    if (pVtx->getOneTet() != nullptr) return pVtx->getOneTet();
  }
  for (VertexSet::iterator it = start; it != sVertices.begin();) {
    --it;
    if ((*it)->pVtx->getOneTet() != nullptr) return (*it)->pVtx->getOneTet();
  }
  return nullptr;
}

} // namespace VELM3D
