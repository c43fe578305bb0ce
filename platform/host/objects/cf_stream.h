#pragma once

#include <CoreFoundation/CFStream.h>

#include <cstddef>
#include <cstdlib>
#include <memory>

// What the host layer needs of streams beyond the documented calls.

// All that was left of a read stream. A memory stream's bytes are borrowed, valid as long as the
// stream; a file's are in `storage`.
struct HostStreamRest {
  struct Free {
    void operator()(UInt8* block) const { std::free(block); }
  };

  const UInt8* bytes = nullptr;
  size_t count = 0;
  std::unique_ptr<UInt8, Free> storage;
};

enum class HostStreamRead {
  kOk,
  kFailed,   // not open, or the stream's error says why
  kTooLong,  // more than `limit` bytes
};

// Reads `length` bytes of an open stream, less if it ends before, or to its end when `length` is 0;
// at most `limit`, which is below INT32_MAX. The stream's status is then as after CFReadStreamRead.
HostStreamRead HostReadStreamToEnd(CFReadStreamRef stream, size_t length, size_t limit,
                                   HostStreamRest& rest);

// What both kinds of streams have: how far they have come, and the file that is open.
struct HostStreamState {
  CFStreamStatus status = kCFStreamStatusNotOpen;
  CFStreamError error = {0, 0};
  int fd = -1;

  bool IsOpen() const { return status == kCFStreamStatusOpen || status == kCFStreamStatusAtEnd; }
  // Error, with errno.
  void Fail();
  // Opens the file under `path`, which may be interrupted by signals; a directory is EISDIR.
  bool OpenFile(const char* path, int flags);
  // To Closed, or Error when the system says so; nothing unless open. Gives the descriptor back.
  void Close();
};
