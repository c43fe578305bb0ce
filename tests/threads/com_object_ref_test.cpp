#include "threads/com_object_ref.h"

#include <gtest/gtest.h>

#include <atomic>

#include "tests/threads/bounded.h"

namespace {

// Counts its calls. It is never destroyed, so that a wrong number of references shows in the count
// only.
struct Fake {
  IUnknownVTbl* table = &sTable;
  std::atomic<int> count{1000};
  std::atomic<int> calls{0};
  HRESULT answer = S_OK;
  bool givesInterface = true;

  VLTCOMObjectRef::Object Object() { return &table; }
  int Added() const { return count - 1000; }

  static Fake* Self(void* self) { return static_cast<Fake*>(self); }
  static HRESULT Query(void* self, REFIID, LPVOID* interface) {
    *interface = Self(self)->givesInterface ? self : nullptr;
    return Self(self)->answer;
  }
  static ULONG Add(void* self) {
    Self(self)->calls++;
    return static_cast<ULONG>(++Self(self)->count);
  }
  static ULONG Drop(void* self) {
    Self(self)->calls++;
    return static_cast<ULONG>(--Self(self)->count);
  }
  static IUnknownVTbl sTable;
};
IUnknownVTbl Fake::sTable = {nullptr, Query, Add, Drop};

struct Ref : VLTCOMObjectRef {
  VLTCOMObjectRef::Object Held() const { return object.load(); }
  UInt32 Flags() const { return flags.load(); }
};

TEST(COMObjectRef, FlagsDecideWhoseTheReferenceIs) {
  const struct {
    UInt32 flags;
    int added, stored, afterRelease;
  } rows[] = {
      {0, 1, 0, 0},
      {1, 0, 0, -1},  // handed over: released once
      // Meant: added, yet never released, because callers rely on it.
      {2, 1, 2, 1},
      {3, 0, 2, 0},  // borrowed
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.flags);
    Fake fake, next;
    Ref ref;
    EXPECT_EQ(fake.Object(), ref.SetObjectPtr(fake.Object(), row.flags));
    EXPECT_EQ(row.added, fake.Added());
    EXPECT_EQ(static_cast<UInt32>(row.stored), ref.Flags());
    UInt32 previous = 99;
    Ref swapped;
    swapped.SetObjectPtr(fake.Object(), row.flags);
    EXPECT_EQ(fake.Object(), swapped.SwapObjectPtr(next.Object(), 1, &previous));
    EXPECT_EQ(static_cast<UInt32>(row.stored), previous);
    EXPECT_EQ(2 * row.added, fake.Added());  // nothing was released
    EXPECT_EQ(nullptr, ref.Release());
    EXPECT_EQ(row.added + row.afterRelease, fake.Added());
    EXPECT_EQ(nullptr, ref.Held());
    EXPECT_EQ(0u, ref.Flags());
  }
}

TEST(COMObjectRef, TakesTheResultOfAQuery) {
  const struct {
    HRESULT result;
    bool interface;
    HRESULT returned;
    bool held;
  } rows[] = {
      {S_OK, true, S_OK, true},
      {S_OK, false, E_NOINTERFACE, false},
      {E_FAIL, true, E_FAIL, false},  // the interface is not released
  };
  for (const auto& row : rows) {
    Fake fake, old;
    Ref ref;
    ref.SetObjectPtr(old.Object(), 0);
    void* interface = row.interface ? fake.Object() : nullptr;
    EXPECT_EQ(row.returned, ref.SetToQueryInterfaceResult(row.result, interface, {}, 0));
    EXPECT_EQ(row.held, ref.Held() == fake.Object());
    EXPECT_EQ(row.held ? 1 : 0, fake.Added());
    EXPECT_EQ(0, old.Added());

    fake.answer = row.result;
    fake.givesInterface = row.interface;
    ref.SetObjectPtr(fake.Object(), 0);
    SInt32 result = 99;
    void* found = ref.QueryInterface({}, &result);
    EXPECT_EQ(row.result, result);
    EXPECT_EQ(SUCCEEDED(row.result) && row.interface ? fake.Object() : nullptr, found);
  }
}

TEST(COMObjectRef, CountsAreAdjustedAndNullGivesNull) {
  Fake fake;
  Ref ref;
  SInt32 result = 0;
  EXPECT_EQ(nullptr, VLTCOMObjectRef::_QueryInterface(nullptr, {}, &result));
  EXPECT_EQ(static_cast<SInt32>(0x80000003), result);
  EXPECT_EQ(nullptr, ref.NewRef());
  EXPECT_EQ(0u, ref.AdjustRefCount(5));
  ref.SetObjectPtr(fake.Object(), 1);
  EXPECT_EQ(1003u, ref.AdjustRefCount(3));
  EXPECT_EQ(1001u, ref.AdjustRefCount(-2));
  EXPECT_EQ(fake.Object(), ref.NewRef());
  EXPECT_EQ(2, fake.Added());
}

// Meant: the old pointer stays and is released unless the other's flags have bit 1, because callers
// rely on both.
TEST(COMObjectRef, CopyFromKeepsTheOldPointer) {
  const std::tuple<UInt32, int> rows[] = {{0, 0}, {0x42, 1}};
  for (const auto& [theirFlags, oldAdded] : rows) {
    Fake old, theirs;
    Ref ref, other;
    ref.SetObjectPtr(old.Object(), 0);
    other.SetObjectPtr(theirs.Object(), theirFlags | 1);
    ref.CopyFrom(other);
    EXPECT_EQ(old.Object(), ref.Held());
    EXPECT_EQ(oldAdded, old.Added());
    EXPECT_EQ(1, theirs.Added());
    EXPECT_EQ(theirFlags & ~2u, ref.Flags());
    EXPECT_EQ(theirFlags, other.Flags());
    const int before = old.calls;
    ref.CopyFrom(ref);
    EXPECT_EQ(before, old.calls);
  }
}

TEST(COMObjectRef, SlotsExchangeAndCount) {
  using Ref = VLTCOMObjectRef;
  const struct {
    Ref::Object (*call)(Ref::Object*, Ref::Object);
    int newAdded, oldAdded;
    bool returnsOld;
  } rows[] = {{Ref::_SwapObjectPtr, 0, 0, true},
              {Ref::_SwapObjectPtrNewRef, 1, 0, true},
              {Ref::_SetObjectPtr, 0, -1, false},
              {Ref::_SetObjectPtrNewRef, 1, -1, false}};
  for (const auto& row : rows) {
    Fake old, fresh;
    Ref::Object slot = old.Object();
    EXPECT_EQ(row.returnsOld ? old.Object() : fresh.Object(), row.call(&slot, fresh.Object()));
    EXPECT_EQ(fresh.Object(), slot);
    EXPECT_EQ(row.newAdded, fresh.Added());
    EXPECT_EQ(row.oldAdded, old.Added());
  }
}

TEST(COMObjectRef, SwapsFromEightThreadsLoseNoReference) {
  Fake fakes[4];
  {
    Ref ref;
    VLTCOMObjectRef::Object slot = nullptr;
    InThreads(8, [&](int number) {
      for (int i = 0; i < 20000; i++) {
        Fake& fake = fakes[(number + i) % 4];
        if (i % 3 == 0) {
          ref.SetObjectPtr(fake.Object(), 0);
        } else if (i % 3 == 1) {
          VLTCOMObjectRef::_Release(ref.SwapObjectPtr(fake.Object(), 0, nullptr));
        } else {
          VLTCOMObjectRef::_SetObjectPtrNewRef(&slot, fake.Object());
        }
      }
    });
    VLTCOMObjectRef::_SetObjectPtr(&slot, nullptr);
  }
  for (const Fake& fake : fakes) EXPECT_EQ(0, fake.Added());
}

TEST(COMObjectRef, CopiesBothWaysFromEightThreadsEndAndAddAndReleaseOnce) {
  Fake left, right;
  Ref a, b;
  a.SetObjectPtr(left.Object(), 1);
  b.SetObjectPtr(right.Object(), 1);
  constexpr int kCopies = 20000;
  InThreads(8, [&](int number) {
    for (int i = 0; i < kCopies; i++) (number % 2 ? a : b).CopyFrom(number % 2 ? b : a);
  });
  EXPECT_EQ(0, left.Added());
  EXPECT_EQ(0, right.Added());
  EXPECT_EQ(8 * kCopies * 2, left.calls + right.calls);
  EXPECT_EQ(left.Object(), a.Held());
}

}  // namespace
