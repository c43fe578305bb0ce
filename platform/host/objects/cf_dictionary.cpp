#include "platform/host/objects/cf_dictionary.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "platform/host/base/hash.h"
#include "platform/host/objects/cf_string.h"

// How a dictionary is stored and searched.
//
// The pairs are in a list, in the order in which their keys came in. Removing a pair leaves a hole
// (a null key), so that the other pairs keep their positions; holes at the end are dropped at once,
// the others when a quarter of a full list is holes and no walk over it is under way (Pack).
//
// Up to kMaxUnindexed pairs are searched one by one. From then on there is an index: a table of
// slots (hash, position + 1), a power of two in size and at most three quarters full. A key's
// search begins at its hash and ends at the first free slot. Removing a slot therefore moves those
// after it up (Leave), so that no search ends too early; there are no marks for removed slots.
//
// Three states of the index:
//   none       slots null, slotMask 0: the pairs are few, or RemoveAll has dropped it
//   postponed  slots null, slotMask set: CreateTaking has seen that all keys differ, so the table
//              can wait for the first search, which never comes for many lists from files
//   built      slots set
// Only a search turns postponed into built, on any thread: each thread that finds no table makes
// one, and the first to store it wins. The caller serialises everything else that changes a
// dictionary. A search that has no memory for the table looks at the pairs one by one.
//
// References: Take owns those of its pair; Detach takes a pair out completely before its references
// are released, because a foreign release callback may change this very dictionary.

namespace {

// The slots of an index over so many pairs, three quarters full at most.
size_t SlotsFor(UInt32 pairCapacity) {
  return std::bit_ceil(size_t{pairCapacity} + pairCapacity / 3 + 1);
}

// The characters of a key that is a string of single bytes; those of others are null.
struct KeyText {
  const UInt8* bytes = nullptr;
  size_t count = 0;

  explicit KeyText(const void* key) {
    const auto* string = HostCast<HostCFString>(key);
    if (string == nullptr || string->Latin1() == nullptr) return;
    bytes = string->Latin1();
    count = string->Length();
  }
  bool IsBefore(const KeyText& other) const {
    const int order = std::memcmp(bytes, other.bytes, std::min(count, other.count));
    return order != 0 ? order < 0 : count < other.count;
  }
};

// Whether the keys are few and differ in their last characters or in their length, as most keys do.
// If not, they may still differ.
bool AreFewAndEndApart(const HostPair* pairs, size_t count) {
  UInt64 marks[8];
  if (count > std::size(marks)) return false;
  for (size_t i = 0; i < count; ++i) {
    const KeyText text(pairs[i].key);
    if (text.bytes == nullptr) return false;
    UInt64 mark = 0;
    if (text.count >= sizeof mark)
      std::memcpy(&mark, text.bytes + text.count - sizeof mark, sizeof mark);
    else
      std::memcpy(&mark, text.bytes, text.count);
    marks[i] = mark * 31 + text.count;
    for (size_t j = 0; j < i; ++j) {
      if (marks[j] == marks[i]) return false;
    }
  }
  return true;
}

// Whether the keys are sorted, as most programs write them.
bool AreAscending(const HostPair* pairs, size_t count) {
  constexpr size_t kAhead = 8;
  KeyText last(pairs[0].key);
  if (last.bytes == nullptr) return false;
  for (size_t i = 1; i < count; ++i) {
    if (i + kAhead < count) __builtin_prefetch(pairs[i + kAhead].key);
    const KeyText text(pairs[i].key);
    if (text.bytes == nullptr || !last.IsBefore(text)) return false;
    last = text;
  }
  return true;
}

// Whether the keys differ and are so few that a table of their hashes fits on the stack.
bool AreFewAndHashApart(const HostPair* pairs, size_t count) {
  constexpr size_t kMost = 128;
  if (count > kMost) return false;
  UInt8 positions[2 * kMost] = {};  // of the hashes, plus 1; 0: free
  UInt32 hashes[kMost];
  for (size_t i = 0; i < count; ++i) {
    const auto* key = HostCast<HostCFString>(pairs[i].key);
    if (key == nullptr) return false;
    const UInt32 hash = key->TextHash();
    size_t at = hash % (2 * kMost);
    for (; positions[at] != 0; at = (at + 1) % (2 * kMost)) {
      if (hashes[positions[at] - 1] == hash) return false;
    }
    hashes[i] = hash;
    positions[at] = static_cast<UInt8>(i + 1);
  }
  return true;
}

}  // namespace

__CFDictionary* __CFDictionary::Make(size_t room, bool isMutable, bool holdsObjects,
                                     HostObjectPool* pool) {
  const size_t size = HostContainerSize(HeadSize(holdsObjects), room, sizeof(HostPair));
  if (size == 0) return nullptr;
  const HostObjectBlock block = HostObjectPool::Take(pool, size);
  if (block.bytes == nullptr) return nullptr;
  auto* dictionary = new (block.bytes) __CFDictionary(room, isMutable, holdsObjects);
  dictionary->RememberBlock(block);
  return dictionary;
}

__CFDictionary* __CFDictionary::Create(const HostDictionaryCallbacks& callbacks, size_t room,
                                       bool isMutable) {
  const bool holdsObjects = callbacks == kHostObjectPairs;
  __CFDictionary* dictionary = Make(room, isMutable, holdsObjects, nullptr);
  if (dictionary != nullptr && !holdsObjects)
    new (dictionary + 1) HostDictionaryCallbacks(callbacks);
  return dictionary;
}

__CFDictionary* __CFDictionary::CreateTaking(const HostPair* pairs, size_t count, bool isMutable,
                                             HostObjectPool* pool) {
  __CFDictionary* dictionary = Make(count, isMutable, true, pool);
  if (dictionary == nullptr) return nullptr;
  const bool isSmall = count <= kMaxUnindexed;
  if (isSmall ? AreFewAndEndApart(pairs, count)
              : AreAscending(pairs, count) || AreFewAndHashApart(pairs, count)) {
    if (count > 0) std::memcpy(dictionary->pairs, pairs, count * sizeof *pairs);
    dictionary->used = dictionary->count = static_cast<UInt32>(count);
    if (!isSmall) dictionary->slotMask = static_cast<UInt32>(SlotsFor(dictionary->capacity) - 1);
    return dictionary;
  }
  if (isSmall) {
    for (size_t i = 0; i < count; ++i) dictionary->Take(pairs[i], 0);
    return dictionary;
  }
  if (!dictionary->MakeIndex(dictionary->capacity)) {
    dictionary->Destroy();
    return nullptr;
  }
  dictionary->WithHashes(
      pairs, count, dictionary->slots.load(std::memory_order_relaxed),
      [dictionary](const HostPair& pair, UInt32 hash) { dictionary->Take(pair, hash); });
  return dictionary;
}

// Calls put(pair, hash) for each pair of a list that has a key. Works in batches, so that the next
// keys, and the slots of a large index, are fetched from memory meanwhile.
template <class Put>
void __CFDictionary::WithHashes(const HostPair* list, size_t size, const Slot* index,
                                Put put) const {
  constexpr size_t kBatch = 16;
  UInt32 hashes[kBatch];
  for (size_t i = 0; i < size; i += kBatch) {
    const size_t batch = std::min(kBatch, size - i);
    for (size_t j = i + batch; j < std::min(i + 2 * kBatch, size); ++j) {
      __builtin_prefetch(list[j].key, 1);
    }
    for (size_t j = 0; j < batch; ++j) {
      if (list[i + j].key == nullptr) continue;
      hashes[j] = HashOf(list[i + j].key);
      __builtin_prefetch(&index[hashes[j] & slotMask], 1);
    }
    for (size_t j = 0; j < batch; ++j) {
      if (list[i + j].key != nullptr) put(list[i + j], hashes[j]);
    }
  }
}

// Puts a pair whose references become the dictionary's; there is room for it and for its slot.
// `hash` is that of the key, if there is an index.
void __CFDictionary::Take(const HostPair& pair, UInt32 hash) {
  Slot* const index = slots.load(std::memory_order_relaxed);
  const UInt32 position =
      index != nullptr ? FindIndexed(index, pair.key, hash) : FindPosition(pair.key);
  if (position == kNowhere) {
    assert(used < capacity);  // MakeRoom has been called
    assert(index == nullptr || used <= slotMask);
    pairs[used] = pair;
    if (index != nullptr) Enter(index, hash, used);
    ++used;
    ++count;
    return;
  }
  ReleasePair({pair.key, std::exchange(pairs[position].value, pair.value)});
}

void __CFDictionary::Destroy() {
  DropIndex();
  constexpr UInt32 kAhead = 8;  // what is released then comes from memory meanwhile
  for (UInt32 i = 0; i < used; ++i) {
    if (i + kAhead < used) {
      __builtin_prefetch(pairs[i + kAhead].key, 1);
      __builtin_prefetch(pairs[i + kAhead].value, 1);
    }
    if (pairs[i].key != nullptr) ReleasePair(pairs[i]);
  }
  if (pairs != Inline()) ::operator delete(pairs);
  static_assert(std::is_trivially_destructible_v<__CFDictionary>);
  static_assert(std::is_trivially_destructible_v<HostDictionaryCallbacks>);
  FreeBlock();
}

void __CFDictionary::ReleasePair(const HostPair& pair) const {
  const HostDictionaryCallbacks& callbacks = Callbacks();
  callbacks.key.Release(pair.key);
  callbacks.value.Release(pair.value);
}

// ---- Finding ----

// A foreign hash may be any number, such as an address. It is mixed, so that the low bits differ.
UInt32 __CFDictionary::HashOf(const void* key) const {
  const auto hash = Callbacks().key.hash;
  if (hash == CFHash) {
    const auto* string = HostCast<HostCFString>(key);
    return string != nullptr ? string->TextHash() : CFHash(key);
  }
  return HostHashWord(hash != nullptr ? hash(key) : reinterpret_cast<uintptr_t>(key));
}

bool __CFDictionary::KeysEqual(const void* a, const void* b) const {
  if (a == b) return true;
  const HostItemCallbacks& keys = Callbacks().key;
  if (!keys.ComparesObjects()) return keys.Equal(a, b);
  const auto* left = HostCast<HostCFString>(a);
  const auto* right = HostCast<HostCFString>(b);
  return left != nullptr && right != nullptr ? left->HasTextOf(*right) : CFEqual(a, b);
}

UInt32 __CFDictionary::FindIndexed(const Slot* index, const void* key, UInt32 hash) const {
  for (UInt32 i = hash & slotMask;; i = (i + 1) & slotMask) {
    const Slot slot = index[i];
    if (slot.position == 0) return kNowhere;
    if (slot.hash == hash && KeysEqual(pairs[slot.position - 1].key, key)) return slot.position - 1;
  }
}

UInt32 __CFDictionary::FindPosition(const void* key) const {
  if (const Slot* index = IndexForSearch()) return FindIndexed(index, key, HashOf(key));
  for (UInt32 i = 0; i < used; ++i) {
    if (pairs[i].key == key) return i;
  }
  for (UInt32 i = 0; i < used; ++i) {
    if (pairs[i].key != nullptr && KeysEqual(pairs[i].key, key)) return i;
  }
  return kNowhere;
}

const HostPair* __CFDictionary::Find(const void* key) const {
  if (key == nullptr || count == 0) return nullptr;
  const UInt32 position = FindPosition(key);
  return position != kNowhere ? &pairs[position] : nullptr;
}

// ---- The index ----

// Returns the index, which is built now if it was postponed, or null if there is none or no memory
// for it: then the pairs are searched one by one.
const __CFDictionary::Slot* __CFDictionary::IndexForSearch() const {
  Slot* index = slots.load(std::memory_order_acquire);
  if (index != nullptr || slotMask == 0) return index;
  auto* made = static_cast<Slot*>(std::calloc(size_t{slotMask} + 1, sizeof(Slot)));
  if (made == nullptr) return nullptr;
  EnterAll(made);
  if (slots.compare_exchange_strong(index, made, std::memory_order_acq_rel)) return made;
  std::free(made);
  return index;
}

// Builds an index for so many pairs, which holds those that are there. Without memory returns false
// and keeps the old one.
bool __CFDictionary::MakeIndex(UInt32 pairCapacity) {
  const size_t wanted = SlotsFor(pairCapacity);
  const size_t size = HostContainerSize(0, wanted, sizeof(Slot));
  void* block = size != 0 ? std::calloc(wanted, sizeof(Slot)) : nullptr;
  if (block == nullptr) return false;
  auto* index = static_cast<Slot*>(block);
  Slot* old = slots.load(std::memory_order_relaxed);
  const UInt32 oldMask = std::exchange(slotMask, static_cast<UInt32>(wanted - 1));
  if (old != nullptr) {
    for (size_t i = 0; i <= oldMask; ++i) {
      if (old[i].position != 0) Enter(index, old[i].hash, old[i].position - 1);
    }
  } else {
    EnterAll(index);
  }
  slots.store(index, std::memory_order_release);
  std::free(old);
  return true;
}

void __CFDictionary::DropIndex() {
  std::free(slots.load(std::memory_order_relaxed));
  slots.store(nullptr, std::memory_order_relaxed);
  slotMask = 0;
}

// Enters all pairs into an empty index with slotMask + 1 slots.
void __CFDictionary::EnterAll(Slot* index) const {
  WithHashes(pairs, used, index, [this, index](const HostPair& pair, UInt32 hash) {
    Enter(index, hash, static_cast<UInt32>(&pair - pairs));
  });
}

// `index` has slotMask + 1 slots.
void __CFDictionary::Enter(Slot* index, UInt32 hash, UInt32 position) const {
  assert(position < capacity && pairs[position].key != nullptr);
  UInt32 i = hash & slotMask;
  while (index[i].position != 0) i = (i + 1) & slotMask;
  index[i] = {hash, position + 1};
}

// Frees the slot of a pair and moves those after it up, so that no search ends before them.
void __CFDictionary::Leave(UInt32 position) {
  Slot* const index = slots.load(std::memory_order_relaxed);
  assert(index != nullptr && pairs[position].key != nullptr);
  UInt32 hole = HashOf(pairs[position].key) & slotMask;
  while (index[hole].position != position + 1) hole = (hole + 1) & slotMask;
  for (UInt32 i = (hole + 1) & slotMask; index[i].position != 0; i = (i + 1) & slotMask) {
    const UInt32 home = index[i].hash & slotMask;
    if (((i - home) & slotMask) < ((i - hole) & slotMask)) continue;
    index[hole] = index[i];
    hole = i;
  }
  index[hole].position = 0;
}

// ---- Changing ----

// Removes the holes, which changes the positions of the pairs after them.
void __CFDictionary::Pack() {
  assert(walkers.load(std::memory_order_relaxed) == 0);
  UInt32 kept = 0;
  for (UInt32 i = 0; i < used; ++i) {
    if (pairs[i].key != nullptr) pairs[kept++] = pairs[i];
  }
  used = kept;
  assert(used == count);
  Slot* const index = slots.load(std::memory_order_relaxed);
  if (index == nullptr) return;
  std::memset(index, 0, (size_t{slotMask} + 1) * sizeof(Slot));
  EnterAll(index);
}

// Makes room for one more pair and its slot.
bool __CFDictionary::MakeRoom() {
  if (used == capacity && used - count > capacity / 4 &&
      walkers.load(std::memory_order_relaxed) == 0) {
    Pack();
  }
  if (used == capacity) {
    const size_t more = std::min<size_t>(std::max<size_t>(4, size_t{capacity} * 2), INT32_MAX);
    const size_t size = HostContainerSize(0, more, sizeof(HostPair));
    if (more == capacity || size == 0) return false;
    auto* larger = static_cast<HostPair*>(::operator new(size, std::nothrow));
    if (larger == nullptr) return false;
    if (used > 0) std::memcpy(larger, pairs, used * sizeof *pairs);
    if (pairs != Inline()) ::operator delete(pairs);
    pairs = larger;
    capacity = static_cast<UInt32>(more);
  }
  if (used < kMaxUnindexed && slotMask == 0) return true;
  return (HasIndex() && used < (size_t{slotMask} + 1) / 4 * 3) || MakeIndex(capacity);
}

bool __CFDictionary::Set(const void* key, const void* value) {
  if (key == nullptr || value == nullptr) return false;
  const HostDictionaryCallbacks& callbacks = Callbacks();
  const HostPair pair = {callbacks.key.Retain(key), callbacks.value.Retain(value)};
  // Replacing a value needs no memory.
  if (pair.key != nullptr && pair.value != nullptr && (MakeRoom() || Find(pair.key) != nullptr)) {
    Take(pair, HasIndex() ? HashOf(pair.key) : 0);
    return true;
  }
  if (pair.key != nullptr) callbacks.key.Release(pair.key);
  if (pair.value != nullptr) callbacks.value.Release(pair.value);
  return false;
}

// Takes a pair out of the dictionary; the caller releases its references.
HostPair __CFDictionary::Detach(UInt32 position) {
  assert(position < used && pairs[position].key != nullptr);
  if (HasIndex()) Leave(position);
  const HostPair pair = std::exchange(pairs[position], HostPair{});
  --count;
  if (walkers.load(std::memory_order_relaxed) == 0) {
    while (used > 0 && pairs[used - 1].key == nullptr) --used;
  }
  return pair;
}

void __CFDictionary::Remove(const void* key) {
  const HostPair* found = Find(key);
  if (found != nullptr) ReleasePair(Detach(static_cast<UInt32>(found - pairs)));
}

void __CFDictionary::RemoveAll() {
  DropIndex();
  // A pair that a foreign callback adds meanwhile stays.
  for (UInt32 i = used; i > 0; --i) {
    if (i <= used && pairs[i - 1].key != nullptr) ReleasePair(Detach(i - 1));
  }
}

// ---- What all containers do ----

bool __CFDictionary::NextItem(size_t& position, Item& item) const {
  while (position < used && pairs[position].key == nullptr) ++position;
  if (position >= used) return false;
  item = {pairs[position].key, pairs[position].value};
  ++position;
  return true;
}

bool __CFDictionary::EqualOutside(const HostContainer& container, HostEqualWalk& walk) const {
  const auto& other = static_cast<const __CFDictionary&>(container);
  const HostDictionaryCallbacks& callbacks = Callbacks();
  const HostDictionaryCallbacks& others = other.Callbacks();
  if (count != other.count || callbacks.key.equal != others.key.equal ||
      callbacks.key.hash != others.key.hash || callbacks.value.equal != others.value.equal) {
    return false;
  }
  for (const HostPair& pair : Pairs()) {
    if (pair.key == nullptr) continue;
    const HostPair* match = other.Find(pair.key);
    if (match == nullptr || !walk.Compare(callbacks.value, pair.value, match->value)) return false;
  }
  return true;
}
