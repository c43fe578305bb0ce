#include <Carbon/Notification.h>
#include <CoreServices/CoreServices.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mach/thread_act.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>
#include <utility>

#include "tests/integration/launch_support.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"

// Calls of the platform that need no other process, while an allocation fails, and while the
// standard file descriptors are closed.

namespace {

// How many files were closed under a standard number, except where a copy above had been made.
int sStandardUsed = 0;
int sMoved = -1;  // the number that was given up last

}  // namespace

// These two hide the C library's functions.
extern "C" int fcntl64(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (command == F_DUPFD_CLOEXEC) sMoved = fd;
  const long result = syscall(SYS_fcntl, fd, command, argument);
  return static_cast<int>(result);
}

extern "C" int close(int fd) {
  if (fd >= 0 && fd <= STDERR_FILENO && std::exchange(sMoved, -1) != fd) sStandardUsed++;
  return static_cast<int>(syscall(SYS_close, fd));
}

namespace {

FSSpec SpecOf(const std::string& path) {
  FSSpec spec = {};
  const FSRef ref = RefOf(path);
  EXPECT_EQ(0, FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, nullptr, &spec, nullptr));
  return spec;
}

class CallsWithoutMemory : public testing::Test {
 protected:
  CallsWithoutMemory() {
    std::filesystem::create_directories(folder.Path("inner"));
    folder.File("inner/file", "text");
    std::filesystem::create_symlink("file", folder.Path("inner/link"));
    link = SpecOf(folder.Path("inner/file"));
    std::memcpy(link.name, "\4link", 5);  // a path would lead to the file
  }

  const OpenDescriptorCheck noLeaks;
  const ScratchFolder folder;
  const ScopedVariable data{"XDG_DATA_HOME", folder.Path("data").c_str()};
  const std::string inner = folder.Path("inner");
  FSSpec link = {};
  // An item that UseFiles creates and deletes.
  const std::string made = folder.Path("data/veltrane/Library/Application Support/new");

  OSStatus UseFiles();
};

// Makes every call of the File, Folder and Alias Manager once, on items in `inner`. They are found
// by path, so that the folders' numbers are looked up, too.
OSStatus CallsWithoutMemory::UseFiles() {
  const auto* path = reinterpret_cast<const UInt8*>(inner.c_str());
  FSRef ref, parent, child;
  FSSpec spec, own;
  HFSUniStr255 name;
  UInt8 text[1024];
  SInt16 volume = 0;
  SInt32 number = 0, created = 0;
  Boolean isFolder = false, wasAliased = false;
  const UniChar fileName[] = {'f', 'i', 'l', 'e'};
  OSStatus err = FSPathMakeRef(path, &ref, &isFolder);
  if (err == 0) err = FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, &name, &spec, &parent);
  if (err == 0) err = FSMakeFSRefUnicode(&ref, 4, fileName, 0, &child);
  if (err == 0) err = FSRefMakePath(&child, text, sizeof text);
  if (err == 0) err = FSCompareFSRefs(&ref, &child) == errFSRefsDifferent ? 0 : memFullErr;
  if (err == 0) err = FSMakeFSSpec(spec.vRefNum, spec.parID, spec.name, &own);
  if (err == 0) err = FSpMakeFSRef(&own, &child);
  CInfoPBRec info = {};
  info.hFileInfo.ioVRefNum = spec.vRefNum;
  info.hFileInfo.ioDirID = spec.parID;
  info.hFileInfo.ioNamePtr = spec.name;
  if (err == 0) err = PBGetCatInfoSync(&info);
  if (err == 0) {
    info.hFileInfo.ioDirID = info.dirInfo.ioDrDirID;
    info.hFileInfo.ioFDirIndex = 1;
    Str63 found;
    info.hFileInfo.ioNamePtr = found;
    err = PBGetCatInfoSync(&info);
  }
  if (err == 0)
    err = FindFolder(kUserDomain, kApplicationSupportFolderType, true, &volume, &number);
  if (err == 0) err = FSFindFolder(kUserDomain, kDomainLibraryFolderType, true, &ref);
  own = link;
  if (err == 0) err = ResolveAliasFile(&own, true, &isFolder, &wasAliased);
  FSSpec fresh = {};
  if (err == 0) err = FSMakeFSSpec(volume, number, reinterpret_cast<const UInt8*>("\3new"), &fresh);
  if (err == fnfErr) err = FSpCreate(&fresh, 0, 0, 0);
  if (err == 0) err = FSpDelete(&fresh);
  if (err == 0) {
    err = FSpDirCreate(&fresh, 0, &created);
    EXPECT_EQ(err == 0 ? 0 : -1, access(made.c_str(), F_OK));
  }
  if (err == 0) err = FSpDelete(&fresh);
  return err;
}

TEST_F(CallsWithoutMemory, FilesGiveTheirMemoryErrorAndLeaveNothing) {
  const auto isWhole = [&](OSStatus) {
    std::filesystem::remove_all(made);  // if there was no memory to delete it
    EXPECT_EQ(0, UseFiles());
  };
  // The first time finds the folders without numbers. The table of numbers grows now and then, so
  // each allocation fails for several folders.
  for (int round = 0; round < 200; round++) {
    const int number = round % 10 + 1;
    SCOPED_TRACE(testing::Message() << "round " << round << ", allocation " << number);
    const std::string deeper = folder.Path("fresh" + std::to_string(round)) + "/deeper";
    std::filesystem::create_directories(deeper);
    FSRef ref;
    FSSpec spec;
    SInt32 created = 0;
    const auto attempt = [&](const std::function<OSStatus()>& work) {
      ArmAllocationFailure(number, AllocationFailure::kOne);
      const OSStatus err = work();
      const bool hasFailed = FailedAllocations() > 0;
      DisarmAllocationFailure();
      EXPECT_TRUE(err == 0 || (hasFailed && err == memFullErr)) << err;
      return err;
    };
    const std::function<OSStatus()> find = [&] {
      return FSPathMakeRef(reinterpret_cast<const UInt8*>(deeper.c_str()), &ref, nullptr);
    };
    attempt(find);
    EXPECT_EQ(0, find());
    UInt8 text[1024];
    EXPECT_EQ(0, FSRefMakePath(&ref, text, sizeof text));
    EXPECT_EQ(deeper, reinterpret_cast<char*>(text));
    EXPECT_EQ(0, FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, nullptr, &spec, nullptr));
    std::memcpy(spec.name, "\3new", 4);
    const std::function<OSStatus()> create = [&] { return FSpDirCreate(&spec, 0, &created); };
    const OSStatus err = attempt(create);
    const std::string path = folder.Path("fresh" + std::to_string(round)) + "/new";
    EXPECT_EQ(err == 0, std::filesystem::exists(path));
  }
  Sweep(
      "files", [&] { return UseFiles(); }, {memFullErr}, isWhole);
}

TEST_F(CallsWithoutMemory, ProcessesGiveTheirMemoryErrorAndLeaveTheRecord) {
  Sweep("processes", [] {
    ProcessSerialNumber psn = {0, kNoProcess};
    OSStatus err = GetNextProcess(&psn);
    Str31 name;
    FSSpec spec;
    ProcessInfoRec info = {};
    info.processInfoLength = sizeof info;
    info.processName = name;
    info.processAppSpec = &spec;
    psn = {0, kCurrentProcess};
    if (err == 0) err = GetProcessInformation(&psn, &info);
    EXPECT_EQ(err == 0, info.processActiveTime != 0 || info.processNumber.lowLongOfPSN != 0);
    return err;
  });
}

int sResponses = 0;

TEST_F(CallsWithoutMemory, ANoticeIsShownOrRefused) {
  const ScopedVariable sink("VLTHOST_NOTICES", folder.Path("notices").c_str());
  NMRec record = {};
  record.qType = nmType;
  const Str255 text = "\4text";
  record.nmStr = const_cast<StringPtr>(text);
  record.nmResp = [](NMRecPtr) { sResponses++; };
  Sweep("a notice", [&] {
    sResponses = 0;
    const OSStatus err = NMInstall(&record);
    EXPECT_EQ(err == 0 ? 1 : 0, sResponses);
    EXPECT_EQ(err == 0 ? noErr : qErr, NMRemove(&record));
    return err;
  });
}

// The thread's end closes the loop and gives up the thread's record, also without memory.
TEST_F(CallsWithoutMemory, AThreadWithARunLoopEnds) {
  for (const auto kind : {AllocationFailure::kOne, AllocationFailure::kAllFromThere}) {
    bool hasFailed = true;
    long before = 0;
    for (int number = 1; hasFailed; number++) {
      SCOPED_TRACE(number);
      std::thread([&] {
        ArmAllocationFailure(number, kind);
        mach_thread_self();
        const CFRunLoopRef loop = CFRunLoopGetCurrent();
        const CFRunLoopTimerRef timer = CFRunLoopTimerCreate(
            nullptr, CFAbsoluteTimeGetCurrent(), 1000, 0, 0, [](CFRunLoopTimerRef, void*) {},
            nullptr);
        CFRunLoopAddTimer(loop, timer, kCFRunLoopCommonModes);
        CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, true);
        if (timer != nullptr) CFRelease(timer);
      }).join();
      hasFailed = FailedAllocations() > 0;
      DisarmAllocationFailure();
      if (number == 1) before = LiveAllocations();
      // The first round made what stays.
      EXPECT_TRUE(hasFailed || before + 2 >= LiveAllocations());
    }
  }
}

TEST_F(CallsWithoutMemory, TheMainRunLoopIsNullAndFoundLater) {
  ArmAllocationFailure(1, AllocationFailure::kAllFromThere);
  const CFRunLoopRef loop = CFRunLoopGetMain();
  const bool hasFailed = FailedAllocations() > 0;  // unless it was there already
  DisarmAllocationFailure();
  EXPECT_EQ(hasFailed, loop == nullptr);
  EXPECT_NE(nullptr, CFRunLoopGetMain());
}

TEST_F(CallsWithoutMemory, AnApplicationIsOpenedOnceOrNot) {
  LaunchedApplications applications;
  const std::string path =
      applications.AddBundle("Memory.app", {"com.test", "LFts", "APPL", "program", "1"},
                             applications.NoteStep("Memory") + "loop\n");
  const FSRef ref = RefOf(path);
  const auto open = [&] { return LSOpenFSRef(&ref, nullptr); };
  Sweep("open an application", open, {memFullErr}, [&](OSStatus) { EXPECT_EQ(0, open()); });
  EXPECT_EQ(1u, applications.Starts("Memory").size());
}

TEST_F(CallsWithoutMemory, NothingIsOpenedUnderAStandardNumber) {
  ASSERT_EQ(0, UseFiles());
  int saved[3];
  for (const int fd : {0, 1, 2}) saved[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 10);
  for (const int fd : {0, 1, 2}) syscall(SYS_close, fd);
  sStandardUsed = 0;
  const OSStatus err = UseFiles();
  ProcessSerialNumber psn = {0, kNoProcess};
  const OSStatus next = GetNextProcess(&psn);
  FSRef ref;
  LSFindApplicationForInfo(kLSUnknownCreator, CFSTR("com.example.nobody"), nullptr, &ref, nullptr);
  DebugStr(reinterpret_cast<const UInt8*>("\4text"));
  const int used = sStandardUsed;
  for (const int fd : {0, 1, 2}) dup2(saved[fd], fd);
  for (const int fd : saved) close(fd);
  EXPECT_EQ(0, err);
  EXPECT_EQ(0, next);
  EXPECT_EQ(0, used);
}

}  // namespace
