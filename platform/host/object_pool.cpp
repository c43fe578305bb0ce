#include "platform/host/object_pool.h"

#include <sys/single_threaded.h>

#include <cstring>
#include <new>

// The blocks lie behind, each with the address of its slab in front.
struct HostObjectPool::Slab {
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

void* HostObjectPool::Take(size_t size) {
  if (size > Largest()) return nullptr;
  size = (size + kOverhead + 7) & ~size_t{7};
  if (static_cast<size_t>(end - next) < size) {
    CloseSlab();
    void* bytes = ::operator new(slabSize, std::nothrow);
    if (bytes == nullptr) return nullptr;
    slab = new (bytes) Slab;
    static_assert(sizeof(Slab) <= 8 && sizeof slab <= kOverhead);
    next = static_cast<UInt8*>(bytes) + 8;
    end = static_cast<UInt8*>(bytes) + slabSize;
  }
  UInt8* const block = next + kOverhead;
  std::memcpy(block - sizeof slab, &slab, sizeof slab);
  next += size;
  ++taken;
  return block;
}

void HostObjectPool::CloseSlab() {
  if (slab != nullptr) slab->Drop(Slab::kOpen - taken);
  slab = nullptr;
  next = end = nullptr;
  taken = 0;
}

void HostObjectPool::GiveBack(void* block) {
  Slab* slab;
  std::memcpy(&slab, static_cast<UInt8*>(block) - sizeof slab, sizeof slab);
  slab->Drop(1);
}

HostObjectBlock::HostObjectBlock(HostObjectPool* pool, size_t size)
    : bytes(pool != nullptr ? pool->Take(size) : nullptr), isPooled(bytes != nullptr) {
  if (bytes == nullptr) bytes = ::operator new(size, std::nothrow);
}
