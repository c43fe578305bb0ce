#pragma once

#include <CoreFoundation/CFDictionary.h>

#include <atomic>
#include <cstddef>

#include "platform/host/objects/cf_container.h"

struct HostDictionaryCallbacks {
  HostItemCallbacks key;
  HostItemCallbacks value;
  bool operator==(const HostDictionaryCallbacks&) const = default;
};
inline constexpr HostDictionaryCallbacks kHostObjectPairs = {kHostObjectKeys, kHostObjects};

// A key and its value. A removed pair leaves a hole, with a null key, until the list is packed.
struct HostPair {
  const void* key;
  const void* value;
};

// The dictionary object: a list of its pairs in the order in which the keys came in, and from nine
// pairs on a hash table over that list; cf_dictionary.cpp describes it. Strings are hashed with a
// random key of this process, so that no file can choose keys that collide. The first pairs stand
// after the object in the same block.
//
// Any thread may search or read a dictionary while none changes it.
struct __CFDictionary final : HostContainer {
  static constexpr HostTypeID kClass = kHostTypeDictionary;

  // Returns a new dictionary of counted objects that takes over the caller's references to all keys
  // and values of `pairs`; none may be null. If a key occurs twice, the first key stays with the
  // last value. Returns null for lack of memory or more than INT32_MAX pairs: the caller keeps the
  // references then.
  static __CFDictionary* CreateTaking(const HostPair* pairs, size_t count, bool isMutable,
                                      HostObjectPool* pool = nullptr);
  // Returns an empty dictionary with room for `room` pairs, or null without memory.
  static __CFDictionary* Create(const HostDictionaryCallbacks& callbacks, size_t room,
                                bool isMutable);

  size_t Count() const { return count; }
  const HostDictionaryCallbacks& Callbacks() const {
    return holdsObjects ? kHostObjectPairs
                        : *reinterpret_cast<const HostDictionaryCallbacks*>(this + 1);
  }

  // The list with its holes, valid until the next change: for (const HostPair& pair : Pairs()).
  struct PairList {
    const HostPair* first;
    const HostPair* last;
    const HostPair* begin() const { return first; }
    const HostPair* end() const { return last; }
    size_t Size() const { return static_cast<size_t>(last - first); }
  };
  PairList Pairs() const { return {pairs, pairs + used}; }

  // Returns the pair with an equal key, valid until the next change, or null if there is none.
  const HostPair* Find(const void* key) const;

  // These change the dictionary even if it is not mutable; the documented calls check that. Set
  // retains both and replaces the value of an equal key. It returns false and changes nothing if
  // one of them is null or its callback refuses it, and without memory.
  bool Set(const void* key, const void* value);
  void Remove(const void* key);
  void RemoveAll();

  // Between these two calls pairs keep their positions, whatever is added or removed.
  void BeginWalk() const { walkers.fetch_add(1, std::memory_order_relaxed); }
  void EndWalk() const { walkers.fetch_sub(1, std::memory_order_relaxed); }

  bool NextItem(size_t& position, Item& item) const override;
  size_t ItemCount() const override { return count; }
  const HostItemCallbacks& ValueCallbacks() const override { return Callbacks().value; }
  const HostItemCallbacks* KeyCallbacks() const override { return &Callbacks().key; }
  bool EqualOutside(const HostContainer& other, HostEqualWalk& walk) const override;

 private:
  // One entry of the index. `position` is the pair's position plus 1, or 0 if the entry is free.
  struct Slot {
    UInt32 hash;
    UInt32 position;
  };
  static constexpr UInt32 kMaxUnindexed = 8;
  static constexpr UInt32 kNowhere = UINT32_MAX;

  __CFDictionary(size_t room, bool isMutable, bool holdsObjects)
      : HostContainer(kClass, isMutable, holdsObjects),
        capacity(static_cast<UInt32>(room)),
        pairs(Inline()) {}
  static size_t HeadSize(bool holdsObjects) {
    return sizeof(__CFDictionary) + (holdsObjects ? 0 : sizeof(HostDictionaryCallbacks));
  }
  static __CFDictionary* Make(size_t room, bool isMutable, bool holdsObjects, HostObjectPool* pool);
  void Destroy() override;
  HostPair* Inline() {
    return reinterpret_cast<HostPair*>(reinterpret_cast<UInt8*>(this) + HeadSize(holdsObjects));
  }

  bool HasIndex() const { return slots.load(std::memory_order_relaxed) != nullptr; }
  const Slot* IndexForSearch() const;
  UInt32 HashOf(const void* key) const;
  bool KeysEqual(const void* a, const void* b) const;
  UInt32 FindPosition(const void* key) const;
  UInt32 FindIndexed(const Slot* index, const void* key, UInt32 hash) const;
  void Take(const HostPair& pair, UInt32 hash);
  HostPair Detach(UInt32 position);
  void ReleasePair(const HostPair& pair) const;
  bool MakeRoom();
  void Pack();
  bool MakeIndex(UInt32 pairCapacity);
  void DropIndex();
  template <class Put>
  void WithHashes(const HostPair* list, size_t size, const Slot* index, Put put) const;
  void EnterAll(Slot* index) const;
  void Enter(Slot* index, UInt32 hash, UInt32 position) const;
  void Leave(UInt32 position);

  mutable std::atomic<UInt32> walkers{0};
  UInt32 count = 0;     // of pairs without holes
  UInt32 used = 0;      // with holes
  UInt32 capacity;      // of `pairs`
  UInt32 slotMask = 0;  // number of slots minus 1, set already while the index is postponed
  HostPair* pairs;
  mutable std::atomic<Slot*> slots{nullptr};
};
using HostCFDictionary = __CFDictionary;
