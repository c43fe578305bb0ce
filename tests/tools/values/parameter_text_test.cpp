#include "tools/values/parameter_text.h"

#include <gtest/gtest.h>

#include "tools/values/desc_model.h"

namespace {

TEST(ParseCode, AcceptsFourCharactersOrEightHexadecimalDigitsOnly) {
  const std::tuple<const char*, bool, FourCharCode> rows[] = {
      {"aevt", true, 0x61657674},
      {"1234", true, 0x31323334},
      {"----", true, 0x2D2D2D2D},
      {"0x00ff10AB", true, 0xFF10AB},
      {"abc", false, 0},
      {"", false, 0},
      {"0x12345", false, 0},
      {"0x-1234567", false, 0},
      {"\xc3\xbc"
       "ab",
       false, 0},
  };
  for (const auto& [text, isFine, expectedCode] : rows) {
    FourCharCode code = 0;
    EXPECT_EQ(isFine, ParseCode(text, code)) << text;
    EXPECT_EQ(isFine ? expectedCode : code, code) << text;
  }
}

TEST(ParameterText, APrintedParameterReadsBackAsTheSameBytes) {
  // `shown`: null: as given.
  const std::tuple<const char*, DescType, Size, const char*> rows[] = {
      {"keyy:ucomp=18446744073709551615", typeUInt64, 8, nullptr},
      {"keyy:long=1,-2,3", typeSInt32, 12, nullptr},
      {"keyy:double=Infinity,NaN,1", typeIEEE64BitFloatingPoint, 24,
       "keyy:double=Infinity,NaN,1.0"},
      {"keyy:enum=yes ,no  ", typeEnumerated, 8, nullptr},
      {"keyy:type=a,b,", typeType, 4, "keyy:type=0x612c622c"},
      {"keyy:utf16=\xf0\x9f\x98\x80", typeUnicodeText, 4, nullptr},
      {"keyy:double=-0.1", typeIEEE64BitFloatingPoint, 8, nullptr},
      {"keyy:text=hello world=:'", typeChar, 14, nullptr},
      {"keyy:text=Gr\xc3\xbc\xc3\x9f", typeChar, 4, nullptr},  // one Mac Roman byte each
      {"keyy:text=a\nb", typeChar, 3, "keyy:text=a\\nb"},
      {"keyy:'ABCD'=00ff", FourCC('A', 'B', 'C', 'D'), 2, nullptr},
      {"0x6b657979:bool=true", typeBoolean, 1, "keyy:bool=true"},
      {"a:=b:bool=true", typeBoolean, 1, "0x613a3d62:bool=true"},
      // A type by code whose bytes are not of its size.
      {"keyy:'long'=00ff", typeSInt32, 2, nullptr},
      // Numbers have their most significant byte first on every CPU architecture.
      {"keyy:'long'=0000012c", typeSInt32, 4, "keyy:long=300"},
  };
  for (const auto& [given, type, size, shown] : rows) {
    SCOPED_TRACE(given);
    ParameterValue value;
    std::string problem;
    ASSERT_TRUE(ParseParameter(given, value, problem)) << problem;
    EXPECT_EQ(type, value.type);
    EXPECT_EQ(size, static_cast<Size>(value.bytes.size()));
    AEDesc event = {typeNull, nullptr};
    ASSERT_EQ(0, AECreateAppleEvent(FourCC('t', 'e', 's', 't'), FourCC('t', 'e', 's', 't'), nullptr,
                                    kAutoGenerateReturnID, kAnyTransactionID, &event));
    ASSERT_EQ(0, AEPutParamPtr(&event, value.key, value.type, value.bytes.data(),
                               static_cast<Size>(value.bytes.size())));
    const char* printed = shown != nullptr ? shown : given;
    EXPECT_EQ(std::vector<std::string>{printed}, ParameterLines(ParametersModel(event)));
    AEDisposeDesc(&event);
  }
}

TEST(ParameterText, RefusesEverythingElseWithAMessage) {
  for (const char* text :
       {"", "keyyy:long=1", "keyy:lon=1", "keyy:'abc'=00", "keyy:long=", "keyy:long= 1",
        "keyy:long=1x", "keyy:long=2147483648", "keyy:ushort=-1", "keyy:long=1,",
        "keyy:type=aevt,abc", "keyy:utf8=\xff", "keyy:bool=1", "keyy:float=1.5f",
        "keyy:double=1e999", "keyy:data=0", "keyy:text=\xe2\x82",
        "keyy:text=\xe6\x97\xa5"}) {  // the last one is not in Mac Roman
    ParameterValue value;
    std::string problem;
    EXPECT_FALSE(ParseParameter(text, value, problem)) << text;
    EXPECT_NE("", problem) << text;
  }
}

}  // namespace
