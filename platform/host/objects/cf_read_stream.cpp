#include <CoreFoundation/CFStream.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/host/objects/cf_object.h"
#include "platform/host/objects/cf_stream.h"
#include "platform/host/objects/cf_url.h"

// A read stream has a file or bytes in memory.
struct __CFReadStream final : HostStream {
  static constexpr HostTypeID kClass = kHostTypeReadStream;

  explicit __CFReadStream(HostCFURL* file) : HostStream(kClass, file) {}
  __CFReadStream(const UInt8* bytes, size_t count, CFAllocatorRef deallocator)
      : HostStream(kClass, nullptr), bytes(bytes), count(count), deallocator(deallocator) {}
  void LastRelease() override {
    Close();
    CFAllocatorDeallocate(deallocator, const_cast<UInt8*>(bytes));
    delete this;
  }

  // Does the work of CFReadStreamRead. A memory stream is at its end after its last byte, a file
  // after a read that returns nothing.
  SInt64 Read(UInt8* buffer, size_t size);
  const UInt8* TakeFromMemory(size_t size);
  // Returns how many bytes to expect: the rest of a regular file, or a guess for any other file.
  size_t ExpectedRest() const;

  const UInt8* const bytes = nullptr;
  const size_t count = 0;
  size_t position = 0;
  const CFAllocatorRef deallocator = kCFAllocatorNull;
};

const UInt8* __CFReadStream::TakeFromMemory(size_t size) {
  const UInt8* taken = bytes + position;
  position += size;
  if (position == count) status = kCFStreamStatusAtEnd;
  return taken;
}

SInt64 __CFReadStream::Read(UInt8* buffer, size_t size) {
  if (!url) {
    size = std::min(size, count - position);
    const UInt8* from = TakeFromMemory(size);
    if (size > 0) std::memcpy(buffer, from, size);
    return static_cast<SInt64>(size);
  }
  ssize_t got;
  do {
    got = read(fd, buffer, size);
  } while (got < 0 && errno == EINTR);
  if (got < 0) Fail();
  if (got == 0) status = kCFStreamStatusAtEnd;
  return got;
}

size_t __CFReadStream::ExpectedRest() const {
  constexpr size_t kGuess = 16384;
  struct stat info = {};
  const off_t at = lseek(fd, 0, SEEK_CUR);
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || at < 0) return kGuess;
  // Some files, such as those of /proc, have size 0 and more bytes.
  return info.st_size > at ? static_cast<size_t>(std::min<off_t>(info.st_size - at, INT32_MAX))
                           : kGuess;
}

namespace {

// Reads a file until `wanted` bytes are there or it ends, into a block that grows if the file is
// longer than its reported size.
HostStreamRead ReadFile(__CFReadStream& stream, size_t wanted, HostStreamRest& rest) {
  size_t room = 0;
  while (rest.count < wanted && stream.status == kCFStreamStatusOpen) {
    if (rest.count == room) {
      // One byte more than is expected, so that the end shows without growing.
      room = std::min(wanted, room == 0 ? stream.ExpectedRest() + 1 : room * 2);
      auto* larger = static_cast<UInt8*>(std::realloc(rest.storage.get(), room));
      if (larger == nullptr) {
        errno = ENOMEM;
        stream.Fail();
        break;
      }
      static_cast<void>(rest.storage.release());
      rest.storage.reset(larger);
      rest.bytes = larger;
    }
    const SInt64 got = stream.Read(rest.storage.get() + rest.count, room - rest.count);
    rest.count += static_cast<size_t>(std::max<SInt64>(got, 0));
  }
  return stream.IsOpen() ? HostStreamRead::kOk : HostStreamRead::kFailed;
}

}  // namespace

HostStreamRead HostReadStreamToEnd(CFReadStreamRef ref, size_t length, size_t limit,
                                   HostStreamRest& rest) {
  rest = HostStreamRest();
  auto* stream = HostCast<__CFReadStream>(ref);
  if (stream == nullptr || !stream->IsOpen()) return HostStreamRead::kFailed;
  if (length > limit) return HostStreamRead::kTooLong;
  // One byte beyond the limit distinguishes a file that ends there from a longer one.
  const size_t wanted = length != 0 ? length : limit + 1;
  if (stream->url) {
    const HostStreamRead result = ReadFile(*stream, wanted, rest);
    if (result != HostStreamRead::kOk) return result;
  } else {
    rest.count = std::min(wanted, stream->count - stream->position);
    rest.bytes = stream->TakeFromMemory(rest.count);
  }
  return rest.count <= limit ? HostStreamRead::kOk : HostStreamRead::kTooLong;
}

CFTypeID CFReadStreamGetTypeID(void) { return kHostTypeReadStream; }

CFReadStreamRef CFReadStreamCreateWithFile(CFAllocatorRef, CFURLRef file) {
  auto* url = HostCast<HostCFURL>(file);
  return url != nullptr ? new (std::nothrow) __CFReadStream(url) : nullptr;
}

CFReadStreamRef CFReadStreamCreateWithBytesNoCopy(CFAllocatorRef, const UInt8* bytes, CFIndex count,
                                                  CFAllocatorRef deallocator) {
  if (count < 0 || (bytes == nullptr && count > 0)) return nullptr;
  return new (std::nothrow) __CFReadStream(bytes, static_cast<size_t>(count), deallocator);
}

Boolean CFReadStreamOpen(CFReadStreamRef ref) {
  auto* stream = HostCast<__CFReadStream>(ref);
  return stream != nullptr && stream->Open(O_RDONLY);
}

void CFReadStreamClose(CFReadStreamRef ref) { HostCloseStream<__CFReadStream>(ref); }

CFStreamStatus CFReadStreamGetStatus(CFReadStreamRef ref) {
  return HostStatusOfStream<__CFReadStream>(ref);
}

CFStreamError CFReadStreamGetError(CFReadStreamRef ref) {
  return HostErrorOfStream<__CFReadStream>(ref);
}

CFIndex CFReadStreamRead(CFReadStreamRef ref, UInt8* buffer, CFIndex size) {
  auto* stream = HostCast<__CFReadStream>(ref);
  if (stream == nullptr || !stream->IsOpen() || size < 0) return -1;
  if (size == 0 || stream->status == kCFStreamStatusAtEnd) return 0;
  if (buffer == nullptr) return -1;
  return static_cast<CFIndex>(stream->Read(buffer, static_cast<size_t>(size)));
}
