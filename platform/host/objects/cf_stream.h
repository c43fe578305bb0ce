#pragma once

#include <CoreFoundation/CFStream.h>

#include <cstddef>
#include <cstdlib>
#include <memory>

#include "platform/host/objects/cf_object.h"
#include "platform/host/objects/cf_url.h"

// The functions of streams that the host layer needs besides the platform calls.

// The bytes that were left in a read stream. A memory stream's are borrowed and valid as long as
// the stream; a file's are in `storage`. One thread.
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
  kFailed,   // the stream is not open, or its error gives the reason
  kTooLong,  // more than `limit` bytes
};

// Reads `length` bytes of an open stream, or fewer if it ends before; if `length` is 0, reads to
// its end. Reads at most `limit` bytes, which is below INT32_MAX. Leaves the stream's status as
// CFReadStreamRead does. Defined in cf_read_stream.cpp.
HostStreamRead HostReadStreamToEnd(CFReadStreamRef stream, size_t length, size_t limit,
                                   HostStreamRest& rest);

// HostStream is what read streams and write streams have in common: how far the stream has come,
// and the file that it reads or writes, if it is one of a file. One thread at a time.
//
// States: NotOpen, Open, AtEnd (reading only), Closed, in this order. A failure to open, read,
// write or close leads to Error, with errno in `error`.
struct HostStream : HostCFObject {
  bool IsOpen() const { return status == kCFStreamStatusOpen || status == kCFStreamStatusAtEnd; }
  // Goes to Error, with errno.
  void Fail();
  // Goes from NotOpen to Open, or to Error. Opens the file, if there is one; signals do not make
  // that fail, and a directory is EISDIR. False also in any other state.
  bool Open(int flags);
  // Goes to Closed, or to Error if the system reports a failure; does nothing unless open. Closes
  // the file descriptor.
  void Close();

  CFStreamStatus status = kCFStreamStatusNotOpen;
  CFStreamError error = {0, 0};
  int fd = -1;
  const HostRetained<HostCFURL> url;  // null: a stream in memory

 protected:
  HostStream(HostTypeID type, HostCFURL* file)
      : HostCFObject(type), url(HostRetained<HostCFURL>::Retaining(file)) {}
  ~HostStream() = default;
};

// The documented calls that are the same for both: neutral results for null and other objects.
template <class Stream>
CFStreamStatus HostStatusOfStream(CFTypeRef ref) {
  const auto* stream = HostCast<Stream>(ref);
  return stream != nullptr ? stream->status : kCFStreamStatusNotOpen;
}
template <class Stream>
CFStreamError HostErrorOfStream(CFTypeRef ref) {
  const auto* stream = HostCast<Stream>(ref);
  return stream != nullptr ? stream->error : CFStreamError{0, 0};
}
template <class Stream>
void HostCloseStream(CFTypeRef ref) {
  if (auto* stream = HostCast<Stream>(ref)) stream->Close();
}
