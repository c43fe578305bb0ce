#include <gtest/gtest.h>

#include <string_view>

#include "tests/platform/plist/support.h"

namespace {

using namespace std::literals;

TEST(PlistText, ReadsEveryConstructOfTheOldForm) {
  const PlistRead rows[] = {
      {" aZ09_$/:.- // x", "<string>aZ09_$/:.-</string>"},
      {"http://x", "<string>http://x</string>"},
      {"\"\"", "<string></string>"},
      {"'a \"b\"\n'", "<string>a \"b\"</string>"},
      {"\"a\\\"\\\\\\'\\a\\b\\f\\r\\v\"", "<string>a\"\\'\a\b\f&#13;\v</string>"},
      {"\"\\101\\0479\\1a\"",
       "<string>A'9\x01"
       "a</string>"},
      {"\"\\341\\256\"", "<string>\xC3\x86\xEF\xAC\x81</string>"},  // not as in ISO Latin-1
      {"\"\\U00e9\\Ud83d\\Ude00\"", "<string>\xC3\xA9\xF0\x9F\x98\x80</string>"},
      {"'\xC3\xA9\\n\xE2\x82\xAC'", "<string>\xC3\xA9\xE2\x82\xAC</string>"},
      {"\xEF\xBB\xBFx", "<string>x</string>"},
      {"\xFE\xFF\0x"sv, "<string>x</string>"},
      {"\xFF\xFE(\0)\0"sv, "<array/>"},
      {"(a, 'b',(c) , {},)",
       "<array><string>a</string><string>b</string><array><string>c</string>"
       "</array><dict/></array>"},
      {"{ b = 1; \"a\" = (x); c; }",
       "<dict><key>a</key><array><string>x</string></array><key>b</key><string>1</string>"
       "<key>c</key><string>c</string></dict>"},
      {"b = 1; a = {x=y;}; // end",
       "<dict><key>a</key><dict><key>x</key><string>y</string></dict><key>b</key>"
       "<string>1</string></dict>"},
      {"'a';\nb;", "<dict><key>a</key><string>a</string><key>b</key><string>b</string></dict>"},
      {"<0fBD77 1\tc>", "<data>D713HA==</data>"},
      {"/* a */ { /* b */ a /* c */ = // d\n b; }", "<dict><key>a</key><string>b</string></dict>"},
      {"a = 1; // old line ends\rb = 2;\r//\r\n",
       "<dict><key>a</key><string>1</string><key>b</key><string>2</string></dict>"},
  };
  for (const PlistRead& row : rows) ExpectRead(row, kCFPropertyListOpenStepFormat);
}

TEST(PlistText, RefusesBadFilesWithPositionAndReason) {
  const PlistRefused rows[] = {
      {"", 1, 1, "nothing in the file"},
      {"{a=1;", 1, 6, "too early"},
      {"{a=1}", 1, 5, "expected \";\" here"},
      {"{a 1;}", 1, 4, "expected \"=\" or \";\" here"},
      {"{=1;}", 1, 2, "expected a key"},
      {"(a b)", 1, 4, "expected \",\" or \")\" here"},
      {"a=1; b", 1, 7, "too early"},
      {"{\n  a = 'x;\n}", 2, 7, "never closed"},
      {"{\r\ra = 1;\r\n\n\rb;\r =", 7, 2, "expected a key"},
      {"'a\\", 1, 1, "never closed"},
      {"'\\x\xC3", 1, 1, "never closed"},
      {"'\\U12g4'", 1, 2, "four hexadecimal"},
      {"'\\777'", 1, 2, "no character"},
      {"'\\376'", 1, 2, "no character"},
      {"'a\xFF'", 1, 3, "not UTF-8"},
      {"a\xC3\xA9", 1, 2, "follows the end"},
      {"'a\0'"sv, 1, 3, "NUL"},
      {"'a\\\0'"sv, 1, 4, "NUL"},
      {"\0"sv, 1, 1, "expected a value"},
      {"<0>", 1, 1, "odd number"},
      {"<0\xC3>", 1, 3, "no hexadecimal"},
      {"/* x", 1, 1, "never closed"},
      {"\xFF\xFE(\0)"sv, 1, 2, "not UTF-16"},
  };
  for (const PlistRefused& row : rows) ExpectRefused(row);
}

}  // namespace
