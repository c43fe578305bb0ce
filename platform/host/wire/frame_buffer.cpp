#include "platform/host/wire/frame_buffer.h"

#include <sys/mman.h>
#include <cstdlib>

#include <algorithm>
#include <new>

#include "platform/host/base/thread_end.h"

// Each thread keeps the last blocks that it released if they are of the size that connections read
// into, or that large values take: fresh memory of that size costs a page fault per page. It also
// keeps a few small ones, which every longer text needs.

namespace {

constexpr size_t kSpareCount = 16;
constexpr size_t kSpareLeast = size_t{48} << 10;
constexpr size_t kSpareMost = size_t{2} << 20;
constexpr size_t kSpareInAll = size_t{4} << 20;

// Small blocks have one of these sizes: a multiple of the step, one step at the least.
constexpr size_t kSmallStep = 32;
constexpr size_t kSmallMost = 512;
constexpr size_t kSmallKept = 8;  // of each size

// Under a sanitizer nothing is kept: it detects the use of a released block only if the block has
// been freed.
#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
constexpr bool kKeepsSmall = false;
#else
constexpr bool kKeepsSmall = true;
#endif

// Blocks that are too large to be kept are mapped and unmapped directly: the heap would not return
// them to the kernel.
constexpr size_t kMapped = sizeof(HostFrameBuffer) + kSpareMost;

void* AllocateBlock(size_t size) {
  if (size <= kMapped) return malloc(size);
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

void FreeBlock(void* memory, size_t size) {
  if (size <= kMapped) {
    free(memory);
  } else {
    munmap(memory, size);
  }
}

struct Spares {
  HostFrameBuffer* blocks[kSpareCount];  // the one kept longest first
  size_t count;
  size_t bytes;  // in all
  bool ended;    // the thread is ending: nothing is kept any more
  struct {
    HostFrameBuffer* blocks[kSmallKept];
    size_t count;
  } small[kSmallMost / kSmallStep];
};
constinit thread_local Spares sSpares = {};

void FreeAll() {
  sSpares.ended = true;
  while (sSpares.count > 0) free(sSpares.blocks[--sSpares.count]);
  for (auto& each : sSpares.small) {
    while (each.count > 0) free(each.blocks[--each.count]);
  }
}
constinit thread_local HostThreadEnd sSparesEnd{FreeAll};

// Takes out the block at `index`.
HostFrameBuffer* TakeOut(Spares& spares, size_t index) {
  HostFrameBuffer* block = spares.blocks[index];
  spares.bytes -= block->Capacity();
  for (--spares.count; index < spares.count; ++index) {
    spares.blocks[index] = spares.blocks[index + 1];
  }
  return block;
}

auto& SmallOnes(size_t capacity) { return sSpares.small[capacity / kSmallStep - 1]; }

bool Keep(HostFrameBuffer* block) {
  Spares& spares = sSpares;
  if (block->Capacity() <= kSmallMost) {
    auto& kept = SmallOnes(block->Capacity());
    if (!kKeepsSmall || spares.ended || kept.count == kSmallKept) return false;
    HostAtThreadEnd(sSparesEnd);
    kept.blocks[kept.count++] = block;
    return true;
  }
  if (spares.ended || block->Capacity() < kSpareLeast || block->Capacity() > kSpareMost) {
    return false;
  }
  HostAtThreadEnd(sSparesEnd);
  // The blocks kept longest, which are of another size, make room.
  while (spares.count == kSpareCount || spares.bytes + block->Capacity() > kSpareInAll) {
    free(TakeOut(spares, 0));
  }
  spares.blocks[spares.count++] = block;
  spares.bytes += block->Capacity();
  return true;
}

}  // namespace

HostFrameBuffer* HostFrameBuffer::Create(size_t capacity) {
  if (capacity > SIZE_MAX - sizeof(HostFrameBuffer)) return nullptr;
  if (capacity <= kSmallMost) {
    capacity = std::max(capacity + kSmallStep - 1, kSmallStep) / kSmallStep * kSmallStep;
    auto& kept = SmallOnes(capacity);
    if (kept.count > 0) return new (kept.blocks[--kept.count]) HostFrameBuffer(capacity);
  } else if (capacity >= kSpareLeast && capacity <= kSpareMost) {
    if (HostFrameBuffer* spare = TakeSpare(capacity)) return spare;
  }
  void* memory = AllocateBlock(sizeof(HostFrameBuffer) + capacity);
  return memory == nullptr ? nullptr : new (memory) HostFrameBuffer(capacity);
}

HostFrameBuffer* HostFrameBuffer::TakeSpare(size_t capacity) {
  // A block that is much too large is left for a large frame.
  const size_t most = capacity <= SIZE_MAX / 2 ? capacity * 2 : capacity;
  // The one used last is the likeliest to be in the processor's cache.
  for (size_t index = sSpares.count; index-- > 0;) {
    const size_t size = sSpares.blocks[index]->capacity;
    if (size < capacity || size > most) continue;
    HostFrameBuffer* block = TakeOut(sSpares, index);
    block->references.store(1, std::memory_order_relaxed);
    return block;
  }
  return nullptr;
}

void HostFrameBuffer::Release() {
  // A sole owner needs no locked instruction: no other thread can take a reference.
  if (references.load(std::memory_order_acquire) != 1 &&
      references.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return;
  }
  if (!Keep(this)) FreeBlock(this, sizeof(HostFrameBuffer) + capacity);
}
