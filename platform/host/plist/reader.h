#pragma once

#include <cstring>
#include <string>
#include <string_view>

#include "platform/host/plist/builder.h"
#include "platform/host/plist/characters.h"
#include "platform/host/plist/codec.h"

// HostPlistReader is the common part of the readers of text forms: they go through UTF-8 once and
// hand what they find to a builder. A function that reads something returns false if it is
// malformed; the error is then in place and the reader ends. One thread.
class HostPlistReader {
 protected:
  // Borrows `text` and `error`. `inputSize` is the size of the file in bytes, before it was
  // converted to UTF-8; `leastItem` is the usual least size of an item in it.
  HostPlistReader(const HostPlistText& text, size_t inputSize, size_t leastItem,
                  const HostPlistRequest& request, HostPropertyListError* error)
      : begin(text.bytes),
        end(text.bytes + text.count),
        at(text.bytes),
        input(text),
        error(error),
        builder(inputSize, kMemoryFactor, leastItem, request) {}

  // Call it before anything is read. Returns false if the bytes are not text, or too large a copy.
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
