#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "tests/threads/bounded.h"
#include "threads/abstract_thread.h"

namespace {

TEST(AtomicLockSet, LocksAreBitsOfTheLowSixBitsNumber) {
  const struct {
    SInt32 lock;
    UInt32 mask;
  } rows[] = {{0, 1},  {3, 8},  {31, 0x80000000}, {32, 0}, {40, 0},
              {63, 0}, {64, 1}, {67, 8},          {-1, 0}, {-64, 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.lock);
    AtomicLockSet locks(0x100);
    EXPECT_EQ(row.mask, locks.AcquireLock(row.lock));
    EXPECT_EQ(0u, locks.AcquireLock(row.lock));
    EXPECT_EQ(row.mask != 0, locks.IsLockAcquired(row.lock));
    EXPECT_EQ(row.mask | 0x100, locks.SetBitMask(0));
    EXPECT_EQ(row.mask, locks.ReleaseLock(row.lock));
    EXPECT_EQ(0u, locks.ReleaseLock(row.lock));
    EXPECT_FALSE(locks.IsLockAcquired(row.lock));
  }
}

TEST(AtomicLockSet, MasksTellWhatTheyChanged) {
  AtomicLockSet locks(0x0F);
  EXPECT_EQ(0xF0u, locks.AcquireMask(0xFF));
  EXPECT_EQ(0x3Cu, locks.ReleaseMask(0x3C));
  EXPECT_EQ(0u, locks.ReleaseMask(0x3C));
  EXPECT_EQ(0xC3u, locks.SetBitMask(0x100));
  EXPECT_EQ(0x1C3u, locks.ClrBitMask(0xFF));
  EXPECT_EQ(0x100u, locks.SetBitMask(0));
}

TEST(AtomicLockSet, OneOfManyAcquires) {
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
  UInt32 word = 5;
  EXPECT_FALSE(AtomicLockSet::CompareAndSwap32(4, 6, &word));
  EXPECT_TRUE(AtomicLockSet::CompareAndSwap32(5, 6, &word));
  EXPECT_EQ(6u, word);
}

struct Identity : VLTMPThread {
  Identity() : VLTMPThread(MACH_PORT_NULL, pthread_t(), kInvalidID) {}
  SInt32 Initialize() override { return initialised++, 11; }
  SInt32 Finalize(SInt32 error) override { return finalised++, error + 1; }
  SInt32 Status() const { return status; }
  using VLTMPThread::CopyRunLoop;
  using VLTMPThread::PeekRunLoop;
  using VLTMPThread::RememberedThread;
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

TEST(AbstractThread, StatusesOfStartAndEnd) {
  const struct {
    SInt32 result, created, terminated;
  } rows[] = {{0, 1, 0}, {1, 1, 1}, {-50, -50, -50}};
  for (const auto& row : rows) {
    Identity thread;
    EXPECT_EQ(0, thread.Status());
    EXPECT_EQ(0, thread.NotifyThreadCreated(row.result));
    EXPECT_EQ(row.created, thread.Status());
    EXPECT_TRUE(thread.IsThreadCreated());
    EXPECT_FALSE(thread.IsThreadTerminated());
    EXPECT_EQ(0, thread.NotifyThreadTerminated(row.result));
    EXPECT_EQ(row.terminated, thread.Status());
    EXPECT_TRUE(thread.IsThreadTerminated());
  }
}

TEST(AbstractThread, RemembersTheThreadUntilItsEnd) {
  Identity thread;
  EXPECT_FALSE(thread.IsCurrentThread());
  CFRunLoopRef loop = nullptr;
  std::thread([&] {
    EXPECT_EQ(0, thread.RememberSelf());
    EXPECT_EQ(0, thread.RememberSelf());
    EXPECT_TRUE(thread.IsCurrentThread());
    EXPECT_EQ(CFRunLoopGetCurrent(), thread.PeekRunLoop());
    EXPECT_NE(0, pthread_equal(pthread_self(), thread.RememberedThread()));
    loop = thread.CopyRunLoop();
  }).join();
  EXPECT_FALSE(thread.IsCurrentThread());
  EXPECT_EQ(2, CFGetRetainCount(loop));  // ours and the object's: it outlives its thread
  EXPECT_EQ(0, thread.NotifyThreadTerminated(0));
  EXPECT_EQ(nullptr, thread.PeekRunLoop());
  EXPECT_EQ(1, CFGetRetainCount(loop));
  CFRelease(loop);
}

}  // namespace
