#include "platform/host/events/value.h"

#include <algorithm>
#include <cstdlib>

#include "platform/host/events/storage.h"
#include "platform/host/events/types.h"

namespace {

constexpr uint32_t kFirstCapacity = 4;
constexpr uint32_t kKeptCapacity = 32;

bool IsContainerCode(DescType type) {
  return type == typeAEList || type == typeAERecord || type == typeAppleEvent;
}

}  // namespace

bool HostFormFits(HostAEForm form, DescType type) {
  switch (form) {
    case HostAEForm::kValue:
      return !IsContainerCode(type);
    case HostAEForm::kList:
      return type == typeAEList;
    case HostAEForm::kRecord:
      return type == typeAERecord || !(IsContainerCode(type) || HostIsValueType(type));
    case HostAEForm::kEvent:
      return type == typeAppleEvent;
  }
  return false;
}

HostAEItem* HostAEItems::Search(AEKeyword key) const {
  HostAEItem* found = begin() + block->likely;
  if (block->likely >= block->count || found->key != key) {
    found = std::find_if(begin(), end(), [key](const HostAEItem& item) { return item.key == key; });
    if (found == end()) return nullptr;
  }
  block->likely = static_cast<uint32_t>(found - begin()) + 1;
  return found;
}

bool HostAEItems::Reserve(uint32_t capacity) {
  if (block != nullptr && capacity <= block->capacity) return true;
  return Allocate(capacity, block != nullptr ? block->spare : 0);
}

bool HostAEItems::ReserveForErrorNumber() {
  if (block == nullptr) return Allocate(kFirstCapacity, 1);
  return block->spare > 0 || Allocate(block->capacity, 1);
}

bool HostAEItems::Allocate(uint32_t capacity, uint32_t spare) {
  const uint64_t bytes = sizeof(Block) + (uint64_t{capacity} + spare) * sizeof(HostAEItem);
  if (bytes > SIZE_MAX / 2) return false;
  auto* grown = static_cast<Block*>(realloc(block, static_cast<size_t>(bytes)));
  if (grown == nullptr) return false;
  if (block == nullptr) {
    grown->count = 0;
    grown->tallestItem = 0;
    grown->likely = 0;
    grown->keys = 0;
  }
  grown->capacity = capacity;
  grown->spare = spare;
  block = grown;
  return true;
}

bool HostAEItems::Append(const HostAEItem& item) {
  if (block == nullptr || block->count == block->capacity) {
    const uint64_t wanted = std::max<uint64_t>(kFirstCapacity, uint64_t{Count()} * 2);
    if (wanted > UINT32_MAX || !Reserve(static_cast<uint32_t>(wanted))) {
      if (block == nullptr || block->spare == 0 || item.key != keyErrorNumber) return false;
      --block->spare;
      ++block->capacity;
    }
  }
  memcpy(begin() + block->count, &item, sizeof item);
  ++block->count;
  block->keys |= BitOf(item.key);
  if (item.IsContainer()) NoteHeight(item.Height());
  return true;
}

void HostAEItems::NoteHeight(int itemHeight) {
  block->tallestItem = std::max(block->tallestItem, int32_t{itemHeight});
}

void HostAEItems::RecomputeHeight() {
  block->tallestItem = 0;
  for (const HostAEItem& item : *this) NoteHeight(item.Height());
}

void HostAEItems::Replace(uint32_t index, const HostAEItem& item) {
  HostAEItem& former = (*this)[index];
  const int before = former.Height();
  former.Release();
  memcpy(&former, &item, sizeof item);
  if (item.Height() >= before) return NoteHeight(item.Height());
  RecomputeHeight();
}

void HostAEItems::Remove(uint32_t index) {
  HostAEItem* found = &(*this)[index];
  const int before = found->Height();
  found->Release();
  memmove(found, found + 1, (end() - found - 1) * sizeof *found);
  --block->count;
  if (before > 0) RecomputeHeight();
}

void HostAEItems::Clear() {
  if (block == nullptr) return;
  for (HostAEItem& item : *this) item.Release();
  block->count = 0;
  block->tallestItem = 0;
  block->likely = 0;
  block->keys = 0;
  if (block->capacity > kKeptCapacity) Destroy();
}

void HostAEItems::Destroy() {
  for (HostAEItem& item : *this) item.Release();
  free(block);
  block = nullptr;
}

OSStatus HostAEItems::CopyFrom(const HostAEItems& source) {
  if (source.Count() == 0) return 0;
  if (!Reserve(source.Count())) return memFullErr;
  for (const HostAEItem& item : source) {
    HostAEItem& slot = begin()[block->count];
    slot.key = item.key;
    const OSStatus err = slot.CopyFrom(item);
    if (err != 0) {
      Destroy();
      return err;
    }
    ++block->count;
  }
  block->tallestItem = source.block->tallestItem;
  block->keys = source.block->keys;
  return 0;
}

int HostAEItem::Height() const {
  switch (form) {
    case HostAEForm::kValue:
      return 0;
    case HostAEForm::kEvent:
      return event->Height();
    default:
      return items.Height();
  }
}

OSStatus HostAEItem::SetLongBytes(DescType newType, const void* bytes, size_t count) {
  SetNull();
  HostFrameBuffer* buffer = HostFrameBuffer::Create(count);
  if (buffer == nullptr) return memFullErr;
  memcpy(buffer->Bytes(), bytes, count);
  SetBorrowed(newType, buffer->Bytes(), count);
  run.owner = buffer;
  return 0;
}

OSStatus HostAEItem::CopyFrom(const HostAEItem& source) {
  OSStatus err = 0;
  if (source.form == HostAEForm::kValue) {
    // A run has an owner only if it is at least half of what the owner keeps in memory.
    HostFrameBuffer* owner = source.size > kInlineSize ? source.run.owner : nullptr;
    if (owner == nullptr) return SetBytes(source.type, source.Bytes(), source.size);
    owner->Retain();
    SetBorrowed(source.type, source.run.bytes, source.size);
    run.owner = owner;
    return 0;
  }
  if (source.form == HostAEForm::kEvent) {
    HostAEEvent* copy = nullptr;
    err = HostCopyEvent(*source.event, &copy);
    if (err == 0) SetEvent(copy);
  } else {
    SetEmpty(source.type, source.form);
    err = items.CopyFrom(source.items);
  }
  if (err != 0) SetNull();
  return err;
}

void HostAEItem::GiveBack() {
  if (form == HostAEForm::kValue) {
    run.owner->Release();
  } else if (form == HostAEForm::kEvent) {
    HostReleaseEvent(event);
  } else {
    items.Destroy();
  }
}

int HostAEEvent::Height() const { return std::max(attributes.Height(), parameters.Height()); }

OSStatus HostCopyEvent(const HostAEEvent& source, HostAEEvent** out) {
  HostAEEvent* copy = HostAcquireEvent();
  if (copy == nullptr) return memFullErr;
  copy->fields = source.fields;
  copy->fields.ownsReturnID = false;
  copy->fields.address.SetNull();
  copy->fields.originalAddress.SetNull();

  OSStatus err = copy->fields.address.CopyFrom(source.fields.address);
  if (err == 0) err = copy->fields.originalAddress.CopyFrom(source.fields.originalAddress);
  if (err == 0) err = copy->attributes.CopyFrom(source.attributes);
  if (err == 0) err = copy->parameters.CopyFrom(source.parameters);
  if (err != 0) {
    HostReleaseEvent(copy);
    copy = nullptr;
  }
  *out = copy;
  return err;
}
