#include "util/strings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr size_t kRoom = 600;

// A destination that shows every byte a call touched: '#' before, and guarded behind.
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

TEST(Strings, Copies) {
  const std::string ten = "0123456789", long300(300, 'x');
  const struct {
    char function;  // p: pstrcpy, q: pcstrcpy, c: cpstrcpy, s: cstrcpy
    std::string source;
    int size;
    std::string touched;
  } rows[] = {
      {'p', P(ten), 11, P(ten)},
      {'p', P(ten), 5,
       "\x0A"
       "0123"},  // meant: the length stays 10
      {'p', P(ten), 0, ""},
      {'q', P(ten), 11, C(ten)},
      {'q', P(ten), 5, C("0123")},
      {'q', P(ten), -3, ""},
      {'c', C(ten), 11, P(ten)},
      {'c', C(ten), 10, P("012345678")},
      {'c', C(long300), 1000, P(std::string(255, 'x'))},
      {'c', C(ten), 0, ""},
      {'s', C("abcdef"), 7, C("abcdef")},
      {'s', C("abcdef"), 4, "abcd"},  // meant: cut without a terminator
      {'s', C("abcdef"), 1, C("")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.function << " " << row.size << " " << row.source.size());
    Buffer out;
    void* result = nullptr;
    if (row.function == 'p') result = pstrcpy(out.P(), Bytes(row.source), row.size);
    if (row.function == 'q') result = pcstrcpy(out.C(), Bytes(row.source), row.size);
    if (row.function == 'c') result = cpstrcpy(out.P(), row.source.data(), row.size);
    if (row.function == 's') result = cstrcpy(out.C(), row.source.data(), row.size);
    EXPECT_EQ(out.bytes, result);
    EXPECT_EQ(row.touched, out.Touched());
  }
}

TEST(Strings, CopiesOfNothing) {
  Buffer p, q, c, s;
  EXPECT_EQ(P(""), (pstrcpy(p.P(), nullptr, 5), p.Touched()));
  EXPECT_EQ(C(""), (pcstrcpy(q.C(), nullptr, 5), q.Touched()));
  EXPECT_EQ(P(""), (cpstrcpy(c.P(), nullptr, 5), c.Touched()));
  EXPECT_EQ(C(""), (cstrcpy(s.C(), nullptr, 5), s.Touched()));
}

TEST(Strings, ConversionsInPlace) {
  Buffer toP(C("text"));
  cpstrcpy(toP.P(), toP.C(), 256);
  EXPECT_EQ(P("text"), toP.Touched());
  pcstrcpy(toP.C(), toP.P(), 256);
  EXPECT_EQ("text", std::string(toP.C()));
  BufToCString(toP.C(), toP.C(), 5, 256);
  EXPECT_EQ("text", std::string(toP.C()));
}

TEST(Strings, Appending) {
  const struct {
    char function;  // p: pstrcat, q: pcstrcat, c: cpstrcat, s: cstrcat
    std::string start;
    std::string source;
    int size;
    std::string touched;
  } rows[] = {
      {'p', P("ab"), P("cde"), 5, P("abcd")},
      {'p', P("abcdef"), P("g"), 4,
       "\x03"
       "abcdef"},  // longer than it may be: cut
      {'p', P("ab"), P("cde"), 0, P("ab")},
      {'p', P(std::string(250, 'a')), P("0123456789"), 400,
       "\x04" + std::string(250, 'a') + "0123456789"},  // meant: the length wraps
      {'c', P("ab"), C("cde"), 5, P("abcd")},
      {'c', P("abcdef"), C("g"), 4,
       "\x03"
       "abcdef"},
      {'c', P("ab"), C("cde"), -1, P("ab")},
      {'q', C("ab"), P("cde"), 5, C("abcd")},
      {'q', C("abcdef"), P("g"), 4, C("abc") + C("ef")},
      {'q', C("ab"), P("cde"), 0, C("ab")},
      {'s', C("ab"), C("cde"), 5, "abcde"},  // meant: cut without a terminator
      {'s', C("ab"), C("cde"), INT32_MIN, C("ab")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.function << " " << row.size << " " << row.source);
    Buffer out(row.start);
    void* result = nullptr;
    if (row.function == 'p') result = pstrcat(out.P(), Bytes(row.source), row.size);
    if (row.function == 'q') result = pcstrcat(out.C(), Bytes(row.source), row.size);
    if (row.function == 'c') result = cpstrcat(out.P(), row.source.data(), row.size);
    if (row.function == 's') result = cstrcat(out.C(), row.source.data(), row.size);
    EXPECT_EQ(out.bytes, result);
    EXPECT_EQ(row.touched, out.Touched());
  }
}

TEST(Strings, Comparison) {
  const std::string same254(254, 'x');
  const struct {
    std::string a, b;
    bool caseSensitive, marksSensitive;
    int result;
  } rows[] = {
      {"caf\x8E", "CAFE", false, false, 0},
      {same254 + "a", same254 + "b", true, true, 0},  // only 254 characters are compared
      {same254.substr(1) + "a", same254.substr(1) + "b", true, true, -1},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.result,
              stricmp(row.a.c_str(), row.b.c_str(), row.caseSensitive, row.marksSensitive));
    EXPECT_EQ(row.result, pcstricmp(Bytes(P(row.a.substr(0, 254))), row.b.c_str(),
                                    row.caseSensitive, row.marksSensitive));
  }
}

TEST(Strings, MakePCString) {
  const std::string text(300, 'x');
  const struct {
    int length, size;
    int pLength;  // -1: nothing stored
    size_t cLength;
  } rows[] = {{3, 10, 3, 3}, {9, 10, 8, 8}, {255, 400, 254, 255}, {300, 400, 254, 300},
              {5, 2, 0, 0},  {5, 1, -1, 0}, {-1, 10, -1, 0},      {254, 256, 254, 254}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.length << " " << row.size);
    Buffer buffer("#" + text);
    const std::string before = buffer.Touched();
    EXPECT_EQ(buffer.P(), MakePCString(buffer.P(), row.length, row.size));
    if (row.pLength < 0) {
      EXPECT_EQ(before, buffer.Touched());
    } else {
      EXPECT_EQ(row.pLength, buffer.P()[0]);
      EXPECT_EQ(row.cLength, strlen(buffer.C() + 1));
    }
  }
}

TEST(Strings, BufToCStringDropsTheLastByte) {
  const struct {
    int length, size;
    std::string touched;
  } rows[] = {{4, 10, C("abc")}, {4, 3, C("ab")}, {1, 10, C("")}, {0, 10, C("")},
              {4, 1, C("")},     {-1, 10, ""},    {4, 0, ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.length << " " << row.size);
    Buffer out;
    EXPECT_EQ(out.C(), BufToCString(out.C(), "abcd", row.length, row.size));
    EXPECT_EQ(row.touched, out.Touched());
  }
}

TEST(Strings, HexDump) {
  // No byte beyond the last digit's may be read, so the data end where they are needed.
  const struct {
    std::string data;
    int digits;
    UInt32 flags;
    std::string touched;
  } rows[] = {
      {"\x12\xAB", 3, 2, C("12A")},
      {"\x12\xAB", 4, 1, "12AB"},  // meant: the other dump's bit
      {"\x01\x23\x45\x67\x89\xAB\xCD\xEF\xFF", 17, 3, C("0123456789ABCDEFF")},
      {"", -4, 2, C("")},
      {"", -4, 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.touched);
    const std::vector<char> data(row.data.begin(), row.data.end());
    Buffer out;
    EXPECT_EQ(out.C(), HexDump(data.data(), out.C(), row.digits, row.flags));
    EXPECT_EQ(row.touched, out.Touched());
  }
}

TEST(Strings, ASCIICharDump) {
  const struct {
    const char* data;
    int count;
    UInt32 flags;
    std::string touched;
  } rows[] = {
      {"A\n\xC3", 3, 1, C("A..")},
      {" ~\x7F\x1F\x80\xFF", 6, 0, " ~...."},
      {"ab", 2, 2, "ab"},  // meant: the other dump's bit
      {"ab", -1, 1, C("")},
  };
  for (const auto& row : rows) {
    Buffer out;
    EXPECT_EQ(out.C(), ASCIICharDump(row.data, out.C(), row.count, row.flags));
    EXPECT_EQ(row.touched, out.Touched());
  }
}

TEST(Strings, TruncToCStr) {
  const struct {
    std::string text;
    char stop;
    UInt32 size;
    std::string result;
  } rows[] = {
      {C("a.b.c"), '.', 6, C("a") + C("b.c")},
      {C("a.b"), '.', 1, C("a.b")},                           // not within the size
      {C("a") + C("b.c"), '.', 6, C("a") + C("b") + C("c")},  // meant: looks through zeros
  };
  for (const auto& row : rows) {
    std::string text = row.text;
    EXPECT_EQ(text.data(), TruncToCStr(text.data(), row.stop, row.size));
    EXPECT_EQ(row.result, text);
  }
}
