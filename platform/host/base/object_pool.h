#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/single_threaded.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

// A block for an object, null without memory. `offset` identifies the slab or heap that it came
// from; the object stores it for HostObjectPool::GiveBack.
struct HostObjectBlock {
  void* bytes;
  UInt16 offset;
};

// HostObjectPool gives out blocks for objects that are made by the thousand and mostly destroyed
// together, such as those of a large property list. It cuts them one after the other from slabs,
// which costs a fraction of what the heap costs. A slab is as large as all slabs before it
// together, up to 64 KiB, and is freed with its last block. So an object that is kept keeps at most
// half of the memory that was allocated with it.
//
// One thread uses a pool. The pool may be destroyed long before its blocks, which any thread may
// give back.
class HostObjectPool {
 public:
  HostObjectPool() = default;
  ~HostObjectPool() { CloseSlab(); }
  HostObjectPool(const HostObjectPool&) = delete;
  HostObjectPool& operator=(const HostObjectPool&) = delete;

  // Returns a block aligned to 8 bytes. It comes from the heap if `pool` is null or the block is a
  // large one.
  static HostObjectBlock Take(HostObjectPool* pool, size_t size) {
    if (pool != nullptr && size <= kLargestBlock) return pool->Cut((size + 7) & ~size_t{7});
    return {::operator new(size, std::nothrow), kHeap};
  }
  static void GiveBack(void* block, UInt16 offset) {
    if (offset == kHeap) return ::operator delete(block);
    // Computed from the number of the address, because the compiler assumes that there is nothing
    // before an object.
    const uintptr_t slab = reinterpret_cast<uintptr_t>(block) - size_t{offset} * kUnit;
    reinterpret_cast<Slab*>(slab)->Drop(1);
  }

 private:
  // Values of `offset`. All others are the offset from the slab's beginning, in units.
  static constexpr UInt16 kHeap = 0;
  static constexpr size_t kUnit = 8;

  static constexpr size_t kFirstSize = 1024;
  static constexpr size_t kLastSize = 64 * 1024;
  static constexpr size_t kLargestBlock = 512;
  static_assert(kLastSize / kUnit <= UINT16_MAX);

  // The head of a slab.
  struct alignas(kUnit) Slab {
    // While the pool cuts blocks from the slab, this is kOpen less the blocks that were given back,
    // so cutting a block does not touch it. Closing the slab makes it the number of blocks that are
    // still in use; at 0 the slab is freed.
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
