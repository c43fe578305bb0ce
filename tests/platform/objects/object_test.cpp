#include "platform/host/objects/cf_object.h"

#include <CoreFoundation/CFString.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "platform/host/objects/cf_string.h"

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

TEST(CountedObject, NullIsNeutral) {
  CFRelease(CFRetain(nullptr));
  EXPECT_EQ(0u, CFGetTypeID(nullptr));
  EXPECT_EQ(nullptr, CFCopyDescription(nullptr));
  EXPECT_FALSE(CFEqual(CFSTR("a"), nullptr));
  EXPECT_FALSE(CFEqual(nullptr, CFSTR("a")));
}
