#include "aeport/desc_bytes.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/platform/events/support.h"

namespace {

using DescBytes = DescTest;

constexpr SInt32 kLowest = INT32_MIN;
constexpr SInt32 kHighest = INT32_MAX;

// Every call is asked for part of a text; "~" stands for bytes that must not be touched.
std::string Untouched() { return std::string(16, '~'); }

std::string Filled(const std::string& start) {
  std::string bytes = Untouched();
  return bytes.replace(0, start.size(), start);
}

TEST_F(DescBytes, CopiesNoByteOutsideTheBufferOrTheValue) {
  // `sameTypeResult`: of plain bytes, which know no negative offsets.
  const std::tuple<const char*, SInt32, SInt32, SInt32, const char*, SInt32> rows[] = {
      {"0123456789", 16, 0, 10, "0123456789", 10},
      {"0123456789", 4, 0, 4, "0123", 4},
      {"0123456789", 10, 0, 10, "0123456789", 10},
      {"0123456789", 16, 7, 3, "789", 3},
      {"0123456789", 3, 7, 3, "789", 3},
      {"0123456789", 1, 9, 1, "9", 1},
      {"0123456789", 2, -10, 2, "01", paramErr},
      {"0123456789", 16, -4, 4, "6789", paramErr},
      {"0123456789", 16, 10, 0, "", 0},
      {"0123456789", 16, 11, paramErr, "", 0},
      {"0123456789", -1, 0, paramErr, "", 0},
      {"0123456789", 16, kLowest, paramErr, "", paramErr},
      {"0123456789", kLowest, kHighest, paramErr, "", 0},
      {"", 16, -1, paramErr, "", paramErr},
  };
  for (const auto& [given, bufferSize, offset, expected, copied, sameTypeResult] : rows) {
    SCOPED_TRACE(testing::Message()
                 << '"' << given << "\", " << bufferSize << " bytes from " << offset);
    const Raw text = Text(given);
    const Raw utf8 = UTF8(given);
    const Size size = text.ByteCount();
    StDesc source;
    Make(text, &source);
    const auto expect = [&](SInt32 result, const auto& copy) {
      std::string buffer = Untouched();
      SInt32 fullSize = -1;
      EXPECT_EQ(result, copy(buffer.data(), &fullSize));
      EXPECT_EQ(Filled(result > 0 ? copied : ""), buffer);
      EXPECT_EQ(size, fullSize);
    };
    expect(expected, [&](char* buffer, SInt32* fullSize) {
      return AECopyDescToPtr(source, buffer, bufferSize, fullSize, offset);
    });
    // Coerced, the bytes are the same here.
    for (const DescType target : {typeChar, typeWildCard, typeUTF8Text}) {
      expect(expected, [&](char* buffer, SInt32* fullSize) {
        return AECoerceDescToPtr(source, buffer, bufferSize, target, fullSize, offset);
      });
    }
    const auto fromBytes = [&](const Raw& from) {
      return [&](char* buffer, SInt32* fullSize) {
        return AECoercePtrToPtr(from.type, from.bytes.data(), size, typeChar, buffer, bufferSize,
                                fullSize, offset);
      };
    };
    expect(expected, fromBytes(utf8));
    expect(sameTypeResult, fromBytes(text));
  }
}

TEST_F(DescBytes, ANullBufferGivesTheNumberOfBytesToCopy) {
  StDesc source;
  Make(Text("0123456789"), &source);
  EXPECT_EQ(10, AECopyDescToPtr(source, nullptr, kHighest, nullptr, 0));
  EXPECT_EQ(3, AECopyDescToPtr(source, nullptr, 4, nullptr, -3));
  EXPECT_EQ(0, AECoercePtrToPtr(typeChar, "abc", 3, typeChar, nullptr, 4, nullptr, 0));
}

TEST_F(DescBytes, ListsAndNullDescriptorsHaveNoBytes) {
  StDesc none;
  char buffer[4];
  StList list;
  ASSERT_EQ(0, AEPutPtr(&list, 0, typeChar, "ab", 2));
  ASSERT_EQ(0, AEPutPtr(&list, 0, typeChar, "cd", 2));
  for (const AEDesc* source : {static_cast<AEDesc*>(&list), static_cast<AEDesc*>(&none)}) {
    SInt32 fullSize = -1;
    EXPECT_EQ(0, AECopyDescToPtr(*source, buffer, 4, &fullSize, 0));
    EXPECT_EQ(0, fullSize);
    EXPECT_EQ(paramErr, AECopyDescToPtr(*source, buffer, 4, nullptr, 1));
    EXPECT_EQ(errAECoercionFail, AECoerceDescToPtr(*source, buffer, 4, typeSInt32, nullptr, 0));
  }
}

TEST_F(DescBytes, AFailedCoercionLeavesTheFullSizeAlone) {
  StDesc source;
  Make(Text("x"), &source);
  SInt32 fullSize = -1;
  char buffer[4];
  EXPECT_EQ(errAECoercionFail, AECoerceDescToPtr(source, buffer, 4, typeSInt32, &fullSize, 0));
  EXPECT_EQ(errAECoercionFail,
            AECoercePtrToPtr(typeChar, "x", 1, typeSInt32, buffer, 4, &fullSize, 0));
  EXPECT_EQ(paramErr, AECoercePtrToPtr(typeChar, "x", -1, typeChar, buffer, 4, &fullSize, 0));
  EXPECT_EQ(paramErr, AECoercePtrToPtr(typeChar, nullptr, 1, typeChar, buffer, 4, &fullSize, 0));
  EXPECT_EQ(paramErr,
            AECoercePtrToPtr(typeChar, nullptr, 1, typeUTF8Text, buffer, 4, &fullSize, 0));
  EXPECT_EQ(-1, fullSize);
}

}  // namespace
