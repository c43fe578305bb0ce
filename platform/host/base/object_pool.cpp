#include "platform/host/base/object_pool.h"

bool HostObjectPool::OpenSlab() {
  CloseSlab();
  void* const bytes = ::operator new(nextSize, std::nothrow);
  if (bytes == nullptr) return false;
  slab = new (bytes) Slab;
  next = static_cast<UInt8*>(bytes) + sizeof(Slab);
  end = static_cast<UInt8*>(bytes) + nextSize;
  if (nextSize < kLastSize) nextSize *= 2;
  return true;
}

void HostObjectPool::CloseSlab() {
  if (slab != nullptr) slab->Drop(Slab::kOpen - taken);
  slab = nullptr;
  next = end = nullptr;
  taken = 0;
}
