#pragma once

#include <CoreServices/AEDataModel.h>
#include <CoreServices/AppleEvents.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/host/wire/frame_buffer.h"

// The contents of descriptors: values, lists, records and events, as a tree that one descriptor
// owns. Items are plain memory and are moved by copying their bytes; the function that removes one
// from the tree releases it. The bytes of a value never change after they were set, so runs of
// bytes are shared and have a reference count.
//
// A tree belongs to its descriptor, which one thread uses at a time.

struct HostAEEvent;
struct HostAEItem;

// A frame contains the same numbers.
enum class HostAEForm : uint8_t { kValue = 0, kList = 1, kRecord = 2, kEvent = 3 };

// Returns whether an item of this form may have this type code. A record may have any code that
// does not mean a value.
bool HostFormFits(HostAEForm form, DescType type);

// Copies at most 16 bytes, without a call. The runs must not overlap.
inline void HostCopyShort(void* to, const void* from, size_t count) {
  auto* target = static_cast<uint8_t*>(to);
  auto* source = static_cast<const uint8_t*>(from);
  // Copies the first and the last word of a run, which may share bytes.
  const auto copyEnds = [=](auto first) {
    auto last = first;
    memcpy(&first, source, sizeof first);
    memcpy(&last, source + count - sizeof last, sizeof last);
    memcpy(target, &first, sizeof first);
    memcpy(target + count - sizeof last, &last, sizeof last);
  };
  if (count >= 8) return copyEnds(uint64_t{});
  if (count >= 4) return copyEnds(uint32_t{});
  if (count >= 2) return copyEnds(uint16_t{});
  if (count == 1) *target = *source;
}

// A growable array of items, one pointer wide, without constructor or destructor. All zeros is
// the empty array. Items are kept in the order they were added.
struct HostAEItems {
  uint32_t Count() const { return block == nullptr ? 0 : block->count; }
  HostAEItem* begin() const;
  HostAEItem* end() const;
  HostAEItem& operator[](uint32_t index) const;
  // Returns null if there is none. Fast in that case, and if items are looked up in the order in
  // which they were put.
  HostAEItem* Find(AEKeyword key) const { return MayHave(key) ? Search(key) : nullptr; }
  // Returns false only if no item has the key.
  bool MayHave(AEKeyword key) const { return block != nullptr && (block->keys & BitOf(key)) != 0; }

  // Returns false without memory, and changes nothing then.
  bool Reserve(uint32_t capacity);
  // Returns false without memory. Otherwise a reply's error number can be appended without memory,
  // whatever is appended before. A reply without it would be taken for success.
  bool ReserveForErrorNumber();
  // Takes `item` over. Without memory, returns false and does not take it over.
  bool Append(const HostAEItem& item);
  // Takes `item` over and releases what was there.
  void Replace(uint32_t index, const HostAEItem& item);
  void Remove(uint32_t index);

  // Releases all items; Clear keeps room for a few.
  void Clear();
  void Destroy();
  OSStatus CopyFrom(const HostAEItems& source);  // into an empty array; empty on failure

  // Levels of nesting, this array being the first: 1 when it holds values only.
  int Height() const { return 1 + (block == nullptr ? 0 : block->tallestItem); }
  // To be called when an item has grown after it was appended.
  void NoteHeight(int itemHeight);

 private:
  struct alignas(8) Block {
    uint32_t count;
    uint32_t capacity;
    int32_t tallestItem;
    uint32_t likely;  // index of the item that is probably looked up next
    uint32_t spare;   // slots after the capacity, for an error number: 0 or 1
    uint64_t keys;    // a bit for each key that was ever put
  };
  static uint64_t BitOf(AEKeyword key) { return uint64_t{1} << (key * 0x9E3779B1u >> 26); }
  HostAEItem* Search(AEKeyword key) const;
  void RecomputeHeight();
  bool Allocate(uint32_t capacity, uint32_t spare);

  Block* block;
};

struct HostAEItem {
  static constexpr size_t kInlineSize = 16;

  AEKeyword key;  // typeWildCard in lists
  DescType type;
  uint32_t size;  // bytes of a value; 0 for containers
  HostAEForm form;
  union {
    uint8_t inlineBytes[kInlineSize];  // values up to this size
    struct {
      const uint8_t* bytes;
      // The buffer with the bytes; null if they are in the root event's frame or in the caller's
      // memory. Set only if the run is at least half of the buffer, because each copy of the item
      // keeps the whole buffer.
      HostFrameBuffer* owner;
    } run;              // longer values
    HostAEItems items;  // lists, records
    HostAEEvent* event;
  };

  bool IsContainer() const { return form != HostAEForm::kValue; }
  const uint8_t* Bytes() const { return size <= kInlineSize ? inlineBytes : run.bytes; }
  int Height() const;  // 0 for a value

  // The setters below overwrite without releasing; the key stays as it is.

  void SetNull() { SetEmpty(typeNull, HostAEForm::kValue); }
  void SetEmpty(DescType newType, HostAEForm newForm) {
    type = newType;
    size = 0;
    form = newForm;
    run = {nullptr, nullptr};
  }
  // Copies the bytes. memFullErr leaves a null value.
  OSStatus SetBytes(DescType newType, const void* bytes, size_t count) {
    if (count > kInlineSize) return SetLongBytes(newType, bytes, count);
    SetBorrowed(newType, bytes, count);
    return 0;
  }
  // Copies short bytes. Refers to longer ones, which must outlive the item and are never released.
  void SetBorrowed(DescType newType, const void* bytes, size_t count) {
    type = newType;
    size = static_cast<uint32_t>(count);
    form = HostAEForm::kValue;
    if (count > kInlineSize) {
      run = {static_cast<const uint8_t*>(bytes), nullptr};
    } else {
      HostCopyShort(inlineBytes, bytes, count);
    }
  }
  void SetEvent(HostAEEvent* taken) {
    SetEmpty(typeAppleEvent, HostAEForm::kEvent);
    event = taken;
  }
  // Makes this item a deep copy that borrows nothing; large runs are shared. After a failure it is
  // a null value.
  OSStatus CopyFrom(const HostAEItem& source);

  void Release() {  // leaves a null value
    if (HoldsMemory()) GiveBack();
    SetNull();
  }

 private:
  bool HoldsMemory() const {
    return form != HostAEForm::kValue || (size > kInlineSize && run.owner != nullptr);
  }
  OSStatus SetLongBytes(DescType newType, const void* bytes, size_t count);
  void GiveBack();
};

// Owns one item within a scope.
class StHostAEItem {
 public:
  StHostAEItem() {
    item.key = typeWildCard;
    item.SetNull();
  }
  ~StHostAEItem() { item.Release(); }
  StHostAEItem(const StHostAEItem&) = delete;
  StHostAEItem& operator=(const StHostAEItem&) = delete;

  HostAEItem* operator->() { return &item; }
  HostAEItem& Get() { return item; }
  // Gives the item up; the caller has copied it.
  void Forget() { item.SetNull(); }

 private:
  HostAEItem item;
};

// The attributes of an event that have a field of their own; event.cpp has their table.
struct HostAEEventFields {
  UInt32 eventClass;
  UInt32 eventID;
  SInt32 transactionID;
  SInt32 timeoutTicks;
  SInt32 interaction;
  UInt32 replyPort;
  SInt16 returnID;
  SInt16 source;
  UInt8 replyRequested;
  bool ownsReturnID;  // generated here; not generated again while this event exists
  UInt16 present;     // bit n: row n of the table has been set
  HostAEItem address;
  HostAEItem originalAddress;
};

struct HostAEEvent {
  HostAEEventFields fields;
  HostAEItems attributes;  // those without a field
  HostAEItems parameters;
  HostFrameRef frame;  // the memory into which borrowed runs of this tree point
  HostAEEvent* next;   // while unused

  int Height() const;
};

// Makes a deep copy that borrows nothing. It has the same return id, which it does not own. Returns
// 0, or memFullErr with `*out` null.
OSStatus HostCopyEvent(const HostAEEvent& source, HostAEEvent** out);

inline HostAEItem* HostAEItems::begin() const {
  return block == nullptr ? nullptr : reinterpret_cast<HostAEItem*>(block + 1);
}
inline HostAEItem* HostAEItems::end() const { return begin() + Count(); }
inline HostAEItem& HostAEItems::operator[](uint32_t index) const { return begin()[index]; }
