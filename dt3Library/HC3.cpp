// HC3.cpp: the Hilbert-curve vertex store and its close-tetrahedron query.
//
// The curve is given by two tables indexed [octant][state], octant =
// 4*bx + 2*by + bz for the upper halves in x, y, z: addVls is the 3-bit
// digit at which the curve visits the octant in a cell of that state, nextS
// the state of the sub-cell entered there. The curve starts in state 0.
#include "HC3.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <map>

#include "RunThreads.h"
#include "Tet3.h"
#include "freeFunctions.h"

namespace VELM3D {

double sumDist = 0.0;

std::atomic<bool> HC3::bFirstEnlarge{false};

namespace {

using KeyAndIndex = std::pair<unsigned int, unsigned long>;
using RecentSet = std::set<IdxVtx, Func_ltIdxVtx>;

// n entries of a plain type, left uninitialised: the intake's large buffers
// are filled on the threads, and a zeroed vector would first touch all of
// their pages on one thread (page faults are most of the cost of a first
// pass over fresh memory).
template <class T> class RawBuffer {
public:
  explicit RawBuffer(size_t n) : p(static_cast<T*>(::operator new(n * sizeof(T)))), num(n) {}
  RawBuffer(RawBuffer&& other) noexcept : p(other.p), num(other.num) {
    other.p = nullptr;
    other.num = 0;
  }
  RawBuffer(const RawBuffer&) = delete;
  RawBuffer& operator=(const RawBuffer&) = delete;
  ~RawBuffer() { ::operator delete(p); }
  void swap(RawBuffer& other) noexcept {
    std::swap(p, other.p);
    std::swap(num, other.num);
  }
  T& operator[](size_t i) { return p[i]; }
  const T& operator[](size_t i) const { return p[i]; }
  T* data() { return p; }
  size_t size() const { return num; }

private:
  T* p;
  size_t num;
};

// A step of the bulk intake goes to threads in shares of at least this many
// points: below it, starting a thread costs more than it saves.
constexpr size_t minShare = 32768;

// Sorts by key, then by index, as std::sort on the pairs would. The pairs
// arrive in index order, so a stable sort by key alone gives that order: a
// least-significant-digit radix sort, three passes of 11 bits over the 32-bit
// key, each counting and then scattering into the other buffer. Passes whose
// digit is the same in every key are skipped. Below a few thousand pairs
// the comparison sort is quicker than clearing the counters. On several
// threads each counts and scatters its own share of the pairs; the shares'
// places in a bucket follow one another in share order, which keeps the
// sort stable.
void sortByKey(RawBuffer<KeyAndIndex>& v, size_t numThreads) {
  const size_t n = v.size();
  if (n < 4096) {
    std::sort(v.data(), v.data() + n);
    return;
  }
  constexpr int digitBits = 11;
  constexpr size_t numBuckets = size_t(1) << digitBits;
  constexpr unsigned int digitMask = numBuckets - 1;
  const size_t numT = threadsFor(numThreads, n, minShare);
  RawBuffer<KeyAndIndex> other(n);
  std::vector<size_t> count(numT * numBuckets); // share t's counters from t * numBuckets
  KeyAndIndex* pFrom = v.data();
  KeyAndIndex* pTo = other.data();
  std::atomic<bool> bStop(false);
  for (int shift = 0; shift < 32; shift += digitBits) {
    const auto digit = [shift](const KeyAndIndex& e) { return (e.first >> shift) & digitMask; };
    runThreads(numT, bStop, [&, digit, pFrom](size_t t) {
      size_t* pCount = count.data() + t * numBuckets;
      std::fill(pCount, pCount + numBuckets, 0);
      for (size_t i = n * t / numT, end = n * (t + 1) / numT; i < end; ++i) ++pCount[digit(pFrom[i])];
    });
    size_t numFirst = 0;
    for (size_t t = 0; t < numT; ++t) numFirst += count[t * numBuckets + digit(pFrom[0])];
    if (numFirst == n) continue;
    size_t sum = 0;
    for (size_t b = 0; b < numBuckets; ++b) {
      for (size_t t = 0; t < numT; ++t) {
        const size_t here = count[t * numBuckets + b];
        count[t * numBuckets + b] = sum;
        sum += here;
      }
    }
    runThreads(numT, bStop, [&, digit, pFrom, pTo](size_t t) {
      size_t* pCount = count.data() + t * numBuckets;
      for (size_t i = n * t / numT, end = n * (t + 1) / numT; i < end; ++i) pTo[pCount[digit(pFrom[i])]++] = pFrom[i];
    });
    std::swap(pFrom, pTo);
  }
  if (pFrom != v.data()) v.swap(other);
}

// The curve order read as one sequence: vSorted and sRecent merged. This is
// the only place where the two are merged entry by entry. A position is a
// pair of iterators; the entries before it are those before both.
class CurveOrder {
public:
  struct Position {
    std::vector<IdxVtx>::const_iterator it;
    RecentSet::const_iterator itRecent;
  };

  CurveOrder(const std::vector<IdxVtx>& vSorted_, const RecentSet& sRecent_) : vSorted(vSorted_), sRecent(sRecent_) {}

  Position begin() const { return {vSorted.begin(), sRecent.begin()}; }
  // The position of the first entry that q does not come after.
  Position lowerBound(const IdxVtx& q) const {
    return {std::lower_bound(vSorted.begin(), vSorted.end(), q, Func_ltIdxVtx()), sRecent.lower_bound(q)};
  }

  // Visits the entries from `at` on in ascending order, or those before `at`
  // in descending order, until `visit` returns true; answers whether it did.
  template <class Visit> bool forward(const Position& at, Visit visit) const {
    return merge(at.it, vSorted.end(), at.itRecent, sRecent.end(), Func_ltIdxVtx(), visit);
  }
  template <class Visit> bool backward(const Position& at, Visit visit) const {
    const auto after = [](const IdxVtx& a, const IdxVtx& b) { return Func_ltIdxVtx()(b, a); };
    return merge(std::make_reverse_iterator(at.it), vSorted.rend(), std::make_reverse_iterator(at.itRecent),
                 sRecent.rend(), after, visit);
  }

private:
  // Before each entry of the set come the entries of the array that precede
  // it; what is left of the array follows. With the set empty (the usual
  // case) that is a plain loop over the array.
  template <class ItSorted, class ItRecent, class Before, class Visit>
  static bool merge(ItSorted it, ItSorted end, ItRecent itRecent, ItRecent endRecent, Before before, Visit visit) {
    for (; itRecent != endRecent; ++itRecent) {
      const IdxVtx& recent = *itRecent;
      for (; it != end && before(*it, recent); ++it)
        if (visit(*it)) return true;
      if (visit(recent)) return true;
    }
    for (; it != end; ++it)
      if (visit(*it)) return true;
    return false;
  }

  const std::vector<IdxVtx>& vSorted;
  const RecentSet& sRecent;
};

// A row-major array of x, y, z read in place as a batch of points, for the
// bulk insertion that takes either form.
class PointRows {
public:
  PointRows(const double* pXyz_, size_t num_) : pXyz(pXyz_), num(num_) {}
  size_t size() const { return num; }
  Point3 operator[](size_t i) const { return Point3(pXyz[3 * i], pXyz[3 * i + 1], pXyz[3 * i + 2]); }
  const double* address(size_t i) const { return pXyz + 3 * i; }

private:
  const double* pXyz;
  size_t num;
};

const void* addressOf(const std::vector<Point3>& vPoints, size_t i) { return &vPoints[i]; }
const void* addressOf(const PointRows& rows, size_t i) { return rows.address(i); }

// Step 2 of a bulk insertion: the (key, input index) pairs of the batch, by
// key and, with equal keys, by input order.
template <class Points>
RawBuffer<KeyAndIndex> keysInCurveOrder(const HC3& store, const Points& vPoints, size_t numThreads) {
  const size_t n = vPoints.size();
  RawBuffer<KeyAndIndex> vKeys(n);
  runShares(numThreads, n, minShare, [&](size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i) vKeys[i] = std::make_pair(store.keyOf(vPoints[i]), static_cast<unsigned long>(i));
  });
  sortByKey(vKeys, numThreads);
  return vKeys;
}

// Step 3 of a bulk insertion: the batch is taken in key order and each input
// gets its vertex. A point alone at its key, with no stored vertex of that
// key, becomes a vertex with no further test: that is nearly every point of
// a batch in general position. A key shared by several points of the batch
// or by stored vertices makes a group, in which sorting by coordinates finds
// the repeats, of one another and of stored vertices; of equal points the
// first in input order is the one stored, and the new vertices are made in
// input order. The new entries are collected in the store's order, for one
// merge into the flat array at the end.
template <class Points> class BulkInsertion {
public:
  BulkInsertion(const Points& vPoints_, const RawBuffer<KeyAndIndex>& vKeys_,
                const std::vector<IdxVtx>& vSorted_, BRIX_TOOLS::SimplePool<Point3>& pointPool_,
                std::vector<Point3*>& vUserHandles_, std::vector<Point3*>& vNewVertices_)
      : vPoints(vPoints_), vKeys(vKeys_), vSorted(vSorted_), pointPool(pointPool_), vUserHandles(vUserHandles_),
        vNewVertices(vNewVertices_) {}

  // Gives every input its handle and returns the new entries in curve order.
  std::vector<IdxVtx> run(size_t numThreads) {
    const size_t n = vKeys.size();
    vAdd.reserve(n);
    if (numThreads > 1 && n >= 2 * minShare && n <= static_cast<size_t>(std::numeric_limits<int>::max())) {
      runOnThreads(numThreads);
      return std::move(vAdd);
    }
    // One thread fills each record at once, while its point is in the cache.
    std::vector<unsigned int> vOrder;
    std::vector<int> vKind;
    auto existing = vSorted.begin();
    for (size_t first = 0; first < n;) {
      // The points are read in key order, all over the input: ask ahead.
      if (first + 16 < n) __builtin_prefetch(addressOf(vPoints, vKeys[first + 16].second));
      const size_t last = groupEnd(first);
      const bool bStoredKey = hasStoredKey(first, existing);
      if (last == first + 1 && !bStoredKey) {
        vAdd.push_back({vKeys[first].first, makeVertex(first)});
      } else {
        vOrder.resize(last - first);
        vKind.resize(last - first);
        findRepeats(first, last, existing, vOrder.data(), vKind.data());
        for (size_t k = first; k < last; ++k) {
          const int kind = vKind[k - first];
          if (kind == isNew) makeVertex(k);
          else if (kind > 0) vUserHandles[vKeys[k].second] = vUserHandles[vKeys[k - kind].second];
        }
        for (const unsigned int i : vOrder)
          if (vKind[i] == isNew) vAdd.push_back({vKeys[first].first, vUserHandles[vKeys[first + i].second]});
      }
      first = last;
    }
    return std::move(vAdd);
  }

private:
  // The kinds of a group's positions (findRepeats): a new vertex, a repeat of
  // a stored vertex, or (a positive count) a repeat of the new vertex that
  // many positions before it.
  static constexpr int isNew = -1, isStored = -2;

  // The end of the group of position first: the positions of its key.
  size_t groupEnd(size_t first) const {
    size_t last = first + 1;
    while (last < vKeys.size() && vKeys[last].first == vKeys[first].first) ++last;
    return last;
  }

  // Whether a stored vertex has the key of position first; `existing`, the
  // first stored entry not below an earlier key, moves to this key.
  bool hasStoredKey(size_t first, std::vector<IdxVtx>::const_iterator& existing) const {
    existing = std::lower_bound(existing, vSorted.end(), IdxVtx{vKeys[first].first, nullptr}, Func_ltIdxVtx());
    return existing != vSorted.end() && existing->idx == vKeys[first].first;
  }

  // A reference into a vector of points, a point made from a row.
  decltype(auto) pointAt(size_t k) const { return vPoints[vKeys[k].second]; }

  // A new vertex for the input at sorted position k.
  Point3* makeVertex(size_t k) {
    Point3* pVtx = pointPool.nextObject();
    pVtx->init(pointAt(k));
    vUserHandles[vKeys[k].second] = pVtx;
    vNewVertices.push_back(pVtx);
    return pVtx;
  }

  // Puts the offsets of the group's positions [first, last) from first in
  // coordinate order (input order among equals) into pOrder, and the kind of
  // each into pKind, by offset; a repeat of a stored vertex gets its handle
  // here. `stored` is the first stored entry of the group's key, if there
  // is one. Reads the store and writes only the group's own handles: groups
  // go to several threads at once.
  void findRepeats(size_t first, size_t last, std::vector<IdxVtx>::const_iterator stored, unsigned int* pOrder,
                   int* pKind) const {
    const unsigned int key = vKeys[first].first;
    const unsigned int m = static_cast<unsigned int>(last - first);
    for (unsigned int i = 0; i < m; ++i) pOrder[i] = i;
    std::sort(pOrder, pOrder + m, [&](unsigned int a, unsigned int b) {
      return pointAt(first + a) < pointAt(first + b) || (!(pointAt(first + b) < pointAt(first + a)) && a < b);
    });
    std::fill(pKind, pKind + m, isNew);
    const unsigned int none = m;
    unsigned int runFirst = none;
    for (unsigned int j = 0; j < m; ++j) {
      const unsigned int i = pOrder[j];
      const Point3& p = pointAt(first + i);
      while (stored != vSorted.end() && stored->idx == key && *stored->pVtx < p) ++stored;
      if (stored != vSorted.end() && stored->idx == key && !(p < *stored->pVtx)) {
        vUserHandles[vKeys[first + i].second] = stored->pVtx;
        pKind[i] = isStored;
      } else if (runFirst != none && !(pointAt(first + runFirst) < p)) {
        pKind[i] = static_cast<int>(i - runFirst); // equal points lie in input order
      } else {
        runFirst = i;
      }
    }
  }

  // On several threads: the groups' repeats are found in shares of the
  // positions that start at a group, then one pass in curve order takes the
  // records of the new vertices, and the records' coordinates and every
  // input's handle go in shares again (reading the points all over the input
  // and writing the handles all over vUserHandles is most of the time).
  void runOnThreads(size_t numThreads) {
    const size_t n = vKeys.size();
    RawBuffer<int> vKind(n);           // by position
    RawBuffer<unsigned int> vOrder(n); // each group's offsets in coordinate order, at its positions
    RawBuffer<Point3*> vRecord(n);     // the record of each new vertex, by position
    const size_t numT = threadsFor(numThreads, n, minShare);
    std::vector<size_t> vFrom(numT + 1, n);
    for (size_t t = 0; t < numT; ++t) {
      size_t k = std::max(n * t / numT, t > 0 ? vFrom[t - 1] : 0);
      while (k > 0 && k < n && vKeys[k - 1].first == vKeys[k].first) ++k;
      vFrom[t] = k;
    }
    std::atomic<bool> bStop(false);
    runThreads(numT, bStop, [&](size_t t) {
      auto existing = vSorted.begin();
      for (size_t first = vFrom[t]; first < vFrom[t + 1];) {
        // The points of groups are read here: ask ahead for them.
        if (first + 16 < n && vKeys[first + 16].first == vKeys[first + 15].first)
          __builtin_prefetch(addressOf(vPoints, vKeys[first + 16].second));
        const size_t last = groupEnd(first);
        const bool bStoredKey = hasStoredKey(first, existing);
        if (last == first + 1 && !bStoredKey) {
          vKind[first] = isNew;
          vOrder[first] = 0;
        } else {
          findRepeats(first, last, existing, vOrder.data() + first, vKind.data() + first);
        }
        first = last;
      }
    });
    for (size_t first = 0; first < n;) {
      const size_t last = groupEnd(first);
      for (size_t k = first; k < last; ++k) {
        if (vKind[k] != isNew) continue;
        vRecord[k] = pointPool.nextObject();
        vNewVertices.push_back(vRecord[k]);
      }
      for (size_t k = first; k < last; ++k) {
        const size_t i = first + vOrder[k];
        if (vKind[i] == isNew) vAdd.push_back({vKeys[first].first, vRecord[i]});
      }
      first = last;
    }
    runShares(numThreads, n, minShare, [&](size_t begin, size_t end) {
      for (size_t k = begin; k < end; ++k) {
        if (k + 16 < end) __builtin_prefetch(addressOf(vPoints, vKeys[k + 16].second));
        const int kind = vKind[k];
        if (kind == isStored) continue;
        if (kind == isNew) vRecord[k]->init(pointAt(k));
        vUserHandles[vKeys[k].second] = vRecord[kind == isNew ? k : k - static_cast<size_t>(kind)];
      }
    });
  }

  const Points& vPoints;
  const RawBuffer<KeyAndIndex>& vKeys;
  const std::vector<IdxVtx>& vSorted;
  BRIX_TOOLS::SimplePool<Point3>& pointPool;
  std::vector<Point3*>& vUserHandles;
  std::vector<Point3*>& vNewVertices;
  std::vector<IdxVtx> vAdd;
};

} // namespace

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
      lenY(-1.0), lenZ(-1.0), bConfigured(false) {
  pointPool.init(4, -1);
  if (numBits > 32 || numBits % 3 != 0) {
    consoleLine("HC3::HC3(..): invalid bitlength");
    exit(1);
  }
}

unsigned int HC3::iReset(const Point3& p) {
  const unsigned int key = keyOf(p);
  level = 0;
  return key;
}

unsigned int HC3::keyOf(const Point3& p) const {
  // The shift of the top octant's digit; each finer octant's is 3 less.
  const unsigned long topShift = numBits - 3;
  double dx = p.x() - *pMinX, dy = p.y() - *pMinY, dz = p.z() - *pMinZ;
  double hx = lenX * 0.5, hy = lenY, hz = lenZ;
  // Every octant test of a level compares against half the x extent.
  int bx = dx >= hx, by = dy >= hx, bz = dz >= hx;
  int o = 4 * bx + 2 * by + bz;
  unsigned int key = static_cast<unsigned int>(addVls[o][0]) << topShift;
  if (topShift == 0) return key;
  int s = 0;
  for (long shift = static_cast<long>(topShift) - 3; shift >= 0; shift -= 3) {
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
  return key;
}

// Appends the entries of [first, last), which are in the store's order, to
// vSorted and merges the two runs.
template <class It> void HC3::mergeIntoSorted(It first, It last) {
  const size_t numOld = vSorted.size();
  vSorted.insert(vSorted.end(), first, last);
  std::inplace_merge(vSorted.begin(), vSorted.begin() + static_cast<long>(numOld), vSorted.end(), Func_ltIdxVtx());
}

void HC3::mergeRecent() {
  if (sRecent.empty()) return;
  mergeIntoSorted(sRecent.begin(), sRecent.end());
  sRecent.clear();
}

const IdxVtx* HC3::find(const IdxVtx& q) const {
  const Func_ltIdxVtx lt;
  const auto it = std::lower_bound(vSorted.begin(), vSorted.end(), q, lt);
  if (it != vSorted.end() && !lt(q, *it)) return &*it;
  const auto itRecent = sRecent.find(q);
  return itRecent != sRecent.end() ? &*itRecent : nullptr;
}

// Re-keys every stored vertex in the current box and restores the order.
void HC3::reconfig() {
  lenX = *pMaxX - *pMinX;
  lenY = *pMaxY - *pMinY;
  lenZ = *pMaxZ - *pMinZ;
  mergeRecent();
  for (IdxVtx& iv : vSorted) iv.idx = iReset(*iv.pVtx);
  std::sort(vSorted.begin(), vSorted.end(), Func_ltIdxVtx());
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

// Step 1 of a bulk insertion: widens the box over the batch and re-keys the
// store if the box changed. The first bulk insertion of the process gets a
// small margin.
void HC3::widenBoxFor(const std::vector<Point3>& vPoints) {
  if (!bbox.add(vPoints)) return;
  // exchange: of two first insertions on two threads, exactly one sees false.
  if (!bFirstEnlarge.exchange(true)) {
    enlarge(0.1, 0.5);
  } else {
    enlarge(0.5, 1.0);
  }
}

// The box of the rows, then the store's box widened over it: the rows'
// extremes are points of the batch, so the store's box changes exactly when
// adding every row would change it.
void HC3::widenBoxFor(const double* pXyz, size_t numRows) {
  if (numRows == 0) return;
  double lo[3] = {pXyz[0], pXyz[1], pXyz[2]}, hi[3] = {pXyz[0], pXyz[1], pXyz[2]};
  for (size_t i = 1; i < numRows; ++i)
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], pXyz[3 * i + k]);
      hi[k] = std::max(hi[k], pXyz[3 * i + k]);
    }
  const std::vector<Point3> vExtremes{Point3(lo[0], lo[1], lo[2]), Point3(hi[0], hi[1], hi[2])};
  widenBoxFor(vExtremes);
}

template <class Points>
void HC3::addBatch(const Points& vPoints, std::vector<Point3*>& vUserHandles, std::vector<Point3*>& vNewVertices) {
  mergeRecent();
  const size_t numT = static_cast<size_t>(numThreads);
  const RawBuffer<KeyAndIndex> vKeys = keysInCurveOrder(*this, vPoints, numT);
  vUserHandles.assign(vPoints.size(), nullptr);
  vNewVertices.reserve(vNewVertices.size() + vPoints.size());
  std::vector<IdxVtx> vAdd =
      BulkInsertion<Points>(vPoints, vKeys, vSorted, pointPool, vUserHandles, vNewVertices).run(numT);
  if (vSorted.empty()) vSorted.swap(vAdd);
  else if (!vAdd.empty()) mergeIntoSorted(vAdd.begin(), vAdd.end());
}

void HC3::addPoints(std::vector<Point3>& vPoints, std::vector<Point3*>& vUserHandles,
                    std::vector<Point3*>& vNewVertices) {
  VELM_ASSERT(vUserHandles.empty());
  widenBoxFor(vPoints);
  addBatch(vPoints, vUserHandles, vNewVertices);
}

void HC3::addRows(const double* pXyz, size_t numRows, std::vector<Point3*>& vUserHandles,
                  std::vector<Point3*>& vNewVertices) {
  VELM_ASSERT(vUserHandles.empty());
  widenBoxFor(pXyz, numRows);
  addBatch(PointRows(pXyz, numRows), vUserHandles, vNewVertices);
}

std::pair<Point3*, Tet3*> HC3::addPoint(Point3& p) {
  if (bbox.add(p)) enlarge(0.5, 1.0);
  const IdxVtx q{iReset(p), &p};
  const IdxVtx* pStored = find(q);
  Point3* pVtx;
  if (pStored != nullptr) {
    pVtx = pStored->pVtx;
  } else {
    pVtx = pointPool.nextObject();
    pVtx->init(p);
    sRecent.insert(IdxVtx{q.idx, pVtx});
    if (sRecent.size() > 4096 + vSorted.size() / 8) mergeRecent();
  }
  if (pVtx->getOneTet() != nullptr) return std::make_pair(pVtx, pVtx->getOneTet());
  // One step along the curve: the preceding vertex, or at the front of the
  // curve the following one.
  const CurveOrder order(vSorted, sRecent);
  const CurveOrder::Position self = order.lowerBound(IdxVtx{q.idx, pVtx});
  const Point3* pNeighbour = nullptr;
  const auto take = [&](const IdxVtx& e) {
    pNeighbour = e.pVtx;
    return true;
  };
  if (!order.backward(self, take)) order.forward(self, [&](const IdxVtx& e) { return e.pVtx != pVtx && take(e); });
  return std::make_pair(pVtx, pNeighbour != nullptr ? pNeighbour->getOneTet() : nullptr);
}

void HC3::getVertices(std::vector<Point3*>& v) const {
  v.reserve(v.size() + getNumStoredVtx());
  const CurveOrder order(vSorted, sRecent);
  order.forward(order.begin(), [&](const IdxVtx& e) {
    v.push_back(e.pVtx);
    return false;
  });
}

void HC3::checkQ() {
  mergeRecent();
  double coordMin = 1.7976931348623157e308;
  double coordMax = 2.2250738585072014e-308;
  std::map<unsigned int, int> mKeyCount;
  double sum = 0.0, maxDist = 0.0;
  const Point3* pPrev = nullptr;
  for (const IdxVtx& iv : vSorted) {
    const Point3* p = iv.pVtx;
    const double c[3] = {p->x(), p->y(), p->z()};
    for (double v : c) {
      if (coordMin > v)
        coordMin = v;
      else if (v > coordMax)
        coordMax = v;
    }
    ++mKeyCount[iv.idx];
    if (pPrev != nullptr) {
      const double dx = p->x() - pPrev->x(), dy = p->y() - pPrev->y(), dz = p->z() - pPrev->z();
      const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
      sum += d;
      if (d > maxDist) maxDist = d;
    }
    pPrev = p;
  }
  const double numStored = static_cast<double>(vSorted.size());
  // The statistics go out as one block of lines.
  std::ostringstream oss = consoleStream();
  oss << "Points: coordMin=" << coordMin << ", coordMax=" << coordMax << "\n";
  oss << "\n";
  const int bins = static_cast<int>(std::pow(2.0, static_cast<double>(numBits)));
  oss << "HC3(numBits=" << numBits << "): We have " << bins << " bins of which " << 0.125 * bins
      << " are usable, expected avgNum=" << (numStored / bins) * 8.0 << "\n";
  oss << "HC3: Consecutive linear distance, avg=" << sum / numStored << ", max=" << maxDist << "\n";
  int total = 0, maxCount = 0;
  for (const auto& keyCount : mKeyCount) {
    total += keyCount.second;
    maxCount = std::max(maxCount, keyCount.second);
  }
  oss << "HC3: NumItems per used bin, avg=" << static_cast<double>(total) / mKeyCount.size()
      << ", max=" << maxCount << "\n";
  consoleLine(oss.str());
}

// The first vertex with a tetrahedron from the query's key on along the
// curve, else the last one before it.
Tet3* HC3::getCloseTet(Point3* pQuery) {
  const CurveOrder order(vSorted, sRecent);
  const CurveOrder::Position start = order.lowerBound(IdxVtx{iReset(*pQuery), nullptr});
  Tet3* pTet = nullptr;
  const auto hasTet = [&](const IdxVtx& e) {
    pTet = e.pVtx->getOneTet();
    return pTet != nullptr;
  };
  const bool bAhead = order.forward(start, [&](const IdxVtx& e) {
    const Point3* pVtx = e.pVtx;
    VELM_ASSERT(pVtx!=NULL);
    return hasTet(e);
  });
  if (!bAhead) order.backward(start, hasTet);
  return pTet;
}

} // namespace VELM3D
