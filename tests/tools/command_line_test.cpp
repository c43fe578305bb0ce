#include "tools/command_line.h"

#include <gtest/gtest.h>

#include "tools/values/port_text.h"

namespace {

TEST(CommandLine, SeparatesOptionsFromArgumentsAndQuotesAFault) {
  const std::vector<OptionSpec> specs = {
      {"--all", nullptr, ""}, {"--timeout", "SECONDS", "", false, "-t"}, {"-o", "FILE", ""}};
  const std::tuple<std::vector<std::string>, const char*, std::vector<std::string>,
                   std::map<std::string, std::string>>
      rows[] = {
          {{}, "", {}, {}},
          {{"a", "--all", "b"}, "", {"a", "b"}, {{"--all", ""}}},
          {{"--timeout", "3", "a"}, "", {"a"}, {{"--timeout", "3"}}},
          {{"--timeout", "--all"}, "", {}, {{"--timeout", "--all"}}},
          {{"--", "--all", "--"}, "", {"--all", "--"}, {}},
          {{"----:long=1", "-", "-x", "---"}, "", {"----:long=1", "-", "-x", "---"}, {}},
          {{"-o", "-", "-ox"}, "", {"-ox"}, {{"-o", "-"}}},
          {{"-t", "3", "-o=x"}, "", {"-o=x"}, {{"--timeout", "3"}}},
          {{"-t3", "--", "-t4"}, "", {"-t4"}, {{"--timeout", "3"}}},
          {{"-t=3"}, "", {}, {{"--timeout", "3"}}},
          {{"-t", "3", "--timeout=3"}, "--timeout is given twice", {}, {}},
          {{"--timeout"}, "--timeout needs a value: SECONDS", {}, {}},
          {{"--all=1"}, "--all takes no value", {}, {}},
          {{"--all", "--all"}, "--all is given twice", {}, {}},
          {{"--al"}, "unknown option \"--al\"; did you mean --all?", {}, {}},
          {{"--xxmxoxx"}, "unknown option \"--xxmxoxx\"", {}, {}},
      };
  for (const auto& [given, expectedProblem, words, options] : rows) {
    SCOPED_TRACE(testing::PrintToString(given));
    CommandLine line;
    std::string problem;
    EXPECT_EQ(expectedProblem[0] == 0, ParseCommandLine(specs, given, line, problem));
    EXPECT_EQ(expectedProblem, problem);
    if (expectedProblem[0] != 0) continue;
    EXPECT_EQ(words, line.words);
    EXPECT_EQ(options, line.options);
  }
}

TEST(CommandLine, HelpIsNeitherAValueNorAfterTwoHyphens) {
  const std::vector<OptionSpec> specs = {{"--all", nullptr, ""},
                                         {"--timeout", "SECONDS", "", false, "-t"}};
  const std::pair<std::vector<std::string>, bool> rows[] = {{{"-h"}, true},
                                                            {{"a", "--help"}, true},
                                                            {{"--all", "-h"}, true},
                                                            {{"--wrong", "-h"}, true},
                                                            {{"--timeout=1", "-h"}, true},
                                                            {{"-t", "-h"}, false},
                                                            {{"--timeout", "--help"}, false},
                                                            {{"--", "-h"}, false},
                                                            {{"help", "-help"}, false}};
  for (const auto& [words, isHelp] : rows) {
    EXPECT_EQ(isHelp, AsksForHelp(specs, words)) << testing::PrintToString(words);
  }
}

TEST(ParseSeconds, RoundsUpAndRefusesAllButAPositiveNumber) {
  const std::tuple<const char*, bool, int> rows[] = {
      {"1", true, 60},        {"0.001", true, 1},     {"35791394", true, 2147483640},
      {"35791395", false, 0}, {"0", false, 0},        {"-1", false, 0},
      {" 1", false, 0},       {"1s", true, 60},       {"1e3", false, 0},
      {"nan", false, 0},      {"500ms", true, 30},    {"2m", true, 7200},
      {"1h", false, 0},       {"s", false, 0},        {"5 s", false, 0},
      {"0ms", false, 0},      {"35791395s", false, 0}};
  for (const auto& [text, isFine, expectedTicks] : rows) {
    int ticks = 0;
    EXPECT_EQ(isFine, ParseSeconds(text, ticks)) << text;
    EXPECT_EQ(expectedTicks, ticks) << text;
  }
}

TEST(PortText, AgesAreInTheLargestUnit) {
  const std::pair<double, const char*> rows[] = {
      {-3, "0s"},    {0, "0s"},    {59.9, "59s"},  {60, "1m"},
      {3599, "59m"}, {3600, "1h"}, {86399, "23h"}, {86400 * 400.0, "400d"}};
  for (const auto& [seconds, text] : rows) EXPECT_EQ(text, AgeText(seconds)) << seconds;
}

}  // namespace
