#include <CoreFoundation/CFData.h>
#include <CoreFoundation/CFNumber.h>
#include <CoreFoundation/CFStream.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "platform/host/objects/cf_data.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/objects/cf_object.h"
#include "platform/host/objects/cf_stream.h"
#include "platform/host/objects/cf_url.h"

// A write stream has a file, memory of its own that grows, or the caller's.
struct __CFWriteStream final : HostStream {
  static constexpr HostTypeID kClass = kHostTypeWriteStream;
  enum class Kind : UInt8 { kFile, kMemory, kBuffer };

  explicit __CFWriteStream(Kind kind, HostCFURL* file = nullptr)
      : HostStream(kClass, file), kind(kind) {}
  void LastRelease() override {
    Close();
    delete this;
  }

  bool WriteToFile(const UInt8* bytes, size_t count);
  bool WriteToMemory(const UInt8* bytes, size_t count);
  size_t WriteToBuffer(const UInt8* bytes, size_t count);

  const Kind kind;
  bool isAppending = false;
  std::vector<UInt8> written;
  UInt8* buffer = nullptr;
  size_t bufferSize = 0;
  size_t position = 0;  // in `buffer`
};

bool __CFWriteStream::WriteToFile(const UInt8* bytes, size_t count) {
  while (count > 0) {
    const ssize_t put = write(fd, bytes, count);
    if (put < 0 && errno == EINTR) continue;
    if (put == 0) errno = ENOSPC;
    if (put <= 0) {
      Fail();
      return false;
    }
    bytes += put;
    count -= static_cast<size_t>(put);
  }
  return true;
}

bool __CFWriteStream::WriteToMemory(const UInt8* bytes, size_t count) try {
  if (count > INT32_MAX - written.size()) throw std::bad_alloc();
  written.insert(written.end(), bytes, bytes + count);
  return true;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  Fail();
  return false;
}

size_t __CFWriteStream::WriteToBuffer(const UInt8* bytes, size_t count) {
  count = std::min(count, bufferSize - position);
  std::memcpy(buffer + position, bytes, count);
  position += count;
  return count;
}

namespace {

using Kind = __CFWriteStream::Kind;

bool IsProperty(CFStringRef name, CFStringRef property) { return CFEqual(name, property) != 0; }

}  // namespace

CFTypeID CFWriteStreamGetTypeID(void) { return kHostTypeWriteStream; }

CFWriteStreamRef CFWriteStreamCreateWithFile(CFAllocatorRef, CFURLRef file) {
  auto* url = HostCast<HostCFURL>(file);
  return url != nullptr ? new (std::nothrow) __CFWriteStream(Kind::kFile, url) : nullptr;
}

CFWriteStreamRef CFWriteStreamCreateWithAllocatedBuffers(CFAllocatorRef, CFAllocatorRef) {
  return new (std::nothrow) __CFWriteStream(Kind::kMemory);
}

CFWriteStreamRef CFWriteStreamCreateWithBuffer(CFAllocatorRef, UInt8* buffer, CFIndex capacity) {
  if (buffer == nullptr || capacity < 0) return nullptr;
  auto* stream = new (std::nothrow) __CFWriteStream(Kind::kBuffer);
  if (stream == nullptr) return nullptr;
  stream->buffer = buffer;
  stream->bufferSize = static_cast<size_t>(capacity);
  return stream;
}

Boolean CFWriteStreamOpen(CFWriteStreamRef ref) {
  auto* stream = HostCast<__CFWriteStream>(ref);
  if (stream == nullptr) return false;
  return stream->Open(O_WRONLY | O_CREAT | (stream->isAppending ? O_APPEND : O_TRUNC));
}

void CFWriteStreamClose(CFWriteStreamRef ref) { HostCloseStream<__CFWriteStream>(ref); }

CFStreamStatus CFWriteStreamGetStatus(CFWriteStreamRef ref) {
  return HostStatusOfStream<__CFWriteStream>(ref);
}

CFStreamError CFWriteStreamGetError(CFWriteStreamRef ref) {
  return HostErrorOfStream<__CFWriteStream>(ref);
}

CFIndex CFWriteStreamWrite(CFWriteStreamRef ref, const UInt8* bytes, CFIndex count) {
  auto* stream = HostCast<__CFWriteStream>(ref);
  if (stream == nullptr || !stream->IsOpen() || count < 0) return -1;
  if (count == 0) return 0;
  if (bytes == nullptr) return -1;
  const auto size = static_cast<size_t>(count);
  if (stream->kind == Kind::kBuffer) {
    return static_cast<CFIndex>(stream->WriteToBuffer(bytes, size));
  }
  const bool isDone = stream->kind == Kind::kFile ? stream->WriteToFile(bytes, size)
                                                  : stream->WriteToMemory(bytes, size);
  return isDone ? count : -1;
}

CFTypeRef CFWriteStreamCopyProperty(CFWriteStreamRef ref, CFStringRef property) {
  const auto* stream = HostCast<__CFWriteStream>(ref);
  if (stream == nullptr) return nullptr;
  if (IsProperty(property, kCFStreamPropertyAppendToFile) && stream->kind == Kind::kFile) {
    return stream->isAppending ? kCFBooleanTrue : kCFBooleanFalse;
  }
  if (!IsProperty(property, kCFStreamPropertyDataWritten)) return nullptr;
  if (stream->kind == Kind::kMemory) {
    return HostCFData::Create(stream->written.data(), stream->written.size());
  }
  if (stream->kind == Kind::kBuffer) return HostCFData::Create(stream->buffer, stream->position);
  return nullptr;
}

Boolean CFWriteStreamSetProperty(CFWriteStreamRef ref, CFStringRef property, CFTypeRef value) {
  auto* stream = HostCast<__CFWriteStream>(ref);
  const auto* boolean = HostCast<HostCFBoolean>(value);
  if (stream == nullptr || boolean == nullptr || stream->kind != Kind::kFile ||
      stream->status != kCFStreamStatusNotOpen ||
      !IsProperty(property, kCFStreamPropertyAppendToFile)) {
    return false;
  }
  stream->isAppending = boolean->is;
  return true;
}
