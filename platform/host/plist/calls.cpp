#include <CoreFoundation/CFPropertyList.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/host/base/guard.h"
#include "platform/host/objects/cf_data.h"
#include "platform/host/objects/cf_stream.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/plist/binary_write.h"
#include "platform/host/plist/builder.h"
#include "platform/host/plist/codec.h"
#include "platform/host/plist/introspect.h"
#include "platform/host/plist/walk.h"
#include "platform/host/plist/xml_write.h"

namespace {

// Collects the bytes in a block of malloc, which grows by half its size.
class ByteBuffer final : public HostPlistSink {
 public:
  ByteBuffer() = default;
  ~ByteBuffer() { std::free(bytes); }
  ByteBuffer(const ByteBuffer&) = delete;
  ByteBuffer& operator=(const ByteBuffer&) = delete;

  bool Take(const UInt8* more, size_t count) override {
    if (!Grow(count)) return false;
    std::memcpy(bytes + size, more, count);
    size += count;
    return true;
  }

  // Returns the bytes as a new object and empties the buffer, or returns null without memory.
  CFDataRef GiveAsData() {
    if (void* fitting = std::realloc(bytes, size)) bytes = static_cast<UInt8*>(fitting);
    CFDataRef data = HostCFData::CreateNoCopy(bytes, size, kCFAllocatorMalloc);
    if (data == nullptr) return nullptr;
    bytes = nullptr;
    size = capacity = 0;
    return data;
  }

 private:
  // Makes room for `count` more bytes. Returns false without memory, or if the size does not fit a
  // CFIndex.
  bool Grow(size_t count) {
    if (capacity - size >= count) return true;
    if (count > INT32_MAX - size) return false;
    const size_t larger = std::max(size + count, std::min<size_t>(size + size / 2, INT32_MAX));
    void* moved = std::realloc(bytes, larger);
    if (moved == nullptr) return false;
    bytes = static_cast<UInt8*>(moved);
    capacity = larger;
    return true;
  }

  UInt8* bytes = nullptr;
  size_t size = 0;
  size_t capacity = 0;
};

class StreamSink final : public HostPlistSink {
 public:
  explicit StreamSink(CFWriteStreamRef stream) : stream(stream) {}

  // A stream may take less than it is given; one that takes nothing is full.
  bool Take(const UInt8* bytes, size_t count) override {
    if (count > static_cast<size_t>(INT32_MAX - total)) return false;
    while (count > 0) {
      const CFIndex taken = CFWriteStreamWrite(stream, bytes, static_cast<CFIndex>(count));
      if (taken <= 0) return false;
      total += taken;
      bytes += taken;
      count -= static_cast<size_t>(taken);
    }
    return true;
  }
  CFIndex Total() const { return total; }

 private:
  const CFWriteStreamRef stream;
  CFIndex total = 0;
};

class DroppingSink final : public HostPlistSink {
 public:
  bool Take(const UInt8*, size_t) override { return true; }
};

bool HasOnlyTextTypes(CFPropertyListRef list) {
  HostPlistWalk walk(list, HostPlistWalk::Order::kStored);
  while (walk.Next()) {
    const CFTypeID type = walk.Object()->TypeID();
    if (type == kHostTypeNumber || type == kHostTypeBoolean || type == kHostTypeDate) return false;
  }
  return walk.Fault() == nullptr;
}

// Stores the text of an error, or null without memory for it. `error` may be null.
void Report(const HostPropertyListError& why, CFStringRef* error) {
  if (error == nullptr) return;
  HostGuard([&] {
    std::string text = why.Sentence();
    if (!why.hint.empty()) text += " (" + why.hint + ")";
    *error = HostCFString::Create(kCFStringEncodingUTF8,
                                  reinterpret_cast<const UInt8*>(text.data()), text.size(), false);
  });
}

// Reads `length` bytes, or all there are if it is 0. Returns false with `*error` if the stream
// refuses, ends early or has too many.
bool ReadAll(CFReadStreamRef stream, CFIndex length, HostStreamRest& rest,
             HostPropertyListError* error) {
  const auto wanted = static_cast<size_t>(std::max<CFIndex>(length, 0));
  const HostStreamRead result = HostGuard(HostStreamRead::kFailed, [&] {
    return HostReadStreamToEnd(stream, wanted, kHostMaxPlistBytes, rest);
  });
  if (result == HostStreamRead::kOk && (wanted == 0 || rest.count == wanted)) return true;
  error->text = result == HostStreamRead::kFailed    ? "the stream cannot be read"
                : result == HostStreamRead::kTooLong ? "there are more than 256 MiB"
                                                     : "the stream ends before the bytes that are "
                                                       "asked for";
  return false;
}

CFPropertyListRef ReadPlist(const UInt8* bytes, size_t count, CFOptionFlags mutability,
                            CFPropertyListFormat* format, CFStringRef* error) {
  HostPropertyListError why;
  CFPropertyListFormat found = 0;
  CFPropertyListRef list = HostReadPlist(bytes, count, {mutability}, &found, &why);
  if (list == nullptr)
    Report(why, error);
  else if (format != nullptr)
    *format = found;
  return list;
}

CFPropertyListRef DeepCopy(CFPropertyListRef list, CFOptionFlags mutability) {
  HostPlistBuilder builder(mutability);
  HostPlistWalk walk(list, HostPlistWalk::Order::kStored);
  const auto retained = [](const HostCFObject* object) { return object->Retain(), object; };
  while (walk.Next()) {
    if (walk.Current() == HostPlistWalk::Step::kClose) {
      if (!builder.Close()) return nullptr;
      continue;
    }
    if (walk.Key() != nullptr && !builder.Add(retained(walk.Key()), 0)) return nullptr;
    const bool isArray = walk.Object()->TypeID() == kHostTypeArray;
    const auto kind =
        isArray ? HostPlistBuilder::Kind::kArray : HostPlistBuilder::Kind::kDictionary;
    if (walk.Current() == HostPlistWalk::Step::kOpen) {
      if (!builder.Open(kind)) return nullptr;
    } else if (!builder.Add(retained(walk.Object()), 0)) {
      return nullptr;
    }
  }
  return walk.Fault() == nullptr ? builder.TakeRoot() : nullptr;
}

CFPropertyListRef FromData(CFDataRef ref, CFOptionFlags mutability, CFStringRef* error) {
  const auto* data = HostCast<HostCFData>(ref);
  if (data == nullptr) {
    Report({"there are no bytes to read", ""}, error);
    return nullptr;
  }
  return ReadPlist(data->Bytes(), data->Length(), mutability, nullptr, error);
}

CFPropertyListRef FromStream(CFReadStreamRef stream, CFIndex length, CFOptionFlags mutability,
                             CFPropertyListFormat* format, CFStringRef* error) {
  HostPropertyListError why;
  HostStreamRest rest;
  if (!ReadAll(stream, length, rest, &why)) {
    Report(why, error);
    return nullptr;
  }
  return ReadPlist(rest.bytes, rest.count, mutability, format, error);
}

CFIndex ToStream(CFPropertyListRef list, CFWriteStreamRef stream, CFPropertyListFormat format,
                 CFStringRef* error) {
  HostPropertyListError why;
  StreamSink sink(stream);
  bool isGood = false;
  switch (format) {
    case kCFPropertyListXMLFormat_v1_0:
      isGood = HostWritePlistXML(list, sink, &why);
      break;
    case kCFPropertyListBinaryFormat_v1_0:
      isGood = HostWritePlistBinary(list, sink, &why);
      break;
    case kCFPropertyListOpenStepFormat:
      why.text = "the old text form is only read";
      break;
    default:
      why.text = "there is no such form of property lists";
      break;
  }
  if (isGood) return sink.Total();
  Report(why, error);
  return 0;
}

}  // namespace

CFPropertyListRef CFPropertyListCreateFromXMLData(CFAllocatorRef, CFDataRef ref,
                                                  CFOptionFlags mutability, CFStringRef* error) {
  if (error != nullptr) *error = nullptr;
  return HostGuard<CFPropertyListRef>(nullptr, [=] { return FromData(ref, mutability, error); });
}

CFPropertyListRef CFPropertyListCreateFromStream(CFAllocatorRef, CFReadStreamRef stream,
                                                 CFIndex length, CFOptionFlags mutability,
                                                 CFPropertyListFormat* format, CFStringRef* error) {
  if (error != nullptr) *error = nullptr;
  return HostGuard<CFPropertyListRef>(
      nullptr, [=] { return FromStream(stream, length, mutability, format, error); });
}

CFDataRef CFPropertyListCreateXMLData(CFAllocatorRef, CFPropertyListRef list) {
  HostPropertyListError ignored;
  ByteBuffer buffer;
  return HostWritePlistXML(list, buffer, &ignored) ? buffer.GiveAsData() : nullptr;
}

CFIndex CFPropertyListWriteToStream(CFPropertyListRef list, CFWriteStreamRef stream,
                                    CFPropertyListFormat format, CFStringRef* error) {
  if (error != nullptr) *error = nullptr;
  return HostGuard(CFIndex{0}, [=] { return ToStream(list, stream, format, error); });
}

Boolean CFPropertyListIsValid(CFPropertyListRef list, CFPropertyListFormat format) {
  HostPropertyListError ignored;
  DroppingSink sink;
  switch (format) {
    case kCFPropertyListXMLFormat_v1_0:
      return HostWritePlistXML(list, sink, &ignored);
    case kCFPropertyListBinaryFormat_v1_0:
      return HostWritePlistBinary(list, sink, &ignored);
    case kCFPropertyListOpenStepFormat:
      return HostGuard(false, [list] { return HasOnlyTextTypes(list); });
    default:
      return false;
  }
}

CFPropertyListRef CFPropertyListCreateDeepCopy(CFAllocatorRef, CFPropertyListRef list,
                                               CFOptionFlags mutability) {
  return HostGuard<CFPropertyListRef>(nullptr, [=] { return DeepCopy(list, mutability); });
}
