#include "platform/host/base/install_prefix.h"

#include <gtest/gtest.h>

namespace {

TEST(InstallPrefix, OnlyInstalledProgramsAndHeadersHaveOne) {
  const std::pair<const char*, const char*> programs[] = {
      {"/usr/bin/vltctl", "/usr"},
      {"/bin/vltctl", ""},
      {"/opt/vlt/libexec/veltrane/vlt-notify", "/opt/vlt"},
      {"/opt/vlt/share/veltrane/Applications/A.app/Contents/Linux/a", "/opt/vlt"},
      {"/home/ann/bin/share/veltrane/Applications/x/A.app/Contents/Linux/bin/a", "/home/ann/bin"},
      {"/src/build/tools/vltctl", ""},
      {"/opt/robin/vltctl", ""},
      {"bin/vltctl", ""},
      {"", ""},
  };
  for (const auto& [path, expected] : programs) EXPECT_EQ(expected, HostPrefixOfProgram(path));

  const std::string header = "/include/vlt/platform/include/CoreServices/MacTypes.h";
  EXPECT_EQ("/opt/vlt", HostPrefixOfHeader("/opt/vlt" + header));
  EXPECT_EQ("", HostPrefixOfHeader(".." + header));
  EXPECT_EQ("", HostPrefixOfHeader("/src/platform/include/CoreServices/MacTypes.h"));
  EXPECT_EQ("", HostPrefixOfHeader(""));
}

}  // namespace
