#pragma once

#include <CoreFoundation/CFBase.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/host/plist/codec.h"

// HostPlistOutput buffers a writer's bytes on their way to its sink. After the sink has refused,
// all bytes are accepted and dropped, so a writer need not check each call. One writer, one thread.
class HostPlistOutput {
 public:
  static constexpr size_t kRoom = 32 * 1024;  // the most that may be reserved

  explicit HostPlistOutput(HostPlistSink& sink) : sink(sink), buffer(new UInt8[kRoom]) {}

  // Returns room for `count` bytes, at most kRoom. Advance takes the number of those that were
  // filled.
  UInt8* Reserve(size_t count) {
    if (kRoom - used < count) Flush();
    return buffer.get() + used;
  }
  void Advance(size_t count) { used += count; }

  void Put(std::string_view text) { Put(text.data(), text.size()); }
  void Put(const void* bytes, size_t count) {
    if (count > kRoom - used) return PutLarge(bytes, count);
    std::memcpy(buffer.get() + used, bytes, count);
    used += count;
  }

  // Hands the buffered bytes to the sink. Returns false if the sink has ever refused.
  bool Flush() {
    if (used > 0) Give(buffer.get(), used);
    used = 0;
    return isGood;
  }

  bool IsGood() const { return isGood; }
  UInt64 Total() const { return given + used; }  // bytes put so far

 private:
  void Give(const UInt8* bytes, size_t count) {
    isGood = isGood && sink.Take(bytes, count);
    given += count;
  }
  void PutLarge(const void* bytes, size_t count) {
    Flush();
    if (count >= kRoom) return Give(static_cast<const UInt8*>(bytes), count);
    std::memcpy(buffer.get(), bytes, count);
    used = count;
  }

  HostPlistSink& sink;
  const std::unique_ptr<UInt8[]> buffer;
  size_t used = 0;
  UInt64 given = 0;
  bool isGood = true;
};
