#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>

#include <algorithm>
#include <functional>

#include "tests/platform/objects/support.h"

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr size_t kSmallStack = 512 * 1024;  // its frames and thread data are much larger
#else
constexpr size_t kSmallStack = 64 * 1024;
#endif

// Runs `body` on a thread with a small stack, which a deep recursion would overflow.
void OnSmallStack(std::function<void()> body) {
  pthread_attr_t attributes;
  ASSERT_EQ(0, pthread_attr_init(&attributes));
  ASSERT_EQ(0, pthread_attr_setstacksize(
                   &attributes, std::max(kSmallStack, static_cast<size_t>(PTHREAD_STACK_MIN))));
  pthread_t thread;
  auto run = [](void* given) -> void* {
    (*static_cast<std::function<void()>*>(given))();
    return nullptr;
  };
  ASSERT_EQ(0, pthread_create(&thread, &attributes, run, &body));
  EXPECT_EQ(0, pthread_join(thread, nullptr));
  pthread_attr_destroy(&attributes);
}

// Containers in containers, arrays and dictionaries in turn, the innermost holding `leaf`.
OwnedRef<CFTypeRef> Nest(size_t levels, CFTypeRef leaf) {
  OwnedRef<CFTypeRef> inner(CFRetain(leaf));
  for (size_t i = 0; i < levels; ++i) {
    const void* key = CFSTR("inner");
    const void* value = inner;
    const void* outer =
        i % 2 == 0
            ? static_cast<CFTypeRef>(CFArrayCreate(nullptr, &value, 1, &kCFTypeArrayCallBacks))
            : CFDictionaryCreate(nullptr, &key, &value, 1, &kCFTypeDictionaryKeyCallBacks,
                                 &kCFTypeDictionaryValueCallBacks);
    inner = OwnedRef<CFTypeRef>(outer);
  }
  return inner;
}

// Callbacks that are not the standard ones but do the same.
const void* Retain(CFAllocatorRef, const void* value) { return CFRetain(value); }
void Release(CFAllocatorRef, const void* value) { CFRelease(value); }

}  // namespace

TEST(Nesting, AMillionLevelsNeedNoStack) {
  OnSmallStack([] {
    constexpr size_t kLevels = 1000000;
    const OwnedRef<CFTypeRef> a(Nest(kLevels, CFSTR("leaf")));
    const OwnedRef<CFTypeRef> b(Nest(kLevels, CFSTR("leaf")));
    const OwnedRef<CFTypeRef> other(Nest(kLevels, CFSTR("other")));
    EXPECT_TRUE(CFEqual(a, b));
    EXPECT_EQ(CFHash(a), CFHash(b));
    EXPECT_FALSE(CFEqual(a, other));
    const OwnedRef<CFStringRef> text(CFCopyDescription(a));
    EXPECT_GT(CFStringGetLength(text), 100);
  });
}

TEST(Nesting, ForeignReleasesAndKeysNeedNoStackEither) {
  OnSmallStack([] {
    constexpr CFArrayCallBacks kForeign = {0, Retain, Release, nullptr, nullptr};
    OwnedRef<CFTypeRef> foreign(CFRetain(CFSTR("leaf")));
    OwnedRef<CFTypeRef> keyed(CFRetain(CFSTR("leaf")));
    for (size_t i = 0; i < 200000; ++i) {
      const void* value = foreign;
      foreign = OwnedRef<CFTypeRef>(CFArrayCreate(nullptr, &value, 1, &kForeign));
      const void* key = keyed;
      keyed = OwnedRef<CFTypeRef>(
          CFDictionaryCreate(nullptr, &key, &key, 1, &kCFTypeDictionaryKeyCallBacks, nullptr));
    }
  });
}

// The array has 2^60 leaves along its paths.
TEST(Nesting, PartsThatOccurOftenAreComparedOnce) {
  auto make = [](const void* leaf) {
    OwnedRef<CFTypeRef> inner(CFRetain(leaf));
    for (int i = 0; i < 60; ++i) {
      const void* twice[] = {inner, inner};
      inner = OwnedRef<CFTypeRef>(CFArrayCreate(nullptr, twice, 2, &kCFTypeArrayCallBacks));
    }
    return inner;
  };
  const OwnedRef<CFTypeRef> a(make(CFSTR("leaf"))), b(make(CFSTR("leaf"))), c(make(CFSTR("other")));
  EXPECT_TRUE(CFEqual(a, b));
  EXPECT_FALSE(CFEqual(a, c));
  const OwnedRef<CFStringRef> text(CFCopyDescription(a));
  EXPECT_LT(CFStringGetLength(text), 2000000);
}

TEST(Nesting, AnArrayThatContainsItselfCanBeComparedAndDescribed) {
  OwnedRef<CFMutableArrayRef> a(MutableArray()), b(MutableArray());
  for (CFMutableArrayRef array :
       {static_cast<CFMutableArrayRef>(a), static_cast<CFMutableArrayRef>(b)}) {
    CFArrayAppendValue(array, CFSTR("first"));
    CFArrayAppendValue(array, array);
  }
  EXPECT_TRUE(CFEqual(a, b));
  EXPECT_EQ(CFHash(a), CFHash(b));
  EXPECT_GT(CFStringGetLength(OwnedRef<CFStringRef>(CFCopyDescription(a))), 10);
  CFArrayAppendValue(b, CFSTR("third"));
  CFArrayAppendValue(a, CFSTR("last"));
  EXPECT_FALSE(CFEqual(a, b));
  CFArrayRemoveAllValues(a);  // breaks the cycle
  CFArrayRemoveAllValues(b);
}

TEST(Nesting, DescriptionsShowContentsByLevel) {
  const OwnedRef<CFMutableDictionaryRef> dictionary(MutableDictionary());
  const OwnedRef<CFMutableArrayRef> array(MutableArray());
  CFArrayAppendValue(array, Number(1));
  CFArrayAppendValue(array, MutableArray());
  CFDictionarySetValue(dictionary, CFSTR("list"), array);
  CFDictionarySetValue(dictionary, CFSTR("name"), String("\xC3\xA9t\xC3\xA9"));
  EXPECT_EQ(
      "{\n    list = (\n        1\n        (\n        )\n    )\n"
      "    name = \xC3\xA9t\xC3\xA9\n}",
      DescriptionOf(dictionary));
}
