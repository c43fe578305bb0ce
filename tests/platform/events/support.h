#pragma once

#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/events/storage.h"

// Shared by the tests of the Apple Event Manager's data.

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

// A value outside of any descriptor, for tables. Numbers are in native byte order.
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

inline Raw Several(DescType type, const std::vector<Raw>& values) {
  Raw raw = {type, ""};
  for (const Raw& value : values) raw.bytes += value.bytes;
  return raw;
}

// Values of every type that is transmitted: numbers in native byte order, several in one value,
// bytes that are not a number, and values that are too large to be stored inline.
inline std::vector<Raw> ValuesOfEveryType() {
  return {
      {typeNull, ""},
      {typeTrue, ""},
      {typeFalse, ""},
      Bool(1),
      Short(-2),
      UShort(0xFEDC),
      Long(0x01020304),
      ULong(0xFEDCBA98),
      Comp(-0x0102030405060708),
      UComp(0xFEDCBA9876543210),
      Float(1.5e10f),
      // An infinity, a NaN and a zero by their bits.
      Number(typeIEEE32BitFloatingPoint, UInt32{0x7F800000}),
      Number(typeIEEE32BitFloatingPoint, UInt32{0x7FC00001}),
      Double(-0.1),
      Number(typeIEEE64BitFloatingPoint, UInt64{0x8000000000000000}),
      FixedPoint(0x00018000),
      {typeExtended, FromHex("4000 c90fdaa22168c235")},
      {type128BitFloatingPoint, FromHex("3fff8000000000000000000000000000")},
      {typeDecimalStruct, FromHex("0001020304")},
      Text("Gr\x9F\xA7"),
      Text({"a\0b", 3}),
      Text(""),
      {typePString,
       "\x03"
       "abc"},
      {typeCString, std::string("abc\0", 4)},
      UTF16(u"Gr\u00FC\u00DF\u4E2D"),
      {typeUTF16ExternalRepresentation, FromHex("0047 00e9")},
      UTF8("Gr\xC3\xBC\xC3\x9F"),
      {typeIntlText, FromHex("0000 0000 61628e")},
      Code(typeType, FourCC('a', 'b', 'c', 'd')),
      Code(typeEnumerated, typeTrue),
      Code(typeProperty, 0x01020304),
      Code(typeKeyword, 0x01020304),
      Code(typeApplSignature, 0x01020304),
      Code(typeMachPort, 0x01020304),
      Code(typeKernelProcessID, 4711),
      Several(typeProcessSerialNumber, {ULong(0x01020304), ULong(0xA0B0C0D0)}),
      {typeApplicationBundleID, "com.veltrane.test"},
      {typeFSRef, std::string(80, '\x11')},
      {typeAlias, std::string(300, '\x33')},
      // Several numbers in one value, and bytes that are not a number.
      Several(typeSInt16, {Short(1), Short(2), Short(-3)}),
      Several(typeSInt32, {Long(1), Long(-2), Long(0x01020304)}),
      Several(typeIEEE64BitFloatingPoint, {Double(1), Double(0.1)}),
      {typeSInt32, "abc"},
      {typeSInt64, "123456789"},
      {typeSInt16, ""},
      Text(std::string(5000, 't')),
      UTF16(std::u16string(4000, u'u')),
      {typeSInt32, std::string(4000, '\1') + Long(-9).bytes},
      {typeUnicodeText, "abc"},
      {FourCC('t', 'd', 't', 'a'), std::string(70000, '\x44')},
  };
}

inline void PrintTo(const Raw& raw, std::ostream* out) {
  *out << '\'' << CodeText(raw.type) << "' " << Hex(raw.bytes);
}

inline void Make(const Raw& raw, AEDesc* desc) {
  ASSERT_EQ(0, AECreateDesc(raw.type, raw.bytes.data(), raw.ByteCount(), desc));
}

// Returns the contents of a value descriptor.
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
