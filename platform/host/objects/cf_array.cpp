#include "platform/host/objects/cf_array.h"

#include <algorithm>
#include <cstring>
#include <new>

__CFArray* __CFArray::Make(size_t room, bool isMutable, bool holdsObjects, HostObjectPool* pool) {
  const size_t size = HostContainerSize(HeadSize(holdsObjects), room, sizeof(const void*));
  if (size == 0) return nullptr;
  const HostObjectBlock block = HostObjectPool::Take(pool, size);
  if (block.bytes == nullptr) return nullptr;
  auto* array = new (block.bytes) __CFArray(room, isMutable, holdsObjects);
  array->RememberBlock(block);
  return array;
}

__CFArray* __CFArray::CreateTaking(const CFTypeRef* values, size_t count, bool isMutable,
                                   HostObjectPool* pool) {
  __CFArray* array = Make(count, isMutable, true, pool);
  if (array == nullptr) return nullptr;
  if (count > 0) std::memcpy(array->values, values, count * sizeof *values);
  array->count = static_cast<UInt32>(count);
  return array;
}

__CFArray* __CFArray::Create(const HostItemCallbacks& callbacks, size_t room, bool isMutable) {
  const bool holdsObjects = callbacks == kHostObjects;
  __CFArray* array = Make(room, isMutable, holdsObjects, nullptr);
  if (array != nullptr && !holdsObjects) new (array + 1) HostItemCallbacks(callbacks);
  return array;
}

void __CFArray::Destroy() {
  RemoveAll();
  if (values != Inline()) ::operator delete(values);
  static_assert(std::is_trivially_destructible_v<__CFArray>);
  static_assert(std::is_trivially_destructible_v<HostItemCallbacks>);
  FreeBlock();
}

bool __CFArray::MakeRoom() {
  if (count < capacity) return true;
  const size_t more = std::min<size_t>(std::max<size_t>(4, size_t{capacity} * 2), INT32_MAX);
  const size_t size = HostContainerSize(0, more, sizeof *values);
  if (more == capacity || size == 0) return false;
  auto** larger = static_cast<const void**>(::operator new(size, std::nothrow));
  if (larger == nullptr) return false;
  if (count > 0) std::memcpy(larger, values, count * sizeof *values);
  if (values != Inline()) ::operator delete(values);
  values = larger;
  capacity = static_cast<UInt32>(more);
  return true;
}

bool __CFArray::Insert(size_t index, const void* value) {
  if (value == nullptr || index > count) return false;
  const HostItemCallbacks& callbacks = ValueCallbacks();
  const void* stored = callbacks.Retain(value);
  // Checked again, because a foreign callback may have changed the array.
  if (stored == nullptr || index > count || !MakeRoom()) {
    if (stored != nullptr) callbacks.Release(stored);
    return false;
  }
  std::memmove(values + index + 1, values + index, (count - index) * sizeof *values);
  values[index] = stored;
  ++count;
  return true;
}

bool __CFArray::Replace(size_t index, const void* value) {
  if (value == nullptr || index >= count) return false;
  const HostItemCallbacks& callbacks = ValueCallbacks();
  const void* stored = callbacks.Retain(value);
  if (stored == nullptr || index >= count) {
    if (stored != nullptr) callbacks.Release(stored);
    return false;
  }
  callbacks.Release(std::exchange(values[index], stored));
  return true;
}

bool __CFArray::Remove(size_t index) {
  if (index >= count) return false;
  const void* removed = values[index];
  std::memmove(values + index, values + index + 1, (count - index - 1) * sizeof *values);
  --count;
  ValueCallbacks().Release(removed);
  return true;
}

void __CFArray::RemoveAll() {
  const HostItemCallbacks& callbacks = ValueCallbacks();
  while (count > 0) callbacks.Release(values[--count]);
}

bool __CFArray::NextItem(size_t& position, Item& item) const {
  if (position >= count) return false;
  item = {nullptr, values[position++]};
  return true;
}

bool __CFArray::EqualOutside(const HostContainer& container, HostEqualWalk& walk) const {
  const auto& other = static_cast<const __CFArray&>(container);
  const HostItemCallbacks& callbacks = ValueCallbacks();
  if (count != other.count || callbacks.equal != other.ValueCallbacks().equal) return false;
  for (UInt32 i = 0; i < count; ++i) {
    if (!walk.Compare(callbacks, values[i], other.values[i])) return false;
  }
  return true;
}

namespace {

HostCFArray* ToChange(CFMutableArrayRef ref) {
  auto* array = HostCast<HostCFArray>(ref);
  return array != nullptr && array->IsMutable() ? array : nullptr;
}

size_t Index(CFIndex index) { return static_cast<size_t>(index < 0 ? SIZE_MAX : index); }

HostCFArray* CreateFilled(const HostItemCallbacks& callbacks, const void* const* values,
                          size_t count, size_t room, bool isMutable) {
  HostRetained<HostCFArray> array(HostCFArray::Create(callbacks, std::max(room, count), isMutable));
  for (size_t i = 0; i < count && array; ++i) {
    if (!array->Append(values[i])) array = HostRetained<HostCFArray>();
  }
  return array.Give();
}

// A capacity is a hint, not a reason to take memory that may never be used.
size_t Room(CFIndex capacity) { return static_cast<size_t>(std::clamp(capacity, 0, 64)); }

}  // namespace

CFTypeID CFArrayGetTypeID(void) { return kHostTypeArray; }

CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex count,
                         const CFArrayCallBacks* callBacks) {
  if (count < 0 || (values == nullptr && count > 0)) return nullptr;
  const auto size = static_cast<size_t>(count);
  return CreateFilled(HostItemCallbacks::Of(callBacks), values, size, size, false);
}

CFArrayRef CFArrayCreateCopy(CFAllocatorRef, CFArrayRef ref) {
  const auto* array = HostCast<HostCFArray>(ref);
  if (array == nullptr) return nullptr;
  if (!array->IsMutable()) return static_cast<CFArrayRef>(CFRetain(array));
  return CreateFilled(array->ValueCallbacks(), array->Values(), array->Count(), 0, false);
}

CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef, CFIndex capacity,
                                       const CFArrayCallBacks* callBacks) {
  return HostCFArray::Create(HostItemCallbacks::Of(callBacks), Room(capacity), true);
}

CFMutableArrayRef CFArrayCreateMutableCopy(CFAllocatorRef, CFIndex capacity, CFArrayRef ref) {
  const auto* array = HostCast<HostCFArray>(ref);
  if (array == nullptr) return nullptr;
  return CreateFilled(array->ValueCallbacks(), array->Values(), array->Count(), Room(capacity),
                      true);
}

CFIndex CFArrayGetCount(CFArrayRef ref) {
  const auto* array = HostCast<HostCFArray>(ref);
  return array != nullptr ? static_cast<CFIndex>(array->Count()) : 0;
}

const void* CFArrayGetValueAtIndex(CFArrayRef ref, CFIndex index) {
  const auto* array = HostCast<HostCFArray>(ref);
  return array != nullptr && Index(index) < array->Count() ? array->Values()[index] : nullptr;
}

void CFArrayGetValues(CFArrayRef ref, CFRange range, const void** values) {
  const auto* array = HostCast<HostCFArray>(ref);
  if (array == nullptr || values == nullptr || range.location < 0 || range.length < 0) return;
  const auto first = static_cast<size_t>(range.location);
  const auto count = static_cast<size_t>(range.length);
  if (first > array->Count() || count > array->Count() - first) return;
  std::copy_n(array->Values() + first, count, values);
}

void CFArrayAppendValue(CFMutableArrayRef ref, const void* value) {
  if (HostCFArray* array = ToChange(ref)) array->Append(value);
}

void CFArrayInsertValueAtIndex(CFMutableArrayRef ref, CFIndex index, const void* value) {
  if (HostCFArray* array = ToChange(ref)) array->Insert(Index(index), value);
}

void CFArraySetValueAtIndex(CFMutableArrayRef ref, CFIndex index, const void* value) {
  HostCFArray* array = ToChange(ref);
  if (array == nullptr) return;
  if (Index(index) == array->Count())
    array->Append(value);
  else
    array->Replace(Index(index), value);
}

void CFArrayRemoveValueAtIndex(CFMutableArrayRef ref, CFIndex index) {
  if (HostCFArray* array = ToChange(ref)) array->Remove(Index(index));
}

void CFArrayRemoveAllValues(CFMutableArrayRef ref) {
  if (HostCFArray* array = ToChange(ref)) array->RemoveAll();
}
