#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "platform/host/objects/cf_stream.h"
#include "tests/platform/objects/support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"

namespace {

using URL = OwnedRef<CFURLRef>;
using Reader = OwnedRef<CFReadStreamRef>;
using Writer = OwnedRef<CFWriteStreamRef>;

URL URLOfBytes(const std::string& path, bool isDirectory = false) {
  return CFURLCreateFromFileSystemRepresentation(nullptr,
                                                 reinterpret_cast<const UInt8*>(path.data()),
                                                 static_cast<CFIndex>(path.size()), isDirectory);
}

URL URLOfString(CFStringRef path) {
  return CFURLCreateWithFileSystemPath(nullptr, path, kCFURLPOSIXPathStyle, false);
}

std::string PathOf(CFURLRef url) {
  UInt8 buffer[4096];
  if (!CFURLGetFileSystemRepresentation(url, true, buffer, sizeof buffer)) return "(none)";
  return reinterpret_cast<const char*>(buffer);
}

const UInt8* Bytes(const char* text) { return reinterpret_cast<const UInt8*>(text); }

}  // namespace

TEST(URL, HoldsThePathsBytes) {
  const std::string cwd = std::filesystem::current_path();
  const std::tuple<const char*, std::string, bool> rows[] = {
      {"/a/b", "/a/b", false},
      {"/a/b///", "/a/b", true},
      {"a/./b", cwd + "/a/./b", false},
      {"/\x8E\xFF\x01", "/\x8E\xFF\x01", false},
  };
  for (const auto& [given, path, isDirectory] : rows) {
    SCOPED_TRACE(given);
    const URL url = URLOfBytes(given);
    EXPECT_EQ(path, PathOf(url));
    EXPECT_EQ(isDirectory, CFURLHasDirectoryPath(url));
    // The path as a string makes the same address again, whatever the bytes.
    const OwnedRef<CFStringRef> text(CFURLCopyFileSystemPath(url, kCFURLPOSIXPathStyle));
    EXPECT_EQ(path, PathOf(URLOfString(text)));
  }
}

TEST(URL, AStringIsMacRomanBytesIfItCanBe) {
  EXPECT_EQ("/caf\x8E", PathOf(URLOfString(String("/caf\xC3\xA9"))));  // each character has a byte
  const std::string mixed = "/caf\xC3\xA9\xE6\x97\xA5";  // one has no byte: all of it is UTF-8
  EXPECT_EQ(mixed, PathOf(URLOfString(String(mixed))));
  // Bytes that were read as Mac Roman come out as they came in.
  const OwnedRef<CFStringRef> bytes(
      CFStringCreateWithCString(nullptr, "/caf\xC3\xA9", kCFStringEncodingMacRoman));
  EXPECT_EQ("/caf\xC3\xA9", PathOf(URLOfString(bytes)));
}

TEST(URL, RefusesBytesThatAreNotAPathAndComparesByPath) {
  const UniChar half[] = {'/', 0xD800};
  EXPECT_EQ(nullptr,
            URLOfString(OwnedRef<CFStringRef>(CFStringCreateWithCharacters(nullptr, half, 2))));
  EXPECT_EQ(nullptr, URLOfBytes(std::string("/a\0b", 4)));
  UInt8 buffer[4] = {9, 9, 9, 9};
  EXPECT_FALSE(CFURLGetFileSystemRepresentation(URLOfBytes("/abc"), true, buffer, 4));
  EXPECT_EQ(0, buffer[0]);
  EXPECT_TRUE(CFURLGetFileSystemRepresentation(URLOfBytes("/ab"), true, buffer, 4));

  EXPECT_TRUE(CFEqual(URLOfBytes("/a"), URLOfString(CFSTR("/a"))));
  EXPECT_EQ(CFHash(URLOfBytes("/a")), CFHash(URLOfString(CFSTR("/a"))));
  EXPECT_FALSE(CFEqual(URLOfBytes("/a", true), URLOfBytes("/a")));
}

TEST(Streams, AFileIsWrittenReadAndAppendedTo) {
  const ScratchFolder folder;
  const OpenDescriptorCheck noLeaks;
  const std::string path = folder.Path("file");
  const URL url = URLOfBytes(path);
  const mode_t mask = umask(022);
  {
    const Writer writer(CFWriteStreamCreateWithFile(nullptr, url));
    EXPECT_EQ(-1, CFWriteStreamWrite(writer, Bytes("x"), 1));
    EXPECT_TRUE(CFWriteStreamOpen(writer));
    EXPECT_FALSE(CFWriteStreamOpen(writer));
    EXPECT_EQ(3, CFWriteStreamWrite(writer, Bytes("abc"), 3));
    CFWriteStreamClose(writer);
    EXPECT_FALSE(CFWriteStreamOpen(writer));
  }
  umask(mask);
  struct stat info = {};
  ASSERT_EQ(0, stat(path.c_str(), &info));
  EXPECT_EQ(0644u, info.st_mode & 07777);
  {
    const Writer writer(CFWriteStreamCreateWithFile(nullptr, url));
    EXPECT_TRUE(CFWriteStreamSetProperty(writer, kCFStreamPropertyAppendToFile, kCFBooleanTrue));
    EXPECT_TRUE(CFWriteStreamOpen(writer));
    EXPECT_EQ(3, CFWriteStreamWrite(writer, Bytes("def"), 3));
  }  // closed by the last release
  EXPECT_EQ("abcdef", ReadFile(path));

  const Reader reader(CFReadStreamCreateWithFile(nullptr, url));
  UInt8 buffer[8] = {};
  EXPECT_EQ(-1, CFReadStreamRead(reader, buffer, 4));
  EXPECT_TRUE(CFReadStreamOpen(reader));
  EXPECT_EQ(4, CFReadStreamRead(reader, buffer, 4));
  EXPECT_EQ(2, CFReadStreamRead(reader, buffer + 4, 4));
  EXPECT_EQ(0, CFReadStreamRead(reader, buffer, 4));
  EXPECT_EQ(kCFStreamStatusAtEnd, CFReadStreamGetStatus(reader));
  EXPECT_STREQ("abcdef", reinterpret_cast<const char*>(buffer));
  const Writer again(CFWriteStreamCreateWithFile(nullptr, url));
  EXPECT_TRUE(CFWriteStreamOpen(again));
  EXPECT_EQ("", ReadFile(path));  // opening empties the file
}

TEST(Streams, AFileThatCannotBeOpenedReadOrWrittenIsAnErrorWithErrno) {
  const ScratchFolder folder;
  const OpenDescriptorCheck noLeaks;
  const Reader reader(CFReadStreamCreateWithFile(nullptr, URLOfBytes(folder.Path("."))));
  EXPECT_FALSE(CFReadStreamOpen(reader));
  EXPECT_EQ(kCFStreamStatusError, CFReadStreamGetStatus(reader));
  EXPECT_EQ(kCFStreamErrorDomainPOSIX, CFReadStreamGetError(reader).domain);
  EXPECT_EQ(EISDIR, CFReadStreamGetError(reader).error);
  const Writer writer(CFWriteStreamCreateWithFile(nullptr, URLOfBytes(folder.Path("."))));
  EXPECT_FALSE(CFWriteStreamOpen(writer));
  EXPECT_EQ(EISDIR, CFWriteStreamGetError(writer).error);
  EXPECT_EQ(-1, CFWriteStreamWrite(writer, Bytes("x"), 1));
  const Writer full(CFWriteStreamCreateWithFile(nullptr, URLOfBytes("/dev/full")));
  EXPECT_TRUE(CFWriteStreamOpen(full));
  EXPECT_EQ(-1, CFWriteStreamWrite(full, Bytes("x"), 1));
  EXPECT_EQ(ENOSPC, CFWriteStreamGetError(full).error);
  CFWriteStreamClose(full);
  EXPECT_EQ(kCFStreamStatusError, CFWriteStreamGetStatus(full));
}

TEST(Streams, MemoryStreamsGiveBackWhatWasWrittenToThem) {
  const Reader reader(
      CFReadStreamCreateWithBytesNoCopy(nullptr, Bytes("abcde"), 5, kCFAllocatorNull));
  UInt8 buffer[8] = {};
  EXPECT_TRUE(CFReadStreamOpen(reader));
  EXPECT_EQ(3, CFReadStreamRead(reader, buffer, 3));
  EXPECT_EQ(2, CFReadStreamRead(reader, buffer + 3, 5));
  EXPECT_EQ(kCFStreamStatusAtEnd, CFReadStreamGetStatus(reader));
  EXPECT_STREQ("abcde", reinterpret_cast<const char*>(buffer));
  // Bytes that were handed over go with the stream, as the leak checker sees.
  Reader(CFReadStreamCreateWithBytesNoCopy(
      nullptr, static_cast<const UInt8*>(CFAllocatorAllocate(nullptr, 9, 0)), 9, nullptr));

  const Writer bounded(CFWriteStreamCreateWithBuffer(nullptr, buffer, 4));
  EXPECT_TRUE(CFWriteStreamOpen(bounded));
  EXPECT_EQ(3, CFWriteStreamWrite(bounded, Bytes("123"), 3));
  EXPECT_EQ(1, CFWriteStreamWrite(bounded, Bytes("456"), 3));
  EXPECT_EQ(0, CFWriteStreamWrite(bounded, Bytes("6"), 1));
  EXPECT_STREQ("1234e", reinterpret_cast<const char*>(buffer));
}

TEST(Streams, TheRestIsReadAtOnceWithinALimit) {
  const ScratchFolder folder;
  const std::string text(100000, 'z');
  const std::string path = folder.File("file", text);
  const std::tuple<size_t, size_t, HostStreamRead> rows[] = {
      {0, 1 << 20, HostStreamRead::kOk},
      {0, 99999, HostStreamRead::kTooLong},
      {200000, 1 << 20, HostStreamRead::kOk},
      {2000, 1000, HostStreamRead::kTooLong},
  };
  for (const auto& [length, limit, result] : rows) {
    for (bool isFile : {true, false}) {
      SCOPED_TRACE(testing::Message() << length << " " << limit);
      const Reader reader(isFile ? CFReadStreamCreateWithFile(nullptr, URLOfBytes(path))
                                 : CFReadStreamCreateWithBytesNoCopy(nullptr, Bytes(text.c_str()),
                                                                     100000, kCFAllocatorNull));
      ASSERT_TRUE(CFReadStreamOpen(reader));
      HostStreamRest rest;
      ASSERT_EQ(result, HostReadStreamToEnd(reader, length, limit, rest));
      if (result != HostStreamRead::kOk) continue;
      ASSERT_EQ(text.size(), rest.count);
      EXPECT_EQ(0, std::memcmp(text.data(), rest.bytes, rest.count));
    }
  }
  // A file with the size 0 that is not empty.
  const Reader status(CFReadStreamCreateWithFile(nullptr, URLOfBytes("/proc/self/status")));
  ASSERT_TRUE(CFReadStreamOpen(status));
  HostStreamRest rest;
  ASSERT_EQ(HostStreamRead::kOk, HostReadStreamToEnd(status, 0, 1 << 20, rest));
  EXPECT_GT(rest.count, 100u);
}
