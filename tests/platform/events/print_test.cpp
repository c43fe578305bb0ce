#include "tests/platform/events/support.h"

namespace {

using Print = DescTest;

TEST_F(Print, ValuesAreShownByTypeAndOthersAsBytes) {
  const std::pair<Raw, std::string> rows[] = {
      {{typeNull, ""}, "'null'()"},
      {Short(-2), "-2"},
      {Float(0.1f), "0.1"},
      {Bool(1), "'true'"},
      {Code(typeType, 0x01610A62), "'?a?b'"},
      {Code(typeMachPort, 0x1234), "'port'($00001234$)"},
      {UTF8("\xC3\xA4"), "'utf8'(\xD2\x8A\xD3)"},
      {UTF8("\xF0\x9F\x98\x80"), "'utf8'($F09F9880$)"},  // no such character in Mac Roman
      {{FourCC('w', 'h', 'a', 't'), "\x01\xFF"}, "'what'($01FF$)"},
      // Numbers of an odd size, or several: as bytes, in the order of the wire.
      {{typeSInt16, Short(1).bytes + Short(2).bytes}, "'shor'($00010002$)"},
      {{typeSInt32, "abc"}, "'long'($616263$)"},
      {{typeProcessSerialNumber, ULong(0).bytes + ULong(0xC0001).bytes},
       "'psn '($00000000000C0001$)"},
  };
  for (const auto& [value, text] : rows) {
    StDesc desc;
    Make(value, &desc);
    EXPECT_EQ(text, Printed(desc));
  }
}

TEST_F(Print, FailureGivesNoHandle) {
  char* master = nullptr;
  Handle handle = &master;
  AEDesc stale = {typeChar, reinterpret_cast<AEDataStorage>(1)};
  EXPECT_EQ(errAENotAEDesc, AEPrintDescToHandle(&stale, &handle));
  EXPECT_EQ(nullptr, handle);
}

}  // namespace
