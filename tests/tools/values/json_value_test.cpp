#include "tools/values/json_value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

TEST(JsonValue, EveryValueIsOneLineOfValidJson) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const std::pair<JsonValue, const char*> rows[] = {
      {{}, "null"},
      {JsonValue::Bool(true), "true"},
      {JsonValue::Integer(-9007199254740991), "-9007199254740991"},
      {JsonValue::Integer(9007199254740992), "\"9007199254740992\""},
      {JsonValue::Integer(INT64_MIN), "\"-9223372036854775808\""},
      {JsonValue::Unsigned(UINT64_MAX), "\"18446744073709551615\""},
      {JsonValue::Real(1.0), "1.0"},
      {JsonValue::Real(-0.0), "-0.0"},
      {JsonValue::Real(0.1f), "0.1"},
      {JsonValue::Real(5e-324), "5e-324"},
      {JsonValue::Real(-kInfinity), "\"-Infinity\""},
      {JsonValue::Real(std::nan("")), "\"NaN\""},
      {"a\"\\/\n\x01", "\"a\\\"\\\\/\\n\\u0001\""},
      {"\x7f\xc2\x85\xe2\x80\xa8", "\"\\u007f\\u0085\\u2028\""},
      {"Gr\xc3\xbc\xf0\x9f\x98\x80", "\"Gr\xc3\xbc\xf0\x9f\x98\x80\""},
      {"\xffz\xed\xa0", "\"\xef\xbf\xbdz\xef\xbf\xbd\xef\xbf\xbd\""},
      {"\xed\xa0\x80z\xed\xbf\xbf\xed\x9f\xbf", "\"\\ud800z\\udfff\xed\x9f\xbf\""},
      {JsonValue::Object{{"a", JsonValue::Array{{}, "b", JsonValue::Object()}}, {"", {}}},
       "{\"a\":[null,\"b\",{}],\"\":null}"},
  };
  for (const auto& [value, line] : rows) EXPECT_EQ(line, JsonText(value));
}

}  // namespace
