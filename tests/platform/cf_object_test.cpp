#include "platform/host/cf_object.h"

#include <CoreFoundation/CFString.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/cf_string.h"

namespace {

struct TestObject final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeMachPort;
  explicit TestObject(int* count) : HostCFObject(kClass), destroyed(count) {}
  void LastRelease() override {
    ++*destroyed;
    delete this;
  }
  int* destroyed;
};

struct Probe final : HostCFObject {
  Probe() : HostCFObject(kHostTypeData) {}
  void LastRelease() override {}  // stays readable for the test
};

struct LoopObject final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeRunLoop;
  LoopObject() : HostCFObject(kClass) {}
  void LastRelease() override { delete this; }
};

std::string TextOf(CFStringRef string) {
  char buffer[256];
  EXPECT_TRUE(CFStringGetCString(string, buffer, sizeof buffer, kCFStringEncodingUTF8));
  return buffer;
}

}  // namespace

TEST(CountedObject, LastReleaseComesOnceWhateverTheThreads) {
  int destroyed = 0;
  auto* object = new TestObject(&destroyed);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    object->Retain();
    threads.emplace_back([object] {
      for (int i = 0; i < 10000; ++i) {
        CFRetain(object);
        CFRelease(object);
      }
      object->Release();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(1, CFGetRetainCount(object));
  EXPECT_EQ(0, destroyed);
  CFRelease(object);
  EXPECT_EQ(1, destroyed);
}

TEST(CountedObject, RetainedGivesEveryReferenceBack) {
  int destroyed = 0;
  {
    HostRetained<TestObject> first(new TestObject(&destroyed));
    HostRetained<TestObject> second = first;
    HostRetained<TestObject> third = HostRetained<TestObject>::Retaining(first.Get());
    EXPECT_EQ(3, first->RetainCount());
    second = HostRetained<TestObject>();
    third = first;
    third = std::move(third);
    EXPECT_EQ(2, first->RetainCount());
    first.Give()->Release();
    EXPECT_EQ(0, destroyed);
  }
  EXPECT_EQ(1, destroyed);
}

TEST(CountedObject, ADyingObjectIsNotRetainedAgain) {
  const auto probe = std::make_unique<Probe>();
  EXPECT_TRUE(probe->RetainUnlessDying());
  probe->Release();
  probe->Release();
  EXPECT_FALSE(probe->RetainUnlessDying());
}

TEST(CountedObject, ConstantsAreNeverCounted) {
  for (CFTypeRef constant : {CFTypeRef{kCFAllocatorNull}, CFTypeRef{CFSTR("constant")}}) {
    for (int i = 0; i < 3; ++i) CFRelease(constant);
    CFRetain(constant);
    EXPECT_EQ(INT32_MAX, CFGetRetainCount(constant));
  }
}

TEST(CountedObject, CastsRefuseOtherClasses) {
  HostRetained<LoopObject> loop(new LoopObject);
  EXPECT_EQ(loop.Get(), HostCast<LoopObject>(loop.Get()));
  EXPECT_EQ(nullptr, HostCast<TestObject>(loop.Get()));
  EXPECT_EQ(nullptr, HostCast<LoopObject>(nullptr));
}

TEST(CountedObject, NullIsNeutral) {
  EXPECT_EQ(nullptr, CFRetain(nullptr));
  CFRelease(nullptr);
  EXPECT_EQ(0, CFGetRetainCount(nullptr));
  EXPECT_EQ(0u, CFGetTypeID(nullptr));
  EXPECT_EQ(0u, CFHash(nullptr));
  EXPECT_EQ(nullptr, CFGetAllocator(nullptr));
  EXPECT_EQ(nullptr, CFCopyDescription(nullptr));
  EXPECT_FALSE(CFEqual(CFSTR("a"), nullptr));
  EXPECT_FALSE(CFEqual(nullptr, CFSTR("a")));
}

TEST(CountedObject, ClassesAreToldApart) {
  HostRetained<LoopObject> loop(new LoopObject), other(new LoopObject);
  EXPECT_TRUE(CFEqual(loop.Get(), loop.Get()));
  EXPECT_FALSE(CFEqual(loop.Get(), other.Get()));
  EXPECT_FALSE(CFEqual(loop.Get(), CFSTR("CFRunLoop")));
  EXPECT_EQ(CFStringGetTypeID(), CFGetTypeID(CFSTR("a")));
}

TEST(CountedObject, Names) {
  const struct {
    CFTypeID type;
    const char* name;
  } rows[] = {
      {kHostTypeString, "CFString"},     {kHostTypeDictionary, "CFDictionary"},
      {kHostTypeURL, "CFURL"},           {kHostTypeRunLoopTimer, "CFRunLoopTimer"},
      {kHostTypeMachPort, "CFMachPort"}, {0, "Not A Type"},
      {kHostTypeCount, "Not A Type"},    {0xFFFFFFFF, "Not A Type"},
  };
  for (const auto& row : rows) {
    const HostRetained<const HostCFString> name(CFCopyTypeIDDescription(row.type));
    EXPECT_EQ(row.name, TextOf(name.Get()));
  }
  HostRetained<LoopObject> loop(new LoopObject);
  const HostRetained<const HostCFString> text(CFCopyDescription(loop.Get()));
  EXPECT_EQ(0u, TextOf(text.Get()).find("<CFRunLoop 0x"));
}
