#pragma once

#include <CoreFoundation/CFBase.h>

// Tables from keys to values, both pointers, as a rule to counted objects. One class, immutable or
// mutable: a function that changes does nothing to an immutable dictionary. Immutable ones may be
// used from any thread, a mutable one from one thread at a time (reading it from several is fine
// while it is not changed). A null key or value is never stored: the call does nothing.
//
// Pairs keep the order in which their keys came in; callers must not depend on it.

using CFDictionaryRef = const struct __CFDictionary*;
using CFMutableDictionaryRef = struct __CFDictionary*;

// The callbacks for keys. Each may be null: then keys are not retained, not released, described by
// address, compared by address, or hashed by address. The structure is copied.
struct CFDictionaryKeyCallBacks {
  CFIndex version;                                                     // 0
  const void* (*retain)(CFAllocatorRef allocator, const void* value);  // returns the value to store
  void (*release)(CFAllocatorRef allocator, const void* value);
  CFStringRef (*copyDescription)(const void* value);
  Boolean (*equal)(const void* a, const void* b);
  CFHashCode (*hash)(const void* value);
};

// The callbacks for values.
struct CFDictionaryValueCallBacks {
  CFIndex version;  // 0
  const void* (*retain)(CFAllocatorRef allocator, const void* value);
  void (*release)(CFAllocatorRef allocator, const void* value);
  CFStringRef (*copyDescription)(const void* value);
  Boolean (*equal)(const void* a, const void* b);
};

using CFDictionaryApplierFunction = void (*)(const void* key, const void* value, void* context);

#pragma GCC visibility push(default)
extern "C" {

// For counted objects: CFRetain, CFRelease, CFEqual, CFHash. The second one copies keys, which must
// be strings.
extern const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
extern const CFDictionaryKeyCallBacks kCFCopyStringDictionaryKeyCallBacks;
extern const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;

CFTypeID CFDictionaryGetTypeID(void);

// Makes a dictionary. With null callbacks it holds bare pointers. If a key occurs twice, the first
// key stays with the last value. Returns null if `count` is negative, if a list or an element of it
// is null, and without memory.
CFDictionaryRef CFDictionaryCreate(CFAllocatorRef allocator, const void** keys, const void** values,
                                   CFIndex count, const CFDictionaryKeyCallBacks* keyCallBacks,
                                   const CFDictionaryValueCallBacks* valueCallBacks);
CFDictionaryRef CFDictionaryCreateCopy(CFAllocatorRef allocator, CFDictionaryRef dictionary);

// `capacity` is a hint only.
CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks* keyCallBacks,
                                                 const CFDictionaryValueCallBacks* valueCallBacks);
// Makes a copy with the original's callbacks; keys and values are retained, not copied.
CFMutableDictionaryRef CFDictionaryCreateMutableCopy(CFAllocatorRef allocator, CFIndex capacity,
                                                     CFDictionaryRef dictionary);

CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary);
Boolean CFDictionaryContainsKey(CFDictionaryRef dictionary, const void* key);
// Returns the value, borrowed: it is valid while the dictionary holds it. Null if the key is
// absent.
const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key);
// `value` may be null; nothing is stored if the key is absent.
Boolean CFDictionaryGetValueIfPresent(CFDictionaryRef dictionary, const void* key,
                                      const void** value);
// Stores keys and values in the same order; either list may be null.
void CFDictionaryGetKeysAndValues(CFDictionaryRef dictionary, const void** keys,
                                  const void** values);
// Calls `apply` for every pair that exists at the beginning and still exists when its turn comes.
// The dictionary may be changed meanwhile, and even be released.
void CFDictionaryApplyFunction(CFDictionaryRef dictionary, CFDictionaryApplierFunction apply,
                               void* context);

void CFDictionaryAddValue(CFMutableDictionaryRef dictionary, const void* key,
                          const void* value);  // only if the key is absent
void CFDictionarySetValue(CFMutableDictionaryRef dictionary, const void* key, const void* value);
void CFDictionaryReplaceValue(CFMutableDictionaryRef dictionary, const void* key,
                              const void* value);  // only if the key is present
void CFDictionaryRemoveValue(CFMutableDictionaryRef dictionary, const void* key);
void CFDictionaryRemoveAllValues(CFMutableDictionaryRef dictionary);

}  // extern "C"
#pragma GCC visibility pop
