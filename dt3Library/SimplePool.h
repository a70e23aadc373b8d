// SimplePool.h: block pool of raw records.
//
// Records are handed out from growing blocks taken with malloc and are only
// ever given back all at once (reset, destruction). No constructor or
// destructor of T ever runs: users fill a record with its own initialiser
// (Tet3::setProperties, Point3::init). A record never moves, since a block is
// never reallocated. No block exceeds 100,000,000 bytes.
//
// Block sizes: init(first, growth) makes the first block; a full block is
// followed by one of `growth` records, or, for a negative growth, by one of
// half the first block's size and then doubling from there (28, 14, 28, 56,
// ...), up to the byte limit.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <unordered_set>
#include <vector>

#include "freeFunctions.h"

namespace BRIX_TOOLS {

// Faults in the pages of [p, p + bytes) ahead of use, in one system call
// where the system offers one; otherwise nothing happens and the pages fault
// in one by one on first touch, as usual.
void prefaultPages(void* p, size_t bytes);

template <class T> class SimplePool {
public:
  SimplePool()
      : pCurBlock(nullptr), lastIndex(-1), curBlockSize(-1), readyEnd(-1), initialSize(-1),
        growthSize(-1), bInitialized(false), bSingleBlock(true), maxBlockSize(-1) {}
  SimplePool(const SimplePool&) = delete;
  SimplePool& operator=(const SimplePool&) = delete;

  ~SimplePool() {
    if (vBlocks.size() >= 51) {
      consoleLine("SimplePool::~SimplePool: Number of containers to release: " + std::to_string(vBlocks.size()));
    }
    for (T* pBlock : vBlocks) free(pBlock);
    bSingleBlock = true;
    vBlocks.clear();
  }

  void init(int firstSize, int growth) {
    if (bInitialized) {
      std::cout << "SimplePool::init(..), ERROR: This pool is already initialized" << std::endl;
      exit(1);
    }
    maxBlockSize = static_cast<int>(100000000 / sizeof(T));
    initialSize = firstSize;
    growthSize = growth;
    alloc(firstSize);
    bInitialized = true;
  }

  // Once a block: kept out of the insertion that nextObject is inlined into.
  [[gnu::noinline]] void alloc(int size) {
    if (size < 0) {
      const int last = vBlockSizes.back();
      size = (vBlockSizes.size() == 1) ? last / 2 : last * 2;
      if (size > maxBlockSize) size = maxBlockSize;
    }
    vBlockSizes.push_back(size);
    pCurBlock = static_cast<T*>(malloc(static_cast<size_t>(size) * sizeof(T)));
    if (pCurBlock == nullptr) {
      std::cout << "SimplePool::alloc(..), ERROR: Out of memory, sorry" << std::endl;
      exit(1);
    }
    vBlocks.push_back(pCurBlock);
    lastIndex = -1;
    curBlockSize = size;
    readyEnd = 0;
    prepareNextChunk();
  }

  // Hands out one record: an increment and a compare, except once per block.
  // Always inlined into the insertion, which calls it for each new record.
  [[gnu::always_inline]] T* nextObject() {
    ++lastIndex;
    if (lastIndex < readyEnd) return pCurBlock + lastIndex;
    if (lastIndex < curBlockSize) {
      prepareNextChunk();
      return pCurBlock + lastIndex;
    }
    alloc(growthSize);
    ++lastIndex;
    bSingleBlock = false;
    return pCurBlock;
  }

  // Gives back all records and keeps the first block.
  void reset() {
    lastIndex = -1;
    if (bSingleBlock) return;
    for (size_t i = 1; i < vBlocks.size(); ++i) free(vBlocks[i]);
    vBlocks.resize(1);
    bSingleBlock = true;
    curBlockSize = initialSize;
    readyEnd = initialSize;
    pCurBlock = vBlocks[0];
  }

  // Inspection, for tests, statistics and walks over the records.
  const std::vector<T*>& getBlocks() const { return vBlocks; }
  const std::vector<int>& getBlockSizes() const { return vBlockSizes; }
  // The size in records of block i of getBlocks(). reset keeps the sizes of
  // the blocks it gives back (a doubling pool goes on from its last size), so
  // the blocks after the first are paired with the last entries of
  // vBlockSizes, not with the entries at their own index.
  int getBlockSize(size_t i) const {
    return i == 0 ? vBlockSizes[0] : vBlockSizes[vBlockSizes.size() - vBlocks.size() + i];
  }
  size_t getNumBlocks() const { return vBlocks.size(); }
  // How many records of block i have been handed out: all of a block before
  // the last one (a new block is taken only when the last is full), the
  // records up to lastIndex of the last one.
  int getNumHandedOut(size_t i) const { return i + 1 < vBlocks.size() ? getBlockSize(i) : lastIndex + 1; }
  int getMaxBlockSize() const { return maxBlockSize; }

private:
  // A large block is made ready in chunks of 2 MiB just before its records
  // are handed out: the pages of a chunk are faulted in by one call instead
  // of one trap each, which saves about a third of the system time of a large
  // triangulation, and no more than one chunk is touched ahead of need.
  // (Transparent huge pages were measured too: on some machines they cost
  // more system time than they save, so the pool does not ask for them.)
  void prepareNextChunk() {
    const int chunk = static_cast<int>((size_t(1) << 21) / sizeof(T));
    const int end = (curBlockSize - readyEnd > chunk) ? readyEnd + chunk : curBlockSize;
    if (curBlockSize > 4 * chunk)
      prefaultPages(pCurBlock + readyEnd, static_cast<size_t>(end - readyEnd) * sizeof(T));
    readyEnd = end;
  }

  std::vector<T*> vBlocks;
  std::vector<int> vBlockSizes;
  T* pCurBlock;
  int lastIndex;
  int curBlockSize;
  int readyEnd;
  int initialSize;
  int growthSize;
  bool bInitialized;
  bool bSingleBlock;
  int maxBlockSize;
};

// A set of records of one pool or several, for walks that must visit each record once:
// one bit per record, the blocks in address order, so that reading the set
// back gives ascending addresses without a sort. A record from anywhere else
// (not expected) goes to a plain hash set.
template <class T> class PoolRecordSet {
public:
  explicit PoolRecordSet(const SimplePool<T>& pool) : PoolRecordSet(std::vector<const SimplePool<T>*>{&pool}) {}
  // The records of several pools.
  explicit PoolRecordSet(const std::vector<const SimplePool<T>*>& vPools) {
    for (const SimplePool<T>* pPool : vPools) {
      const std::vector<T*>& vStarts = pPool->getBlocks();
      for (size_t i = 0; i < vStarts.size(); ++i) vBlocks.push_back({vStarts[i], pPool->getBlockSize(i), 0});
    }
    std::sort(vBlocks.begin(), vBlocks.end(), [](const Block& a, const Block& b) { return a.pStart < b.pStart; });
    size_t numRecords = 0;
    for (Block& block : vBlocks) {
      block.firstBit = numRecords;
      numRecords += static_cast<size_t>(block.size);
    }
    vBits.assign((numRecords + 63) / 64, 0);
  }

  // Adds p; false if it was there already.
  bool insert(T* p) {
    auto it = std::upper_bound(vBlocks.begin(), vBlocks.end(), p,
                               [](const T* q, const Block& b) { return q < b.pStart; });
    if (it != vBlocks.begin()) {
      const Block& block = *(it - 1);
      if (p < block.pStart + block.size) {
        const size_t bit = block.firstBit + static_cast<size_t>(p - block.pStart);
        const uint64_t mask = uint64_t(1) << (bit & 63);
        if (vBits[bit >> 6] & mask) return false;
        vBits[bit >> 6] |= mask;
        return true;
      }
    }
    return sForeign.insert(p).second;
  }

  // Appends the set in ascending address order.
  void appendTo(std::vector<T*>& v) const {
    const size_t first = v.size();
    for (const Block& block : vBlocks) {
      for (int i = 0; i < block.size; ++i) {
        const size_t bit = block.firstBit + static_cast<size_t>(i);
        if (vBits[bit >> 6] & (uint64_t(1) << (bit & 63))) v.push_back(block.pStart + i);
      }
    }
    if (!sForeign.empty()) {
      v.insert(v.end(), sForeign.begin(), sForeign.end());
      std::sort(v.begin() + static_cast<long>(first), v.end());
    }
  }

private:
  struct Block {
    T* pStart;
    int size;
    size_t firstBit;
  };
  std::vector<Block> vBlocks;
  std::vector<uint64_t> vBits;
  std::unordered_set<T*> sForeign;
};

} // namespace BRIX_TOOLS
