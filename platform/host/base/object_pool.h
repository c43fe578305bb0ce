#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/single_threaded.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

// A block for an object: null when there is no memory. `place` says where it came from; the object
// remembers it for HostObjectPool::GiveBack.
struct HostObjectBlock {
  void* bytes;
  UInt16 place;
};

// Blocks for objects that are made by the thousand and mostly die together, such as those of a
// large property list: cut one after the other from slabs, at a fraction of the heap's cost. A slab
// is as large as all before it, up to 64 KiB, and is freed with the last block in it, so an object
// that is kept keeps at most half of what was made with it.
//
// A pool is used by one thread; it may be gone long before its blocks are. These are given back on
// any thread.
class HostObjectPool {
 public:
  HostObjectPool() = default;
  ~HostObjectPool() { CloseSlab(); }
  HostObjectPool(const HostObjectPool&) = delete;
  HostObjectPool& operator=(const HostObjectPool&) = delete;

  // A block aligned to 8 bytes: of the pool unless that is null or the block a large one, else of
  // the heap.
  static HostObjectBlock Take(HostObjectPool* pool, size_t size) {
    if (pool != nullptr && size <= kLargestBlock) return pool->Cut((size + 7) & ~size_t{7});
    return {::operator new(size, std::nothrow), kHeap};
  }
  static void GiveBack(void* block, UInt16 place) {
    if (place == kHeap) return ::operator delete(block);
    // By the address: the compiler takes what lies in front of an object for nothing.
    const uintptr_t slab = reinterpret_cast<uintptr_t>(block) - size_t{place} * kUnit;
    reinterpret_cast<Slab*>(slab)->Drop(1);
  }

 private:
  // Of `place`; all other values are the distance from the slab's beginning, in units.
  static constexpr UInt16 kHeap = 0;
  static constexpr size_t kUnit = 8;

  static constexpr size_t kFirstSize = 1024;
  static constexpr size_t kLastSize = 64 * 1024;
  static constexpr size_t kLargestBlock = 512;
  static_assert(kLastSize / kUnit <= UINT16_MAX);

  // What a slab begins with.
  struct alignas(kUnit) Slab {
    // While the pool cuts blocks from it, this counts down from kOpen; closing sets the balance
    // right.
    static constexpr UInt32 kOpen = 0x40000000;
    std::atomic<UInt32> blocks{kOpen};

    void Drop(UInt32 count) {
      UInt32 before = blocks.load(std::memory_order_relaxed);
      if (__libc_single_threaded != 0)
        blocks.store(before - count, std::memory_order_relaxed);
      else
        before = blocks.fetch_sub(count, std::memory_order_acq_rel);
      if (before == count) ::operator delete(this);
    }
  };
  static_assert(sizeof(Slab) == kUnit);

  HostObjectBlock Cut(size_t size) {
    if (static_cast<size_t>(end - next) < size && !OpenSlab()) return {nullptr, kHeap};
    UInt8* const block = next;
    next += size;
    ++taken;
    const auto distance = static_cast<size_t>(block - reinterpret_cast<UInt8*>(slab));
    return {block, static_cast<UInt16>(distance / kUnit)};
  }
  bool OpenSlab();
  void CloseSlab();

  Slab* slab = nullptr;
  UInt8* next = nullptr;
  UInt8* end = nullptr;
  UInt32 taken = 0;  // blocks of `slab`
  UInt32 nextSize = kFirstSize;
};
