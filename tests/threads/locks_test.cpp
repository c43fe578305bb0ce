#include <gtest/gtest.h>

#include <atomic>

#include "tests/threads/bounded.h"
#include "threads/abstract_thread.h"

namespace {

TEST(AtomicLockSet, LocksAreBitsOfTheLowSixBitsNumber) {
  const std::tuple<SInt32, UInt32> rows[] = {{0, 1}, {31, 0x80000000}, {32, 0}, {67, 8}, {-1, 0}};
  for (const auto& [lock, mask] : rows) {
    SCOPED_TRACE(lock);
    AtomicLockSet locks(0x100);
    EXPECT_EQ(mask, locks.AcquireLock(lock));
    EXPECT_EQ(0u, locks.AcquireLock(lock));
    EXPECT_EQ(mask != 0, locks.IsLockAcquired(lock));
    EXPECT_EQ(mask, locks.ReleaseLock(lock));
    EXPECT_FALSE(locks.IsLockAcquired(lock));
  }
}

TEST(AtomicLockSet, OneOfManyThreadsAcquiresALock) {
  AtomicLockSet locks;
  std::atomic<int> acquired{0};
  int guarded = 0;
  InThreads(8, [&](int) {
    for (int i = 0; i < 2000; i++) {
      if (locks.AcquireLock(7) == 0) continue;
      guarded++;
      acquired++;
      EXPECT_EQ(0x80u, locks.ReleaseLock(7));
    }
  });
  EXPECT_EQ(acquired, guarded);
}

struct Identity : VLTMPThread {
  Identity() : VLTMPThread(MACH_PORT_NULL, pthread_t(), kInvalidID) {}
  SInt32 Initialize() override { return initialised++, 11; }
  SInt32 Finalize(SInt32 error) override { return finalised++, error + 1; }
  SInt32 Status() const { return status; }
  int initialised = 0;
  int finalised = 0;
};

TEST(AbstractThread, InitialisesAndFinalisesOnceForEachPair) {
  Identity thread;
  EXPECT_EQ(-4, thread.FinalizeIfNeeded(-4));
  EXPECT_EQ(11, thread.InitializeIfNeeded());
  EXPECT_EQ(0, thread.InitializeIfNeeded());
  EXPECT_EQ(-3, thread.FinalizeIfNeeded(-4));
  EXPECT_EQ(-4, thread.FinalizeIfNeeded(-4));
  EXPECT_EQ(11, thread.InitializeIfNeeded());
  { VLTStaticThreadFinalizer finalizer(&thread); }
  EXPECT_EQ(2, thread.initialised);
  EXPECT_EQ(2, thread.finalised);
}

TEST(AbstractThread, TheStatusOfACreatedThreadIsNeverZero) {
  const std::tuple<SInt32, SInt32, SInt32> rows[] = {{0, 1, 0}, {1, 1, 1}, {-5, -5, -5}};
  for (const auto& [result, created, terminated] : rows) {
    Identity thread;
    EXPECT_EQ(0, thread.NotifyThreadCreated(result));
    EXPECT_EQ(created, thread.Status());
    EXPECT_TRUE(thread.IsThreadCreated());
    EXPECT_FALSE(thread.IsThreadTerminated());
    EXPECT_EQ(0, thread.NotifyThreadTerminated(result));
    EXPECT_EQ(terminated, thread.Status());
    EXPECT_TRUE(thread.IsThreadTerminated());
  }
}

}  // namespace
