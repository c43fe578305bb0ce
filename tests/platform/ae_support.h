#pragma once

#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/ae_storage.h"

// What the tests of the Apple Event Manager's data share.

// A descriptor for the length of a scope.
struct StDesc : AEDesc {
  StDesc() { AEInitializeDesc(this); }
  ~StDesc() { AEDisposeDesc(this); }
  StDesc(const StDesc&) = delete;
  StDesc& operator=(const StDesc&) = delete;

  bool IsNull() const { return descriptorType == typeNull && dataHandle == nullptr; }
};

// Fails a test that leaves more descriptors than it found.
class DescTest : public testing::Test {
 protected:
  ~DescTest() override { EXPECT_EQ(before, HostCountDescs()); }

 private:
  size_t before = HostCountDescs();
};

// An event without an address, empty; an empty list.
struct StEvent : StDesc {
  StEvent() { EXPECT_EQ(0, AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, 1, 0, this)); }
};
struct StList : StDesc {
  StList() { EXPECT_EQ(0, AECreateList(nullptr, 0, false, this)); }
};

// A value outside of any descriptor, for tables. Numbers are in the host's order.
struct Raw {
  DescType type = typeNull;
  std::string bytes;

  Size ByteCount() const { return static_cast<Size>(bytes.size()); }
  bool operator==(const Raw& other) const = default;
};

template <class Value>
Raw Number(DescType type, Value value) {
  std::string bytes(sizeof value, 0);
  memcpy(bytes.data(), &value, sizeof value);
  return {type, bytes};
}
inline Raw Short(SInt16 value) { return Number(typeSInt16, value); }
inline Raw UShort(UInt16 value) { return Number(typeUInt16, value); }
inline Raw Long(SInt32 value) { return Number(typeSInt32, value); }
inline Raw ULong(UInt32 value) { return Number(typeUInt32, value); }
inline Raw Comp(SInt64 value) { return Number(typeSInt64, value); }
inline Raw UComp(UInt64 value) { return Number(typeUInt64, value); }
inline Raw Float(float value) { return Number(typeIEEE32BitFloatingPoint, value); }
inline Raw Double(double value) { return Number(typeIEEE64BitFloatingPoint, value); }
inline Raw FixedPoint(SInt32 value) { return Number(typeFixed, value); }
inline Raw Bool(UInt8 value) { return Number(typeBoolean, value); }
inline Raw Code(DescType type, UInt32 code) { return Number(type, code); }
inline Raw Text(std::string_view text) { return {typeChar, std::string(text)}; }
inline Raw UTF8(std::string_view text) { return {typeUTF8Text, std::string(text)}; }
inline Raw UTF16(std::u16string_view text) {
  return {typeUnicodeText,
          std::string(reinterpret_cast<const char*>(text.data()), text.size() * sizeof text[0])};
}

inline Raw CText(std::string_view text) { return {typeCString, std::string(text) + '\0'}; }
inline Raw PText(std::string_view text) {
  return {typePString, static_cast<char>(text.size()) + std::string(text)};
}

inline std::string Hex(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += "0123456789abcdef"[value >> 4];
    text += "0123456789abcdef"[value & 15];
  }
  return text;
}

inline std::string FromHex(std::string_view hex) {
  std::string bytes;
  std::string digits;
  for (const char c : hex) {
    if (c != ' ') digits += c;
  }
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

inline std::string CodeText(UInt32 code) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) text += static_cast<char>(code >> shift);
  return text;
}

inline void PrintTo(const Raw& raw, std::ostream* out) {
  *out << '\'' << CodeText(raw.type) << "' " << Hex(raw.bytes);
}

inline void Make(const Raw& raw, AEDesc* desc) {
  ASSERT_EQ(0, AECreateDesc(raw.type, raw.bytes.data(), raw.ByteCount(), desc));
}

// What a value descriptor holds.
inline Raw Contents(const AEDesc& desc) {
  Raw raw = {desc.descriptorType, std::string(static_cast<size_t>(AEGetDescDataSize(&desc)), 0)};
  if (desc.descriptorType != typeNull) {
    EXPECT_EQ(0, AEGetDescData(&desc, raw.bytes.data(), raw.ByteCount()));
  }
  return raw;
}

inline std::string Printed(const AEDesc& desc) {
  Handle handle = nullptr;
  if (AEPrintDescToHandle(&desc, &handle) != 0) return "(error)";
  std::string text(*handle, static_cast<size_t>(GetHandleSize(handle)));
  DisposeHandle(handle);
  return text;
}
