#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "tests/platform/plist/support.h"

namespace {

using namespace std::literals;

TEST(PlistXML, AcceptsAndWritesInOneForm) {
  const PlistRead rows[] = {
      // Envelopes.
      {"<plist><true/></plist>", "<true/>"},
      {" \n<?xml version='1.0'?><plist version=\"1.0\" a='&lt;'><false/></plist >\n", "<false/>"},
      {"<?xml version=\"1.0\" encoding='utf-8' standalone='yes' ?><?p i?><!-- c --><true/><!--c-->",
       "<true/>"},
      {"<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"x>\"><true/>", "<true/>"},
      {"\xEF\xBB\xBF<true/>", "<true/>"},
      // Leaves.
      {"<true> <!-- c --> </true>", "<true/>"},
      {"<string/>", "<string></string>"},
      {"<string> a b </string>", "<string> a b </string>"},
      {"<string>a&#13;b&#xD;&#10;</string>", "<string>a&#13;b&#13;</string>"},
      {"<string>&amp;&lt;&gt;&apos;&quot;&#65;&#x0041;</string>",
       "<string>&amp;&lt;&gt;'\"AA</string>"},
      {"<string>a<![CDATA[<&]]]>b<!-- c -->d<?p?></string>", "<string>a&lt;&amp;]bd</string>"},
      {"<string>\x01\x1F\x7F&#1;</string>", "<string>\x01\x1F\x7F\x01</string>"},
      {"<string>\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 &#x1F600;</string>",
       "<string>\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xF0\x9F\x98\x80</string>"},
      {"<integer> -12\n</integer>", "<integer>-12</integer>"},
      {"<integer>-0xFf</integer>", "<integer>-255</integer>"},
      {"<integer>-9223372036854775808</integer>", "<integer>-9223372036854775808</integer>"},
      {"<integer>9223372036854775808</integer>", "<integer>9223372036854775808</integer>"},
      {"<integer>18446744073709551615</integer>", "<integer>18446744073709551615</integer>"},
      {"<real> .1 </real>", "<real>0.10000000000000001</real>"},
      {"<real>-.625</real>", "<real>-0.625</real>"},
      {"<real>9999999999999.875</real>", "<real>9999999999999.875</real>"},
      {"<real>999999999999999.875</real>", "<real>999999999999999.88</real>"},
      {"<real>0.0625</real>", "<real>0.0625</real>"},
      {"<real>5e-324</real>", "<real>4.9406564584124654e-324</real>"},
      {"<real>-1e-400</real>", "<real>-0</real>"},
      {"<real>.0000001e-9999999999999999999999</real>", "<real>0</real>"},
      {"<real>1.7976931348623159e+308</real>", "<real>+infinity</real>"},
      {"<real>-1e9999999999999999999999</real>", "<real>-infinity</real>"},
      {"<real>NaN</real>", "<real>nan</real>"},
      {"<real>-INF</real>", "<real>-infinity</real>"},
      {"<date> 0001-01-01T00:00:00Z\n</date>", "<date>0001-01-01T00:00:00Z</date>"},
      {"<date>9999-12-31T23:59:59Z</date>", "<date>9999-12-31T23:59:59Z</date>"},
      {"<date>2000-02-29T00:00:00Z</date>", "<date>2000-02-29T00:00:00Z</date>"},
      {"<data/>", "<data></data>"},
      {"<data>\n\tAAEC\n\t/w= =\n</data>", "<data>AAEC/w==</data>"},
      // Containers.
      {"<dict><!-- c --></dict>", "<dict/>"},
      {"<dict><key>b</key><true/><key>a</key><false/><key/><array/></dict>",
       "<dict><key></key><array/><key>a</key><false/><key>b</key><true/></dict>"},
      // The value dropped for a repeated key may have the only use of another key.
      {"<array><dict><key>a</key><dict><key>x</key><true/></dict><key>a</key><true/></dict>"
       "<dict><key>x</key><true/></dict></array>",
       "<array><dict><key>a</key><true/></dict><dict><key>x</key><true/></dict></array>"},
      // By code unit: a surrogate comes before U+FF5E, and a prefix before longer keys.
      {"<dict><key>\xEF\xBD\x9E</key><true/><key>\xF0\x9F\x98\x80</key><true/><key>zz</key><true/>"
       "<key>\xC3\xA9</key><true/><key>z</key><true/></dict>",
       "<dict><key>z</key><true/><key>zz</key><true/><key>\xC3\xA9</key><true/>"
       "<key>\xF0\x9F\x98\x80</key><true/><key>\xEF\xBD\x9E</key><true/></dict>"},
      {"<dict><key>key.2222222222b</key><true/><key>key.2222222222a</key><true/>"
       "<key>key.1</key><true/><key>key.</key><true/></dict>",
       "<dict><key>key.</key><true/><key>key.1</key><true/><key>key.2222222222a</key><true/>"
       "<key>key.2222222222b</key><true/></dict>"},
  };
  for (const PlistRead& row : rows) ExpectRead(row, kCFPropertyListXMLFormat_v1_0);
}

TEST(PlistXML, RefusesBadFilesWithPositionAndReason) {
  const PlistRefused rows[] = {
      // The envelope.
      {"<plist></plist>", 1, 8, "has no value"},
      {"<plist><true/>", 1, 15, "ends before </plist>"},
      {"<plist><true/><true/></plist>", 1, 15, "more than one value"},
      {"<plist>\n<true/>\n</plist>\n<true/>", 4, 1, "follows the end"},
      {"<plist>x<true/></plist>", 1, 8, "belongs to no element"},
      {"<plist a='1' a='2'><true/></plist>", 1, 14, "twice"},
      {"<plist a='<'><true/></plist>", 1, 11, "must not have <"},
      {"<plist a='&x;'><true/></plist>", 1, 11, "no such entity"},
      {"<?xml version='1.0' encoding='ISO-8859-1'?><true/>", 1, 21, "ISO-8859-1 cannot be read"},
      {"<?xml version='1.0' encoding='UTF-16'?><true/>", 1, 21, "no byte-order mark"},
      {"<?xml encoding='UTF-8'?><true/>", 1, 7, "malformed"},
      {"<?xml version='2.0'?><true/>", 1, 7, "not XML 1.0"},
      {"<?xml version='1.0 encoding=UTF-8'?><true/>", 1, 7, "not XML 1.0"},
      {"<true/><?xml version='1.0'?>", 1, 8, "only once"},
      {"<!DOCTYPE plist SYSTEM 'x' [<!ENTITY % a SYSTEM 'file:///etc/passwd'> %a;]><true/>", 1, 28,
       "declarations of its own"},
      {"<!DOCTYPE plist PUBLIC 'x'><true/>", 1, 27, "malformed"},
      {"<!DOCTYPE a><!DOCTYPE a><true/>", 1, 13, "does not belong here"},
      {"<!DOCTYPE plist PUBLIC '-//A<' 'x'><true/>", 1, 29, "must not have this"},
      {"<!DOCTYPE \xE4><true/>", 1, 11, "no name"},
      {"<true/><!-- a -- b -->", 1, 15, "--"},
      {"<true/>\n <!-- a", 2, 2, "never closed"},
      // Elements.
      {"<foo/>", 1, 1, "no element <foo>"},
      {"<array>< true/></array>", 1, 8, "begins no tag"},
      {"<array><key>a</key></array>", 1, 8, "<key> outside"},
      {"<dict><true/></dict>", 1, 7, "no <key>"},
      {"<dict>\n\t<key>a</key>\n</dict>", 3, 1, "last key has no value"},
      {"<dict><key>a</key><key>b</key></dict>", 1, 19, "has no value"},
      {"<true>x</true>", 1, 7, "must be empty"},
      {"<string>a", 1, 1, "never closed"},
      {"<string>a<b/></string>", 1, 10, "not closed before"},
      {"<string>a & b</string>", 1, 11, "begins no entity"},
      {"<string>&nbsp;</string>", 1, 9, "no such entity"},
      {"<string>&#0;</string>", 1, 9, "no number of a character"},
      {"<string>&#xD800;</string>", 1, 9, "no number of a character"},
      {"<string>&#x110000;</string>", 1, 9, "no number of a character"},
      {"<string>\n<![CDATA[x]]</string>", 2, 1, "never closed"},
      {"<string>\xC3\xA9\xC3</string>", 1, 10, "not UTF-8"},
      {"<string>\xED\xA0\x80</string>", 1, 9, "not UTF-8"},
      {"<string>\xC0\x80</string>", 1, 9, "not UTF-8"},
      {"<string>&amp;\xFF</string>", 1, 14, "not UTF-8"},
      {"<true/><!-- \xFF -->", 1, 13, "not UTF-8"},
      {"<string>a\0b</string>"sv, 1, 10, "NUL"},
      {"<string><![CDATA[\0]]></string>"sv, 1, 18, "NUL"},
      {"<true/><!--\0-->"sv, 1, 12, "NUL"},
      // Leaves.
      {"<integer>0x</integer>", 1, 1, "not an integer"},
      {"<integer>-9223372036854775809</integer>", 1, 1, "64 bits"},
      {"<integer>18446744073709551616</integer>", 1, 1, "64 bits"},
      {"<real>0x1p3</real>", 1, 1, "not a real"},
      {"<date>2005-03-01T12:34:56+01:00</date>", 1, 1, "not a date"},
      {"<date>2001-02-29T00:00:00Z</date>", 1, 1, "no such date"},
      {"<date>0000-01-01T00:00:00Z</date>", 1, 1, "no such date"},
      {"<date>2001-01-01T24:00:00Z</date>", 1, 1, "no such date"},
      {"<data>AA*A</data>", 1, 9, "not base64"},
      {"<data>A</data>", 1, 1, "incomplete"},
      {"<data>AA==AA==</data>", 1, 11, "not base64"},
  };
  for (const PlistRefused& row : rows) ExpectRefused(row);
}

TEST(PlistXML, ErrorsQuoteAtMost200BytesAndNoControlCharacters) {
  const std::pair<std::string, std::string> rows[] = {
      {"\x1b[3m\n\x7f", "?[3m?? cannot be read"},
      {Repeat("\xC3\xA9", 1000), Repeat("\xC3\xA9", 93) + "..."},
      {"x" + Repeat("\xC3\xA9", 1000), "x" + Repeat("\xC3\xA9", 93) + "..."},
  };
  for (const auto& [encoding, quoted] : rows) {
    const ReadList list("<?xml version='1.0' encoding='" + encoding + "'?><true/>");
    EXPECT_EQ("the encoding " + quoted, list.error.text);
  }
}

std::string InUTF16(std::string_view ascii, bool isBig) {
  std::string bytes = isBig ? "\xFE\xFF" : "\xFF\xFE";
  for (const char c : ascii) {
    if (isBig) bytes += '\0';
    bytes += c;
    if (!isBig) bytes += '\0';
  }
  return bytes;
}

TEST(PlistXML, ReadsUTF16WithItsMark) {
  for (const bool isBig : {false, true}) {
    std::string text =
        InUTF16("<?xml version='1.0' encoding='UTF-16'?>\n<string>ax</string>", isBig);
    const size_t x = text.find('x', text.size() - 24);
    text.replace(x - (isBig ? 1 : 0), 2, isBig ? "\xD8\x3D\xDE\x00"sv : "\x3D\xD8\x00\xDE"sv);
    const ReadList list(text);
    ASSERT_NE(nullptr, list.Get()) << list.error.Sentence();
    EXPECT_EQ("<string>a\xF0\x9F\x98\x80</string>", BodyOf(list.Get()));

    text.erase(text.size() - 21, 2);  // half of the pair
    const ReadList half(text);
    EXPECT_EQ(nullptr, half.Get());
    EXPECT_EQ(2u, half.error.line);

    const ReadList odd(InUTF16("<true/>", isBig) + "x");
    EXPECT_EQ(nullptr, odd.Get());
    EXPECT_EQ("the bytes are not UTF-16", odd.error.text);
  }
}

TEST(PlistXML, ReadsEveryLineEndAsALineFeedAndKeepsWrittenCarriageReturns) {
  const std::string ends = "<string>\r\na\rb\n\r\r\n<![CDATA[\r]]></string>\r\n";
  const std::string expected = "<string>\na\nb\n\n\n\n</string>\n";
  std::string wide = InUTF16(ends, true);
  for (const std::string& file : {ends, "<?xml version='1.0'?>\r" + ends, wide}) {
    const ReadList list(file);
    ASSERT_NE(nullptr, list.Get()) << list.error.Sentence();
    EXPECT_NE(std::string::npos, WriteXML(list.Get()).find(expected)) << WriteXML(list.Get());
  }
  const std::string narrow = "<string>a\tline&#13;</string>";
  const std::string broad = "<string>\xE2\x82\xAC&#13;</string>";
  for (const std::string& kept : {narrow, broad}) {
    EXPECT_NE(std::string::npos, WriteXML(ReadList(kept).Get()).find(kept));
  }
  ExpectRefused({"<string>\r\nab\r<b/></string>", 3, 1, "not closed before"});
}

TEST(PlistXML, NamesEncodingsThatItCannotRead) {
  const std::pair<std::string, const char*> rows[] = {
      {InUTF16("<true/>", true).substr(2), "UTF-16 without a byte-order mark"},
      {InUTF16("(a)", false).substr(2), "UTF-16 without a byte-order mark"},
      {"\0\0\0<\0\0\0t"s, "UTF-32"},
      {"{\0\0\0}\0\0\0"s, "UTF-32"},
      {"\0\0\xFE\xFF\0\0\0<"s, "UTF-32"},
      {"\xFF\xFE\0\0<\0\0\0"s, "UTF-32"},
  };
  for (const auto& [bytes, named] : rows) {
    const ReadList list(bytes);
    EXPECT_EQ(nullptr, list.Get());
    EXPECT_EQ(std::string("the text is ") + named, list.error.text);
    EXPECT_NE(std::string::npos, list.error.hint.find("UTF-8")) << named;
  }
}

TEST(PlistXML, EscapesSpecialCharactersAtEveryPosition) {
  for (size_t length = 1; length < 20; ++length) {
    for (size_t at = 0; at < length; ++at) {
      for (const std::string_view character : {"&amp;", "&gt;", "&#13;", "\xC3\xA9"}) {
        std::string text(length, 'a');
        text.replace(at, 1, character);
        text = "<string>" + text + "</string>";
        ASSERT_EQ(text, BodyOf(ReadList(text).Get()));
      }
    }
  }
}

// Enough values to reach the end of the writer's buffer at different bytes.
TEST(PlistXML, WritesEveryKindOfValueAcrossTheEndOfItsBuffer) {
  const std::string kinds[] = {
      "<true/>",
      "<integer>-9223372036854775808</integer>",
      "<real>-1.7976931348623157e+308</real>",
      "<date>2005-03-01T12:34:56Z</date>",
      "<data>" + Repeat("AAAA", 12000) + "</data>",
      "<string>" + Repeat("&amp;", 1024) + "</string>",
      "<string>" + Repeat("&amp;", 1025) + "</string>",
      "<dict><key>" + Repeat("\xE2\x82\xAC", 1024) + "</key><array/></dict>",
  };
  for (const std::string& kind : kinds) {
    const std::string body = "<array>" + Repeat(kind, 100000 / kind.size()) + "</array>";
    EXPECT_EQ(body, BodyOf(ReadList(body).Get()));
  }
}

TEST(PlistXML, WritesKeysInOrder) {
  EXPECT_EQ("<dict><key>a</key><true/><key>b</key><dict/><key>\xE4\xB8\xAD</key><true/></dict>",
            BodyOf(ReadList("<dict><key>b</key><dict/><key>\xE4\xB8\xAD</key><true/>"
                            "<key>a</key><true/></dict>")
                       .Get()));
}

// A line has 76 characters less 8 for each level, but at least 4.
TEST(PlistXML, BreaksDataIntoLinesByLevel) {
  for (const size_t level : {0, 1, 8, 9, 40}) {
    SCOPED_TRACE(level);
    const ReadList list(Repeat("<array>", level) + "<data>" + Repeat("AAAA", 40) + "</data>" +
                        Repeat("</array>", level));
    const std::string text = WriteXML(list.Get());
    const size_t begin = text.find("<data>\n") + 7;
    const std::string line = text.substr(begin, text.find('\n', begin) - begin);
    const size_t characters = level < 9 ? 76 - 8 * level : 4;
    EXPECT_EQ(std::string(level, '\t') + std::string(characters, 'A'), line);
    EXPECT_EQ(text, WriteXML(ReadList(text).Get()));
  }
}

}  // namespace
