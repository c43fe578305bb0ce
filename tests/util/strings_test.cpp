#include "util/strings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kRoom = 600;

// A destination that shows every byte that a call changed; all are '#' before.
struct Buffer {
  Buffer() { memset(bytes, '#', sizeof bytes); }
  explicit Buffer(const std::string& start) : Buffer() {
    memcpy(bytes, start.data(), start.size());
  }

  unsigned char* P() { return bytes; }
  char* C() { return reinterpret_cast<char*>(bytes); }
  // All up to the last touched byte.
  std::string Touched() const {
    size_t end = sizeof bytes;
    while (end > 0 && bytes[end - 1] == '#') --end;
    return std::string(bytes, bytes + end);
  }

  unsigned char bytes[kRoom];
};

std::string P(const std::string& text) {
  return static_cast<char>(static_cast<unsigned char>(text.size())) + text;
}

std::string C(const std::string& text) { return text + '\0'; }

const unsigned char* Bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

TEST(Strings, CopyingAndAppendingTouchNoByteBeyondTheSize) {
  const std::string ten = "0123456789", long250(250, 'x'), long300(300, 'x');
  const std::tuple<std::string, std::string, std::string, int, std::string> rows[] = {
      {"pstrcpy", "", P(ten), 11, P(ten)},
      // Meant: the length stays 10, because callers rely on it.
      {"pstrcpy", "", P(ten), 5, "\n0123"},
      {"pstrcpy", "", P(ten), 0, ""},
      {"pcstrcpy", "", P(ten), 5, C("0123")},
      {"cpstrcpy", "", C(ten), 10, P("012345678")},
      {"cpstrcpy", "", C(long300), 1000, P(std::string(255, 'x'))},
      // Meant: cut without a NUL, because callers rely on it.
      {"cstrcpy", "", C("abcdef"), 4, "abcd"},
      {"cstrcpy", "", C("abcdef"), 1, C("")},
      {"cstrcpy", "", C("abcdef"), 2, "ab"},
      {"cstrcpy", "", C("abcdef"), 7, C("abcdef")},
      {"pcstrcpy", "", P(ten), 11, C(ten)},
      {"pcstrcpy", "", P(ten), 10, C("012345678")},
      {"cpstrcpy", "", C(ten), 11, P(ten)},
      {"cpstrcpy", "", C(long300), 256, P(std::string(255, 'x'))},
      {"cpstrcpy", "", C(long300), 255, P(std::string(254, 'x'))},
      {"pstrcat", P("ab"), P("cde"), 5, P("abcd")},
      {"pstrcat", P("ab"), P("cde"), 6, P("abcde")},
      {"cpstrcat", P("ab"), C("cde"), 6, P("abcde")},
      {"pcstrcat", C("ab"), P("cde"), 6, C("abcde")},
      {"cstrcat", C("ab"), C("cde"), 6, C("abcde")},
      {"pstrcat", P("abcdef"), P("g"), 4, "\3abcdef"},  // longer than it may be: cut
      {"pstrcat", P("ab"), P("cde"), 0, P("ab")},
      // Meant: the length byte wraps, because callers rely on it.
      {"pstrcat", P(long250), P(ten), 400, "\4" + long250 + ten},
      {"cpstrcat", P("ab"), C("cde"), 5, P("abcd")},
      {"cpstrcat", P("abcdef"), C("g"), 4, "\3abcdef"},
      {"pcstrcat", C("ab"), P("cde"), 5, C("abcd")},
      {"pcstrcat", C("abcdef"), P("g"), 4, C("abc") + C("ef")},
      {"cstrcat", C("ab"), C("cde"), 5, "abcde"},  // Meant, as for cstrcpy.
      {"cstrcat", C("ab"), C("cde"), INT32_MIN, C("ab")},
  };
  for (const auto& [function, start, from, size, touched] : rows) {
    SCOPED_TRACE(testing::Message() << function << " " << size << " " << from);
    Buffer out(start);
    const char* const source = from.data();
    void* result = nullptr;
    if (function == "pstrcpy") result = pstrcpy(out.P(), Bytes(from), size);
    if (function == "pcstrcpy") result = pcstrcpy(out.C(), Bytes(from), size);
    if (function == "cpstrcpy") result = cpstrcpy(out.P(), source, size);
    if (function == "cstrcpy") result = cstrcpy(out.C(), source, size);
    if (function == "pstrcat") result = pstrcat(out.P(), Bytes(from), size);
    if (function == "pcstrcat") result = pcstrcat(out.C(), Bytes(from), size);
    if (function == "cpstrcat") result = cpstrcat(out.P(), source, size);
    if (function == "cstrcat") result = cstrcat(out.C(), source, size);
    EXPECT_EQ(out.bytes, result);
    EXPECT_EQ(touched, out.Touched());
  }
  Buffer p, q, c, s;
  EXPECT_EQ(P(""), (pstrcpy(p.P(), nullptr, 5), p.Touched()));
  EXPECT_EQ(C(""), (pcstrcpy(q.C(), nullptr, 5), q.Touched()));
  EXPECT_EQ(P(""), (cpstrcpy(c.P(), nullptr, 5), c.Touched()));
  EXPECT_EQ(C(""), (cstrcpy(s.C(), nullptr, 5), s.Touched()));
}

TEST(Strings, SourceAndDestinationMayBeTheSame) {
  Buffer toP(C("text"));
  cpstrcpy(toP.P(), toP.C(), 256);
  EXPECT_EQ(P("text"), toP.Touched());
  pcstrcpy(toP.C(), toP.P(), 256);
  EXPECT_EQ("text", std::string(toP.C()));
  BufToCString(toP.C(), toP.C(), 5, 256);
  EXPECT_EQ("text", std::string(toP.C()));
}

TEST(Strings, ComparisonUses254Characters) {
  const std::string same254(254, 'x');
  const std::tuple<std::string, std::string, bool, bool, int> rows[] = {
      {"caf\x8E", "CAFE", false, false, 0},
      {same254 + "a", same254 + "b", true, true, 0},  // only 254 characters are compared
      {same254.substr(1) + "a", same254.substr(1) + "b", true, true, -1},
  };
  for (const auto& [a, b, caseSensitive, marksSensitive, result] : rows) {
    EXPECT_EQ(result, stricmp(a.c_str(), b.c_str(), caseSensitive, marksSensitive));
    EXPECT_EQ(result,
              pcstricmp(Bytes(P(a.substr(0, 254))), b.c_str(), caseSensitive, marksSensitive));
  }
}

TEST(Strings, MakePCStringCutsToTheBuffer) {
  const std::string text(300, 'x');
  // `pLength`: -1: nothing stored.
  const std::tuple<int, int, int, size_t> rows[] = {
      {3, 10, 3, 3}, {9, 10, 8, 8}, {255, 400, 254, 255},  {5, 1, -1, 0},         {-1, 10, -1, 0},
      {8, 10, 8, 8}, {1, 2, 0, 0},  {5, INT32_MIN, -1, 0}, {INT32_MIN, 10, -1, 0}};
  for (const auto& [length, size, pLength, cLength] : rows) {
    SCOPED_TRACE(testing::Message() << length << " " << size);
    Buffer buffer("#" + text);
    const std::string before = buffer.Touched();
    EXPECT_EQ(buffer.P(), MakePCString(buffer.P(), length, size));
    if (pLength < 0) {
      EXPECT_EQ(before, buffer.Touched());
    } else {
      EXPECT_EQ(pLength, buffer.P()[0]);
      EXPECT_EQ(cLength, strlen(buffer.C() + 1));
    }
  }
}

TEST(Strings, BufToCStringDropsTheLastByte) {
  const std::tuple<int, int, std::string> rows[] = {
      {4, 10, C("abc")}, {4, 4, C("abc")}, {4, 3, C("ab")}, {1, 1, C("")},
      {0, 10, C("")},    {-1, 10, ""},     {4, 0, ""}};
  for (const auto& [length, size, touched] : rows) {
    SCOPED_TRACE(testing::Message() << length << " " << size);
    Buffer out;
    EXPECT_EQ(out.C(), BufToCString(out.C(), "abcd", length, size));
    EXPECT_EQ(touched, out.Touched());
  }
}

TEST(Strings, DumpsReadOnlyTheBytesTheyPrint) {
  // The data end at the last byte that may be read.
  // `count`: digits or characters.
  const std::tuple<bool, std::string, int, UInt32, std::string> rows[] = {
      {true, "\x12\xAB", 3, 2, C("12A")},
      // Meant: each dump ignores the other's bit, because callers rely on it.
      {true, "\x12\xAB", 4, 1, "12AB"},
      {true, "\x01\x23\x45\x67\x89\xAB\xCD\xEF\xFF", 17, 3, C("0123456789ABCDEFF")},
      {true, "", -4, 2, C("")},
      {false, " ~\x7F\x1F\x80\xFF", 6, 1, C(" ~....")},
      {false, "ab", 2, 2, "ab"},
  };
  for (const auto& [isHex, input, count, flags, touched] : rows) {
    SCOPED_TRACE(touched);
    const std::vector<char> data(input.begin(), input.end());
    Buffer out;
    EXPECT_EQ(out.C(), isHex ? HexDump(data.data(), out.C(), count, flags)
                             : ASCIICharDump(data.data(), out.C(), count, flags));
    EXPECT_EQ(touched, out.Touched());
  }
}

TEST(Strings, TruncToCStrSearchesExactlyTheSize) {
  const std::tuple<std::string, char, UInt32, std::string> rows[] = {
      {C("a.b.c"), '.', 6, C("a") + C("b.c")},
      {C("a.b"), '.', 1, C("a.b")},         // not within the size
      {C("ab."), '.', 3, C("ab") + C("")},  // its last byte
      {C("ab."), '.', 2, C("ab.")},
      // Meant: the search continues after a NUL, because callers rely on it.
      {C("a") + C("b.c"), '.', 6, C("a") + C("b") + C("c")},
  };
  for (const auto& [given, stop, size, result] : rows) {
    std::string text = given;
    EXPECT_EQ(text.data(), TruncToCStr(text.data(), stop, size));
    EXPECT_EQ(result, text);
  }
}
