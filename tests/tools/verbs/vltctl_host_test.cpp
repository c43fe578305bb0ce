#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/tools/verbs/verb_runner.h"

// The verbs that show processes and the session.

namespace {

// Returns the first line of the output that contains `text`, or "".
std::string LineWith(const std::string& output, const std::string& text) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(text) != std::string::npos) return line;
  }
  return "";
}

TEST(VltctlPs, ShowsBundleValuesOfApplicationsOnly) {
  const ScratchFolder scratch;
  const std::string app =
      MakeTestBundle(scratch, "An App.app",
                     {.identifier = "com.example.a", .signature = "Ex'1", .executable = "sleeper"});
  const std::string program = scratch.Program("An App.app/Contents/Linux/sleeper", "/bin/sleep");
  const std::string plain = scratch.Program("plain", "/bin/sleep");
  ChildProcess application, other;
  ChildOptions options;
  options.arguments = {program, "600"};
  ASSERT_TRUE(application.Start(options));
  options.arguments = {plain, "600"};
  ASSERT_TRUE(other.Start(options));
  ASSERT_TRUE(WaitUntil(
      [&] {
        const std::string output = RunVerb({"ps"}, {"--json"}).output;
        return !LineWith(output, program).empty() && !LineWith(output, plain).empty();
      },
      60s));

  ProcessSerialNumber psn = {};
  ASSERT_EQ(noErr, GetProcessForPID(application.Pid(), &psn));
  const std::string high = std::to_string(psn.highLongOfPSN);
  const std::string pid = std::to_string(application.Pid());
  const ProgramResult json = RunVerb({"ps"}, {"--json", "--apps"});
  EXPECT_EQ(0, json.status);
  EXPECT_EQ("{\"high\":" + high + ",\"low\":" + pid + ",\"pid\":" + pid +
                ",\"signature\":\"0x45782731\",\"type\":\"APPL\","
                "\"identifier\":\"com.example.a\",\"bundle\":\"" +
                app + "\",\"program\":\"" + program + "\"}",
            LineWith(json.output, app));
  EXPECT_EQ("", LineWith(json.output, plain));
  const ProgramResult text = RunVerb({"ps"}, {});
  const std::string line = LineWith(text.output, scratch.Path() + "/An\\x20App.app/");
  EXPECT_EQ(0u, line.find(high + ":" + pid + "  ")) << line;
  EXPECT_NE(std::string::npos, line.find("  0x45782731  APPL  com.example.a  ")) << line;
  const std::string allJson = RunVerb({"ps"}, {"--json"}).output;
  EXPECT_NE(std::string::npos, LineWith(allJson, plain)
                                   .find("\"signature\":null,\"type\":null,"
                                         "\"identifier\":null,\"bundle\":null,"));
}

TEST(VltctlSession, ShowsTheSourceOfEachFact) {
  const passwd* user = getpwuid(getuid());
  ASSERT_NE(nullptr, user);
  const std::string directory = std::string(getenv("XDG_RUNTIME_DIR")) + "/veltrane";
  const ProgramResult result = RunVerb(
      {"session"}, {"--json"}, {{"VLTHOST_SESSION_ID", "0xABC"}, {"VLTHOST_SESSION_BITS", "1"}});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(
      "{\"session\":{\"value\":2748,\"source\":\"VLTHOST_SESSION_ID\"},\"hex\":\"0xabc\","
      "\"root\":{\"value\":true,\"source\":\"VLTHOST_SESSION_BITS\"},"
      "\"graphicAccess\":{\"value\":false,\"source\":\"VLTHOST_SESSION_BITS\"},"
      "\"user\":{\"value\":\"" +
          std::string(user->pw_name) +
          "\",\"source\":\"password database\"},\"directory\":{\"value\":\"" + directory +
          "\",\"source\":\"XDG_RUNTIME_DIR\",\"usable\":true,\"problem\":null}}\n",
      result.output);
}

}  // namespace
