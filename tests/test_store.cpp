// The vertex store against a plain model of it, on inputs that exercise its
// flat array, its radix sort and its set of single insertions: many points
// per curve key (a store with one key level has eight keys), repeats within a
// batch and of stored vertices, +0.0 against -0.0, batches past the size at
// which the keys are radix sorted, and more single insertions than the set
// keeps before it is merged. Also the block pool handing out a large block
// chunk by chunk.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "Velm_3D.h"

using namespace VELM3D;

namespace {

typedef std::tuple<double, double, double> Coords;
Coords coords(const Point3& p) { return Coords(p.x(), p.y(), p.z()); }
Tet3* tag(size_t i) { return reinterpret_cast<Tet3*>(uintptr_t(i + 1) * 64); }

void runAgainstModel(unsigned numBits, unsigned seed) {
  HC3 h(numBits);
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> coord(0, 40);
  std::map<Coords, Point3*> model; // -0.0 and +0.0 are one key here too
  const auto c = [&] {
    const int k = coord(rng);
    return k == 0 && rng() % 2 ? -0.0 : k * 0.25;
  };
  const auto point = [&] { return Point3(c(), c(), c()); };
  std::vector<Point3*> vNewAll; // addPoints appends to it
  for (int round = 0; round < 6; ++round) {
    // A batch: new points, repeats among them and of stored ones.
    std::vector<Point3> vBatch;
    for (int i = 0; i < (round % 3 == 1 ? 5000 : 3000); ++i) vBatch.push_back(point());
    if (round == 0) vBatch.front() = vBatch.back() = Point3(0, 0, 0); // the first in curve order, repeated
    std::vector<Point3*> vHandles;
    const size_t numBefore = vNewAll.size();
    h.addPoints(vBatch, vHandles, vNewAll);
    const std::vector<Point3*> vNew(vNewAll.begin() + static_cast<long>(numBefore), vNewAll.end());
    std::map<Point3*, size_t> firstInput; // new vertex -> its first input index
    for (size_t i = 0; i < vBatch.size(); ++i) {
      ASSERT_TRUE(vHandles[i] != nullptr && *vHandles[i] == vBatch[i]) << i;
      Point3*& pKnown = model[coords(vBatch[i])];
      if (pKnown == nullptr) {
        pKnown = vHandles[i];
        firstInput[pKnown] = i;
      }
      ASSERT_EQ(vHandles[i], pKnown);
    }
    ASSERT_EQ(vNew.size(), firstInput.size());
    for (size_t i = 1; i < vNew.size(); ++i) { // by key, then input order
      const unsigned a = h.iReset(*vNew[i - 1]), b = h.iReset(*vNew[i]);
      ASSERT_TRUE(a < b || (a == b && firstInput[vNew[i - 1]] < firstInput[vNew[i]])) << "at " << i;
    }
    // Single insertions, enough to pass the set's merge size in some rounds.
    // Every stored vertex gets a tetrahedron tag, so that the answer of
    // addPoint (the curve neighbour's tag, or its own) can be checked.
    std::vector<Point3*> vAll;
    h.getVertices(vAll);
    for (size_t i = 0; i < vAll.size(); ++i) vAll[i]->setOneTet(tag(i));
    const int numSingles = round % 2 == 0 ? 5000 : 300;
    for (int i = 0; i < numSingles; ++i) {
      Point3 p = point();
      const std::pair<Point3*, Tet3*> stored = h.addPoint(p);
      ASSERT_TRUE(*stored.first == p);
      Point3*& pKnown = model[coords(p)];
      if (pKnown != nullptr) {
        ASSERT_EQ(stored.first, pKnown);
        ASSERT_EQ(stored.second, pKnown->getOneTet());
        continue;
      }
      pKnown = stored.first;
      stored.first->setOneTet(tag(vAll.size() + static_cast<size_t>(i)));
      if (i % 16 != 0) continue; // the neighbour is checked on a sample
      std::vector<Point3*> vNow;
      h.getVertices(vNow);
      const size_t at = std::find(vNow.begin(), vNow.end(), stored.first) - vNow.begin();
      ASSERT_LT(at, vNow.size());
      ASSERT_EQ(stored.second, vNow[at == 0 ? 1 : at - 1]->getOneTet());
    }
    vAll.clear();
    h.getVertices(vAll);
    ASSERT_EQ(vAll.size(), model.size());
    ASSERT_EQ(h.getNumStoredVtx(), model.size());
    for (size_t i = 1; i < vAll.size(); ++i) { // the store's order: key in the current frame, then coordinates
      const unsigned a = h.iReset(*vAll[i - 1]), b = h.iReset(*vAll[i]);
      ASSERT_TRUE(a < b || (a == b && *vAll[i - 1] < *vAll[i])) << "at " << i;
    }
    // The close-tetrahedron query: with every third vertex tagged, the first
    // tagged one from the query's key on, else the last one before it.
    for (size_t i = 0; i < vAll.size(); ++i) vAll[i]->setOneTet(i % 3 == 2 ? tag(i) : nullptr);
    for (int q = 0; q < 200; ++q) {
      Point3 query = point();
      const unsigned key = h.iReset(query);
      size_t k = 0;
      while (k < vAll.size() && h.iReset(*vAll[k]) < key) ++k;
      Tet3* pExpected = nullptr;
      for (size_t j = k; j < vAll.size() && pExpected == nullptr; ++j) pExpected = vAll[j]->getOneTet();
      for (size_t j = k; j-- > 0 && pExpected == nullptr;) pExpected = vAll[j]->getOneTet();
      ASSERT_EQ(h.getCloseTet(query), pExpected) << "query " << q;
    }
    for (Point3* pVtx : vAll) pVtx->setOneTet(nullptr);
  }
}

} // namespace

TEST(VertexStore, AgreesWithAModelOnCrowdedKeys) { runAgainstModel(3, 1); }
TEST(VertexStore, AgreesWithAModelOnFineKeys) { runAgainstModel(27, 2); }

TEST(Pool, LargeBlockHandsOutConsecutiveRecordsAcrossChunks) {
  BRIX_TOOLS::SimplePool<double> pool;
  pool.init(1 << 22, -1); // 32 MiB: sixteen chunks of 2 MiB
  double* pFirst = pool.nextObject();
  for (int i = 1; i < (1 << 22); ++i) {
    double* p = pool.nextObject();
    ASSERT_EQ(p, pFirst + i);
    *p = i; // the chunk's pages must be writable
  }
  EXPECT_TRUE(pool.nextObject() != pFirst + (1 << 22) && pool.getNumBlocks() == 2u); // the next block
}
