#include <CoreFoundation/CFDictionary.h>

#include <algorithm>

#include "platform/host/objects/cf_dictionary.h"

// The documented calls of dictionaries.

namespace {

HostCFDictionary* ToChange(CFMutableDictionaryRef ref) {
  auto* dictionary = HostCast<HostCFDictionary>(ref);
  return dictionary != nullptr && dictionary->IsMutable() ? dictionary : nullptr;
}

HostDictionaryCallbacks Callbacks(const CFDictionaryKeyCallBacks* key,
                                  const CFDictionaryValueCallBacks* value) {
  return {HostItemCallbacks::Of(key), HostItemCallbacks::Of(value)};
}

// A capacity is a hint, not a reason to take memory that may never be used.
size_t Room(CFIndex capacity) { return static_cast<size_t>(std::clamp(capacity, 0, 64)); }

HostCFDictionary* CreateFilled(const HostCFDictionary& source, size_t room, bool isMutable) {
  HostRetained<HostCFDictionary> copy(
      HostCFDictionary::Create(source.Callbacks(), std::max(room, source.Count()), isMutable));
  for (const HostPair& pair : source.Pairs()) {
    if (!copy) break;
    if (pair.key != nullptr && !copy->Set(pair.key, pair.value)) {
      copy = HostRetained<HostCFDictionary>();
    }
  }
  return copy.Give();
}

// Walk retains the dictionary, and HeldPair one pair, while a callback uses them.
class Walk {
 public:
  explicit Walk(HostCFDictionary* walked)
      : dictionary(HostRetained<HostCFDictionary>::Retaining(walked)) {
    dictionary->BeginWalk();
  }
  ~Walk() { dictionary->EndWalk(); }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

 private:
  HostRetained<HostCFDictionary> dictionary;
};

class HeldPair {
 public:
  HeldPair(const HostDictionaryCallbacks& callbacks, const HostPair& pair)
      : callbacks(callbacks),
        key(callbacks.key.Retain(pair.key)),
        value(callbacks.value.Retain(pair.value)) {}
  ~HeldPair() {
    if (key != nullptr) callbacks.key.Release(key);
    if (value != nullptr) callbacks.value.Release(value);
  }
  HeldPair(const HeldPair&) = delete;
  HeldPair& operator=(const HeldPair&) = delete;

 private:
  const HostDictionaryCallbacks& callbacks;
  const void* const key;
  const void* const value;
};

}  // namespace

CFTypeID CFDictionaryGetTypeID(void) { return kHostTypeDictionary; }

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void** keys, const void** values,
                                   CFIndex count, const CFDictionaryKeyCallBacks* keyCallBacks,
                                   const CFDictionaryValueCallBacks* valueCallBacks) {
  if (count < 0 || (count > 0 && (keys == nullptr || values == nullptr))) return nullptr;
  HostRetained<HostCFDictionary> dictionary(HostCFDictionary::Create(
      Callbacks(keyCallBacks, valueCallBacks), static_cast<size_t>(count), false));
  for (CFIndex i = 0; i < count && dictionary; ++i) {
    if (!dictionary->Set(keys[i], values[i])) dictionary = HostRetained<HostCFDictionary>();
  }
  return dictionary.Give();
}

CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef, CFDictionaryRef ref) {
  const auto* dictionary = HostCast<HostCFDictionary>(ref);
  if (dictionary == nullptr) return nullptr;
  if (!dictionary->IsMutable()) return static_cast<CFDictionaryRef>(CFRetain(dictionary));
  return CreateFilled(*dictionary, 0, false);
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks* keyCallBacks,
                                                 const CFDictionaryValueCallBacks* valueCallBacks) {
  return HostCFDictionary::Create(Callbacks(keyCallBacks, valueCallBacks), Room(capacity), true);
}

CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef, CFIndex capacity,
                                                     CFDictionaryRef ref) {
  const auto* dictionary = HostCast<HostCFDictionary>(ref);
  return dictionary != nullptr ? CreateFilled(*dictionary, Room(capacity), true) : nullptr;
}

CFIndex CFDictionaryGetCount(CFDictionaryRef ref) {
  const auto* dictionary = HostCast<HostCFDictionary>(ref);
  return dictionary != nullptr ? static_cast<CFIndex>(dictionary->Count()) : 0;
}

Boolean CFDictionaryContainsKey(CFDictionaryRef ref, const void* key) {
  return CFDictionaryGetValueIfPresent(ref, key, nullptr);
}

const void* CFDictionaryGetValue(CFDictionaryRef ref, const void* key) {
  const void* value = nullptr;
  CFDictionaryGetValueIfPresent(ref, key, &value);
  return value;
}

Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef ref, const void* key, const void** value) {
  const auto* dictionary = HostCast<HostCFDictionary>(ref);
  const HostPair* pair = dictionary != nullptr ? dictionary->Find(key) : nullptr;
  if (pair != nullptr && value != nullptr) *value = pair->value;
  return pair != nullptr;
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef ref, const void** keys, const void** values) {
  const auto* dictionary = HostCast<HostCFDictionary>(ref);
  if (dictionary == nullptr) return;
  for (const HostPair& pair : dictionary->Pairs()) {
    if (pair.key == nullptr) continue;
    if (keys != nullptr) *keys++ = pair.key;
    if (values != nullptr) *values++ = pair.value;
  }
}

void CFDictionaryApplyFunction(CFDictionaryRef ref, CFDictionaryApplierFunction apply,
                               void* context) {
  auto* dictionary = HostCast<HostCFDictionary>(ref);
  if (dictionary == nullptr || apply == nullptr) return;
  const Walk walk(dictionary);
  const size_t count = dictionary->Pairs().Size();
  for (size_t i = 0; i < count; ++i) {
    // Fetched again for each pair, because the list may have moved and the pair may be gone.
    const HostPair pair = dictionary->Pairs().first[i];
    if (pair.key == nullptr) continue;
    const HeldPair held(dictionary->Callbacks(), pair);
    apply(pair.key, pair.value, context);
  }
}

void CFDictionaryAddValue(CFMutableDictionaryRef ref, const void* key, const void* value) {
  HostCFDictionary* dictionary = ToChange(ref);
  if (dictionary != nullptr && dictionary->Find(key) == nullptr) dictionary->Set(key, value);
}

void CFDictionarySetValue(CFMutableDictionaryRef ref, const void* key, const void* value) {
  if (HostCFDictionary* dictionary = ToChange(ref)) dictionary->Set(key, value);
}

void CFDictionaryReplaceValue(CFMutableDictionaryRef ref, const void* key, const void* value) {
  HostCFDictionary* dictionary = ToChange(ref);
  if (dictionary != nullptr && dictionary->Find(key) != nullptr) dictionary->Set(key, value);
}

void CFDictionaryRemoveValue(CFMutableDictionaryRef ref, const void* key) {
  if (HostCFDictionary* dictionary = ToChange(ref)) dictionary->Remove(key);
}

void CFDictionaryRemoveAllValues(CFMutableDictionaryRef ref) {
  if (HostCFDictionary* dictionary = ToChange(ref)) dictionary->RemoveAll();
}
