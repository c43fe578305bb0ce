#pragma once

#include <cstring>
#include <string>
#include <string_view>

#include "platform/host/plist/builder.h"
#include "platform/host/plist/characters.h"
#include "platform/host/plist/codec.h"

// HostPlistReader is what the readers of property lists in text share: they go through UTF-8 from
// front to back and hand what they find to a builder. A function that reads something returns false
// when it is not as it should be; the error is then in place and the reader is finished.
class HostPlistReader {
 protected:
  // `text` is borrowed, as is the error. inputSize is that of the file in bytes, before it became
  // UTF-8; an item of it takes `leastItem` bytes as a rule.
  HostPlistReader(const HostPlistText& text, size_t inputSize, size_t leastItem,
                  const HostPlistRequest& request, HostPropertyListError* error)
      : begin(text.bytes),
        end(text.bytes + text.count),
        at(text.bytes),
        input(text),
        error(error),
        builder(inputSize, kMemoryFactor, leastItem, request) {}

  // To be asked before anything is read: is this text, and may it take the memory that it takes?
  bool Begin();

  // All return false. Fail sets the error, with the line and column of `where`. The text may quote
  // the file: it is cut to 200 bytes, without control characters.
  bool Fail(const UInt8* where, std::string text, std::string hint = "");
  bool FailBuilding(const UInt8* where) { return Fail(where, builder.Problem()); }
  bool FailNotUTF8(const UInt8* where);

  size_t Left() const { return static_cast<size_t>(end - at); }
  bool Follows(std::string_view text) const {
    return Left() >= text.size() && std::memcmp(at, text.data(), text.size()) == 0;
  }

  const UInt8* const begin;
  const UInt8* const end;
  const UInt8* at;
  const HostPlistText input;
  HostPropertyListError* const error;
  HostPlistBuilder builder;

 private:
  static constexpr size_t kMemoryFactor = 8;
};
