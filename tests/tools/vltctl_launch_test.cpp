#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "tests/integration/launch_support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/tools/verb_runner.h"

// `vltctl launch` as people and scripts meet it.

namespace {

// "pid":N and "seconds":N as X.
std::string WithoutNumbers(const std::string& text) {
  static const std::regex numbers("\"(pid|seconds)\":[0-9.]+");
  return std::regex_replace(text, numbers, "\"$1\":X");
}

TEST(VltctlLaunch, TellsWhatWasFoundHowAndWhatBecameOfIt) {
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  const std::string port = UniquePortName();
  const std::string path = apps.AddBundle(
      "It.app", {"com.test.it", "It  ", "APPL", "program", "2.1"}, "claim " + port + "\nloop\n");
  const std::string ends =
      apps.AddBundle("Ends.app", {"com.test.ends", "Ends", "APPL", "program", "1"}, "exit 1\n");
  MakeTestBundle(apps.Folder(), "data/veltrane/Applications/Empty.app",
                 {"com.test.empty", "Mpty", "APPL", "program", "1"});
  const std::string folder = apps.Folder().Path("data/veltrane/Applications");
  const auto json = [&](const std::string& app, const char* by, const char* outcome,
                        const std::string& seen, const char* seconds, const std::string& error) {
    const bool isPath = std::string(by) == "path";
    return "{\"application\":\"" + app + "\",\"by\":\"" + by +
           "\",\"folder\":" + (isPath ? "null" : "\"" + folder + "\"") +
           ",\"program\":" + (error == "null" ? "\"" + app + "/Contents/Linux/program\"" : "null") +
           ",\"outcome\":\"" + outcome + "\",\"pid\":" + (error == "null" ? "X" : "null") +
           ",\"port\":" + seen + ",\"seconds\":" + seconds + ",\"error\":" + error + "}\n";
  };
  const std::string quoted = "\"" + port + "\"";
  const struct {
    std::vector<std::string> words;
    int status;
    std::string output;
    const char* said;
  } rows[] = {
      {{path}, 0, json(path, "path", "started", quoted, "X", "null"), ""},
      {{"com.test.it"}, 0, json(path, "identifier", "alreadyRunning", quoted, "null", "null"), ""},
      {{"It  ", "--port", port},
       0,
       json(path, "signature", "alreadyRunning", quoted, "null", "null"),
       ""},
      {{"'It  '", "--port", "test.nobody", "--wait", "0.1"},
       4,
       json(path, "signature", "noPort", "null", "null", "null"),
       "in time"},
      {{"Ends", "--port", "test.nobody"},
       6,
       json(ends, "signature", "ended", "null", "null", "null"),
       "has ended"},
      {{"com.test.empty"},
       1,
       json(folder + "/Empty.app", "identifier", "failed", "null", "null",
            "{\"number\":-10827,\"name\":\"kLSNoExecutableErr\"}"),
       "kLSNoExecutableErr"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    std::vector<std::string> words = row.words;
    words.push_back("--json");
    const ProgramResult result = RunVerb({"launch"}, words);
    EXPECT_EQ(row.status, result.status);
    EXPECT_EQ(row.output, WithoutNumbers(result.output));
    EXPECT_EQ(row.status == 0, result.errors.empty()) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find(row.said)) << result.errors;
  }
  EXPECT_TRUE(QuitAndWait(port));
}

TEST(VltctlLaunch, ExplainsEachWay) {
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  apps.AddBundle("It.app", {"com.test.it", "It  ", "APPL", "program", "2.1"}, "exit 0\n");
  const struct {
    const char* word;
    int status;
    std::vector<const char*> lines;
  } rows[] = {
      {"It  ",
       6,
       {"path        not found  nothing of that name", "identifier  not found  none of 1",
        "signature   found      version 2.1 in "}},
      {"/nothing/here",
       3,
       {"path        not found  error -43 (fnfErr)",
        "identifier  not found  an identifier has no slash",
        "signature   not found  it is not four characters"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.word);
    const ProgramResult result = RunVerb({"launch"}, {row.word, "--explain"});
    EXPECT_EQ(row.status, result.status) << result.errors;
    for (const char* line : row.lines) {
      EXPECT_NE(std::string::npos, result.output.find(line)) << line << " in\n" << result.output;
    }
  }
}

}  // namespace
