#pragma once

#include <CoreServices/MacTypes.h>

#include <atomic>
#include <cstddef>

// Blocks for objects that are made by the thousand and mostly die together, such as those of a
// large property list: cut one after the other from slabs, at a fraction of the heap's cost. A slab
// is freed with the last block in it, so an object that is kept keeps at most a slab with it.
//
// A pool is used by one thread; it may be gone long before its blocks are. These are given back on
// any thread.
class HostObjectPool {
 public:
  static constexpr size_t kSlabSize = 16 * 1024;
  static constexpr size_t kSmallSlabSize = 1024;  // where little is made, and some may be kept
  static constexpr size_t kOverhead = 8;          // of each block

  explicit HostObjectPool(size_t slabSize) : slabSize(slabSize) {}
  ~HostObjectPool() { CloseSlab(); }
  HostObjectPool(const HostObjectPool&) = delete;
  HostObjectPool& operator=(const HostObjectPool&) = delete;

  // A block aligned to 8 bytes. Null for large ones, and when there is no memory.
  void* Take(size_t size);
  static void GiveBack(void* block);

 private:
  struct Slab;

  void CloseSlab();
  // Of a block: what is left at the end of a slab is lost.
  size_t Largest() const { return slabSize == kSlabSize ? 512 : 128; }

  const size_t slabSize;
  Slab* slab = nullptr;
  UInt8* next = nullptr;
  UInt8* end = nullptr;
  UInt32 taken = 0;  // blocks of `slab`
};

// A block for an object: of the pool if there is one and it can, else of the heap.
struct HostObjectBlock {
  HostObjectBlock(HostObjectPool* pool, size_t size);

  void* bytes;  // null when there is no memory
  bool isPooled;
};
