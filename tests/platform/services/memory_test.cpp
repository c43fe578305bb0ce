#include <CoreServices/MacErrors.h>
#include <CoreServices/MacMemory.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

Handle MakeHandle(const std::string& text) {
  Handle handle = nullptr;
  EXPECT_EQ(0, PtrToHand(text.data(), &handle, static_cast<Size>(text.size())));
  return handle;
}

std::string TextOf(Handle handle) {
  return std::string(*handle, static_cast<size_t>(GetHandleSize(handle)));
}

}  // namespace

TEST(MemoryManager, BlocksOfEverySizeAreClearedAndAligned) {
  for (const Size size : {0, 17, 100000}) {
    SCOPED_TRACE(size);
    Ptr block = NewPtrClear(size);
    Handle handle = NewHandleClear(size);
    ASSERT_TRUE(block != nullptr && handle != nullptr);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % 16);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(*handle) % 16);
    EXPECT_EQ(size, GetPtrSize(block));
    EXPECT_EQ(std::string(static_cast<size_t>(size), '\0'), TextOf(handle));
    DisposePtr(block);
    DisposeHandle(handle);
    EXPECT_EQ(noErr, MemError());
  }
  EXPECT_EQ(nullptr, NewPtrClear(-1));
  EXPECT_EQ(nullptr, NewHandleClear(-1));
  EXPECT_EQ(memFullErr, MemError());
}

TEST(MemoryManager, DeadAndForeignBlocksAreRefused) {
  Ptr block = NewPtr(8);
  Handle handle = NewHandle(8);
  char master[] = "foreign";
  Ptr foreign = master;
  DisposeHandle(reinterpret_cast<Handle>(block));
  EXPECT_EQ(memWZErr, MemError());
  DisposePtr(reinterpret_cast<Ptr>(handle));
  EXPECT_EQ(memWZErr, MemError());
  DisposePtr(block);
  DisposeHandle(handle);

  using Call = void (*)(Handle);
  constexpr Call kCalls[] = {DisposeHandle,
                             HLock,
                             EmptyHandle,
                             [](Handle dead) { SetHandleSize(dead, 4); },
                             [](Handle dead) { EXPECT_EQ(0, GetHandleSize(dead)); },
                             [](Handle dead) { EXPECT_EQ(0, HGetState(dead)); },
                             [](Handle dead) { EXPECT_NE(noErr, PtrAndHand("a", dead, 1)); },
                             [](Handle dead) { EXPECT_NE(noErr, HandAndHand(dead, dead)); },
                             [](Handle dead) { EXPECT_NE(noErr, HandToHand(&dead)); }};
  for (const Call& call : kCalls) {
    for (Handle dead : {handle, &foreign, Handle{nullptr}}) {
      DisposePtr(NewPtr(1));
      EXPECT_EQ(noErr, MemError());
      call(dead);
      EXPECT_EQ(dead != nullptr ? memWZErr : nilHandleErr, MemError()) << &call - kCalls;
    }
  }
  EXPECT_EQ(0, GetPtrSize(block));
  EXPECT_EQ(memWZErr, MemError());
  EXPECT_STREQ("foreign", master);
}

TEST(MemoryManager, ResizingKeepsTheContents) {
  Handle handle = MakeHandle("0123456789");
  for (Size size : {100000, 10, 5000, 20, 10}) {
    SetHandleSize(handle, size);
    EXPECT_EQ(noErr, MemError());
    EXPECT_EQ(size, GetHandleSize(handle));
    EXPECT_EQ("0123456789", std::string(*handle, 10));
  }
  SetHandleSize(handle, -1);
  EXPECT_EQ(memFullErr, MemError());
  EXPECT_EQ("0123456789", TextOf(handle));
  DisposeHandle(handle);
}

TEST(MemoryManager, ALockedBlockStaysWhereItIs) {
  Handle handle = MakeHandle(std::string(10000, 'a'));
  HLock(handle);
  const Ptr before = *handle;
  SetHandleSize(handle, 10);
  EXPECT_EQ(noErr, MemError());
  EXPECT_EQ(before, *handle);
  SetHandleSize(handle, 20000);
  EXPECT_EQ(memFullErr, MemError());
  EXPECT_EQ(10, GetHandleSize(handle));
  EmptyHandle(handle);
  EXPECT_EQ(memPurErr, MemError());
  ReallocateHandle(handle, 5);
  EXPECT_EQ(memPurErr, MemError());
  EXPECT_EQ(std::string(10, 'a'), TextOf(handle));

  HLock(handle);
  HUnlock(handle);  // locks do not nest
  SetHandleSize(handle, 20000);
  EXPECT_EQ(noErr, MemError());
  DisposeHandle(handle);
}

TEST(MemoryManager, AnEmptiedHandleIsRefilled) {
  Handle handle = MakeHandle("abc");
  EmptyHandle(handle);
  EXPECT_EQ(nullptr, *handle);
  EXPECT_EQ(0, GetHandleSize(handle));
  SetHandleSize(handle, 4);
  EXPECT_EQ(nilHandleErr, MemError());
  ReallocateHandle(handle, 4);
  EXPECT_EQ(4, GetHandleSize(handle));
  EXPECT_NE(nullptr, *handle);
  EmptyHandle(handle);
  DisposeHandle(handle);
  EXPECT_EQ(noErr, MemError());
}

TEST(MemoryManager, CopiesAreIndependentAndABlockMayBeAppendedToItself) {
  Handle handle = MakeHandle("abc");
  Handle copy = handle;
  EXPECT_EQ(0, HandToHand(&copy));
  EXPECT_NE(handle, copy);
  EXPECT_EQ(0, HandAndHand(handle, handle));  // onto itself
  EXPECT_EQ("abcabc", TextOf(handle));
  EXPECT_EQ(0, PtrAndHand(*handle + 1, handle, 2));  // from inside the block that moves
  EXPECT_EQ("abcabcbc", TextOf(handle));
  EXPECT_EQ(0, PtrToXHand(*handle + 6, handle, 2));
  EXPECT_EQ("bc", TextOf(handle));
  EXPECT_EQ("abc", TextOf(copy));
  EXPECT_EQ(paramErr, PtrAndHand("a", handle, -1));
  EXPECT_EQ(memFullErr, PtrToXHand("a", handle, -1));
  EXPECT_EQ("bc", TextOf(handle));
  DisposeHandle(handle);
  DisposeHandle(copy);
}

TEST(MemoryManager, ResultsBelongToTheThread) {
  DisposePtr(nullptr);
  OSErr seen = -1;
  std::thread([&seen] { seen = MemError(); }).join();
  EXPECT_EQ(noErr, seen);
  EXPECT_EQ(nilHandleErr, MemError());
}
