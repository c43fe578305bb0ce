#include "tools/values/desc_model.h"

#include <gtest/gtest.h>

#include <random>

#include "tools/values/parameter_text.h"
#include "tools/values/port_text.h"

namespace {

constexpr UInt32 kTest = FourCC('t', 'e', 's', 't');
constexpr AEKeyword kKey = FourCC('k', 'e', 'y', 'y');

// A descriptor of a test, disposed of at its end.
struct StTestDesc {
  ~StTestDesc() { AEDisposeDesc(&desc); }
  AEDesc desc = {typeNull, nullptr};
};

void MakeEvent(StTestDesc& event) {
  ASSERT_EQ(0, AECreateAppleEvent(kTest, FourCC('s', 'e', 'n', 't'), nullptr, 7, 0, &event.desc));
}

// From bytes with numbers most significant byte first.
void MakeValue(DescType type, const std::string& big, StTestDesc& value) {
  const std::string bytes = SwappedToBig(type, big);
  ASSERT_EQ(0, AECreateDesc(type, bytes.data(), static_cast<Size>(bytes.size()), &value.desc));
}

std::string Hex(std::string_view digits) {
  ParameterValue value;
  std::string problem;
  EXPECT_TRUE(ParseParameter("keyy:data=" + std::string(digits), value, problem)) << problem;
  return value.bytes;
}

// Every row is the same on every CPU architecture.
constexpr struct {
  DescType type;
  const char* hex;
  const char* members;  // after the type
} kValues[] = {
    {typeBoolean, "01", "\"value\":true"},
    {typeBoolean, "02", "\"value\":true,\"hex\":\"02\""},
    {typeBoolean, "0100", "\"hex\":\"0100\""},
    {typeTrue, "", "\"value\":true"},
    {typeSInt16, "8000", "\"value\":-32768"},
    {typeSInt32, "00000001fffffffe", "\"values\":[1,-2]"},
    {typeSInt32, "000102", "\"hex\":\"000102\""},
    {typeSInt64, "001fffffffffffff", "\"value\":9007199254740991"},
    {typeSInt64, "8000000000000000", "\"value\":\"-9223372036854775808\""},
    {typeUInt64, "ffffffffffffffff", "\"value\":\"18446744073709551615\""},
    {typeIEEE32BitFloatingPoint, "3dcccccd", "\"value\":0.1"},
    {typeIEEE64BitFloatingPoint, "8000000000000000", "\"value\":-0.0"},
    {typeIEEE64BitFloatingPoint, "fff8000000000000",
     "\"value\":\"NaN\",\"hex\":\"fff8000000000000\""},
    {typeFixed, "ffff8000", "\"value\":-0.5,\"hex\":\"ffff8000\""},
    {typeExtended, "3fffc000000000000000", "\"value\":\"1.5\",\"hex\":\"3fffc000000000000000\""},
    {typeType, "00000001", "\"value\":\"0x00000001\""},
    {typeEnumerated, "7965732061736b20", "\"values\":[\"yes \",\"ask \"]"},
    {typeKeyword, "6572726e", "\"value\":\"errn\",\"hex\":\"6572726e\""},
    {typeProcessSerialNumber, "0000000100000002",
     "\"high\":1,\"low\":2,\"hex\":\"0000000100000002\""},
    {typeChar, "47729fa7", "\"text\":\"Gr\xc3\xbc\xc3\x9f\""},
    {typeChar, "610a00", "\"text\":\"a\\n\\u0000\""},
    {typeUTF8Text, "61ff", "\"text\":\"a\xef\xbf\xbd\",\"hex\":\"61ff\""},
    {typeUnicodeText, "00fcd83dde00", "\"text\":\"\xc3\xbc\xf0\x9f\x98\x80\""},
    {typeUnicodeText, "d83d", "\"hex\":\"d83d\""},  // half of a pair
    {typeUTF16ExternalRepresentation, "fffe6100", "\"text\":\"a\",\"hex\":\"fffe6100\""},
    {typePString, "0261ff", "\"text\":\"a\xcb\x87\",\"hex\":\"0261ff\""},
    {FourCC('t', 'd', 't', 'a'), "00ff", "\"hex\":\"00ff\""},
    {0x01ABCDEF, "00", "\"hex\":\"00\""},
    {FourCC('A', ',', '\'', '\x01'), "", "\"hex\":\"\""},
    {typeUInt16, "ffff", "\"value\":65535"},
    {typeCString, "610062", "\"hex\":\"610062\""},
    {typeIntlText, "0000000061", "\"text\":\"a\",\"hex\":\"0000000061\""},
};

TEST(DescModel, EveryTypeHasItsMembersOnEveryArchitecture) {
  for (const auto& row : kValues) {
    SCOPED_TRACE(CodeText(row.type) + " " + row.hex);
    StTestDesc value;
    MakeValue(row.type, Hex(row.hex), value);
    EXPECT_EQ("{\"type\":\"" + CodeText(row.type) + "\"," + row.members + "}",
              JsonText(DescModel(value.desc)));
  }
}

TEST(DescModel, ShowsContainersAndNestedEventsCompletely) {
  StTestDesc list, record, inner, event;
  ASSERT_EQ(0, AECreateList(nullptr, 0, false, &list.desc));
  ASSERT_EQ(0, AECreateList(nullptr, 0, true, &record.desc));
  MakeEvent(inner);
  MakeEvent(event);
  const SInt32 number = -5;
  ASSERT_EQ(0, AEPutPtr(&list.desc, 0, typeChar, "a[", 2));
  ASSERT_EQ(0, AEPutDesc(&list.desc, 0, &record.desc));
  ASSERT_EQ(0, AEPutPtr(&list.desc, 0, typeSInt32, &number, sizeof number));
  ASSERT_EQ(0, AEPutKeyDesc(&record.desc, 0x3A000000, &list.desc));
  record.desc.descriptorType = FourCC('m', 'i', 'n', 'e');  // a record may bear a code of its own
  ASSERT_EQ(0, AEPutAttributePtr(&inner.desc, kKey, typeBoolean, "\1", 1));
  ASSERT_EQ(0, AEPutParamDesc(&inner.desc, kKey, &record.desc));
  ASSERT_EQ(0, AEPutParamDesc(&event.desc, kKey, &inner.desc));

  const std::string attributes =
      "\"repq\":{\"type\":\"bool\",\"value\":false},\"evcl\":{\"type\":\"type\",\"value\":\"test\"}"
      ","
      "\"evid\":{\"type\":\"type\",\"value\":\"sent\"},\"rtid\":{\"type\":\"shor\",\"value\":7},"
      "\"tran\":{\"type\":\"long\",\"value\":0},\"esrc\":{\"type\":\"shor\",\"value\":0}";
  const std::string contents =
      "{\"type\":\"mine\",\"fields\":{\"0x3a000000\":{\"type\":\"list\",\"items\":["
      "{\"type\":\"TEXT\",\"text\":\"a[\"},{\"type\":\"reco\",\"fields\":{}},"
      "{\"type\":\"long\",\"value\":-5}]}}}";
  EXPECT_EQ("{" + attributes + "}", JsonText(AttributesModel(event.desc)));
  const JsonValue parameters = ParametersModel(event.desc);
  EXPECT_EQ("{\"keyy\":{\"type\":\"aevt\",\"attributes\":{" + attributes +
                ",\"keyy\":{\"type\":\"bool\",\"value\":true}},\"parameters\":{\"keyy\":" +
                contents + "}}}",
            JsonText(parameters));
  const std::vector<std::string> lines = ParameterLines(parameters);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(
      "keyy:aevt {&repq:bool=false, &evcl:type=test, &evid:type=sent, &rtid:short=7, &tran:long=0, "
      "&esrc:short=0, &keyy:bool=true, keyy:mine {0x3a000000:list [text=a[, reco {}, long=-5]}}",
      lines[0]);
}

// Reads the bytes back from the model alone: from hex, else from text, else as the command line.
std::string BytesOf(const JsonValue& parameters) {
  const JsonValue& model = parameters.AsObject()->at(0).second;
  ParameterValue value;
  std::string problem;
  std::string given = ParameterLines(parameters).at(0);
  if (const JsonValue* hex = model.Find("hex")) {
    given = "keyy:'" + model.Find("type")->Plain() + "'=" + hex->Plain();
  } else if (const JsonValue* text = model.Find("text")) {
    given = given.substr(0, given.find('=') + 1) + text->Plain();
  }
  EXPECT_TRUE(ParseParameter(given, value, problem)) << given << ": " << problem;
  EXPECT_EQ(model.Find("type")->Plain(), CodeText(value.type));
  return value.bytes;
}

TEST(DescModel, RandomValuesAreRestoredToTheByte) {
  std::mt19937 random(3);
  for (int i = 0; i < 20000; ++i) {
    const DescType type = kValues[random() % std::size(kValues)].type;
    std::string bytes(random() % 2 ? 1u << random() % 5 : random() % 20, 0);
    const unsigned mask = random() % 2 ? 0xFF : random() % 2 ? 0x7F : 0x01;
    for (char& byte : bytes) byte = static_cast<char>(random() & mask);
    SCOPED_TRACE(CodeText(type) + " " + HexText(bytes));
    StTestDesc event;
    MakeEvent(event);
    ASSERT_EQ(
        0, AEPutParamPtr(&event.desc, kKey, type, bytes.data(), static_cast<Size>(bytes.size())));
    const JsonValue parameters = ParametersModel(event.desc);
    EXPECT_EQ(HexText(bytes), HexText(BytesOf(parameters)));
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace
