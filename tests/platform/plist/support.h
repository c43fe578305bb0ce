#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/host/plist/binary_write.h"
#include "platform/host/plist/codec.h"
#include "platform/host/plist/introspect.h"
#include "platform/host/plist/xml_write.h"

// A list that was read from bytes, or the reason of the failure.
class ReadList {
 public:
  explicit ReadList(std::string_view bytes, CFOptionFlags mutability = kCFPropertyListImmutable)
      : list(HostReadPropertyList(reinterpret_cast<const UInt8*>(bytes.data()), bytes.size(),
                                  mutability, &format, &error)) {}
  ~ReadList() { CFRelease(list); }
  ReadList(const ReadList&) = delete;
  ReadList& operator=(const ReadList&) = delete;

  CFPropertyListRef Get() const { return list; }

  CFPropertyListFormat format = 0;
  HostPropertyListError error;

 private:
  const CFPropertyListRef list;
};

class StringSink final : public HostPlistSink {
 public:
  bool Take(const UInt8* bytes, size_t count) override {
    text.append(reinterpret_cast<const char*>(bytes), count);
    return true;
  }
  std::string text;
};

// The whole file, or the reason in brackets.
inline std::string WriteXML(CFPropertyListRef list) {
  StringSink sink;
  HostPropertyListError error;
  return HostWritePlistXML(list, sink, &error) ? sink.text : "[" + error.text + "]";
}

inline std::string WriteBinary(CFPropertyListRef list) {
  StringSink sink;
  HostPropertyListError error;
  return HostWritePlistBinary(list, sink, &error) ? sink.text : "[" + error.text + "]";
}

inline constexpr std::string_view kXMLHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
inline constexpr std::string_view kXMLFoot = "</plist>\n";

// Returns the text between head and foot without line breaks and tabs, or the reason in brackets.
inline std::string BodyOf(CFPropertyListRef list) {
  std::string text = WriteXML(list);
  if (text.starts_with(kXMLHead) && text.ends_with(kXMLFoot)) {
    text = text.substr(kXMLHead.size(), text.size() - kXMLHead.size() - kXMLFoot.size());
  }
  std::erase_if(text, [](char c) { return c == '\n' || c == '\t'; });
  return text;
}

// A file and the list that it is read as.
struct PlistRead {
  std::string_view text;
  std::string_view body;  // as XML
};

inline void ExpectRead(const PlistRead& row, CFPropertyListFormat format) {
  SCOPED_TRACE(testing::PrintToString(row.text));
  const ReadList list(row.text);
  EXPECT_EQ(format, list.format);
  ASSERT_NE(nullptr, list.Get()) << list.error.Sentence();
  EXPECT_EQ(row.body, BodyOf(list.Get()));
}

struct PlistRefused {
  std::string_view text;
  size_t line, column;
  std::string_view reason;  // a part of it
};

inline void ExpectRefused(const PlistRefused& row) {
  SCOPED_TRACE(testing::PrintToString(row.text));
  const ReadList list(row.text);
  EXPECT_EQ(nullptr, list.Get());
  EXPECT_EQ(row.line, list.error.line);
  EXPECT_EQ(row.column, list.error.column);
  EXPECT_NE(std::string::npos, list.error.text.find(row.reason)) << list.error.text;
}

inline std::string Repeat(std::string_view text, size_t count) {
  std::string result;
  result.reserve(text.size() * count);
  for (size_t i = 0; i < count; ++i) result += text;
  return result;
}

// A number of `size` bytes, the most significant one first.
inline std::string Big(uint64_t value, size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = size; i > 0; --i, value >>= 8) bytes[i - 1] = static_cast<char>(value & 0xFF);
  return bytes;
}
