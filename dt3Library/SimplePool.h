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

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <vector>

namespace BRIX_TOOLS {

// Tells the system how a fresh block of `bytes` bytes at p will be used (see
// SimplePool.cpp). A hint only: the block is the same memory with or without
// it. Out of line, so that this header needs no platform header.
void adviseHugePages(void* p, size_t bytes);

template <class T> class SimplePool {
public:
  SimplePool()
      : pCurBlock(nullptr), lastIndex(-1), curBlockSize(-1), initialSize(-1),
        growthSize(-1), bInitialized(false), bSingleBlock(true), maxBlockSize(-1) {}
  SimplePool(const SimplePool&) = delete;
  SimplePool& operator=(const SimplePool&) = delete;

  ~SimplePool() {
    if (vBlocks.size() >= 51) {
      std::cout << "SimplePool::~SimplePool: Number of containers to release: " << vBlocks.size()
                << std::endl;
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

  void alloc(int size) {
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
    adviseHugePages(pCurBlock, static_cast<size_t>(size) * sizeof(T));
    vBlocks.push_back(pCurBlock);
    lastIndex = -1;
    curBlockSize = size;
  }

  // Hands out one record: an increment and a compare, except once per block.
  T* nextObject() {
    ++lastIndex;
    if (lastIndex < curBlockSize) return pCurBlock + lastIndex;
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
    pCurBlock = vBlocks[0];
  }

  // Inspection, for tests, statistics and walks over the records.
  const std::vector<T*>& getBlocks() const { return vBlocks; }
  const std::vector<int>& getBlockSizes() const { return vBlockSizes; }
  size_t getNumBlocks() const { return vBlocks.size(); }
  int getMaxBlockSize() const { return maxBlockSize; }

private:
  std::vector<T*> vBlocks;
  std::vector<int> vBlockSizes;
  T* pCurBlock;
  int lastIndex;
  int curBlockSize;
  int initialSize;
  int growthSize;
  bool bInitialized;
  bool bSingleBlock;
  int maxBlockSize;
};

} // namespace BRIX_TOOLS
