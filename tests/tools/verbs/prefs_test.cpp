#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/tools/verbs/verb_runner.h"

// vltctl prefs, as people and scripts meet it.

namespace {

ProgramResult Prefs(const std::vector<std::string>& words) { return RunVerb({"prefs"}, words); }

std::string Folder(const char* variable) {
  return std::string(std::getenv(variable)) + "/veltrane/preferences/";
}

class PrefsVerb : public testing::Test {
 protected:
  PrefsVerb() {
    for (const char* variable : {"XDG_CONFIG_HOME", "XDG_CONFIG_DIRS"}) {
      std::filesystem::remove_all(Folder(variable));
    }
  }
  OpenDescriptorCheck noLeaks;
};

TEST_F(PrefsVerb, AWrittenValueKeepsTheTypeOfWhatItReplaces) {
  const std::vector<VerbRun> runs = {
      {{"write", "a.b", "n", "5"}, 0, "", ""},
      {{"write", "a.b", "n", "x"}, 2, "", "\"x\" is not an integer"},  // it was one, and stays one
      {{"write", "a.b", "s", "hello"}, 0, "", ""},
      {{"write", "a.b", "s", "12"}, 0, "", ""},
      {{"write", "a.b", "n", "1", "--type", "real"}, 0, "", ""},
      {{"write", "a.b", "l", "<array><date>2005-03-01T12:34:56Z</date></array>"}, 0, "", ""},
      {{"write", "a.b", "d", "{\"x\":[true]}", "--json"},
       0,
       "{\"domain\":\"a.b\",\"outcome\":\"written\",\"problem\":null}\n",
       ""},
      {{"read", "a.b", "s"}, 0, "12\n", ""},
      {{"read", "a.b", "--json"},
       0,
       "{\"d\":{\"x\":[true]},\"l\":[\"2005-03-01T12:34:56Z\"],\"n\":1.0,\"s\":\"12\"}\n",
       ""},
      {{"delete", "a.b", "d"}, 0, "", ""},
      {{"delete", "a.b", "d"}, 3, "", "vltctl: "},
      {{"read", "a.b", "d"}, 3, "", "vltctl: "},
      {{"delete", "a.b"}, 0, "", ""},
      {{"read", "a.b", "--json"}, 0, "{}\n", ""},
      {{"read", "a.b", "n", "x"}, 2, "", "too many arguments for read"},
  };
  ExpectRuns({"prefs"}, runs);
}

TEST_F(PrefsVerb, WherePrintsTheStrongestFileWithAValue) {
  const std::string user = Folder("XDG_CONFIG_HOME"), shared = Folder("XDG_CONFIG_DIRS");
  EXPECT_EQ(3, Prefs({"where", "a.b", "n"}).status);
  const std::pair<std::vector<std::string>, std::string> weakestFirst[] = {
      {{"--any-user"}, shared + "a.b.plist"},
      {{}, user + "a.b.plist"},
      {{"--current-host"}, user + "ByHost/a.b.plist"}};
  for (const auto& [options, path] : weakestFirst) {
    std::vector<std::string> words = {"write", "a.b", "n", "1"};
    words.insert(words.end(), options.begin(), options.end());
    EXPECT_EQ(0, Prefs(words).status);
    EXPECT_EQ(path + "\n", Prefs({"where", "a.b", "n"}).output);
  }
  EXPECT_EQ(shared + "a.b.plist\n", Prefs({"where", "a.b", "n", "--any-user"}).output);
  const ProgramResult all = Prefs({"where", "a.b"});
  EXPECT_EQ(6, std::count(all.output.begin(), all.output.end(), '\n')) << all.output;
}

TEST_F(PrefsVerb, ImportAddsWhatExportWrote) {
  const std::string file = Folder("HOME") + "../../list.plist";
  std::filesystem::create_directories(Folder("HOME"));
  std::ofstream(file + ".array") << "[1]";
  const std::string other = "{\"kept\":true,\"n\":5}\n";
  const std::vector<VerbRun> runs = {
      {{"write", "a.b", "n", "5"}, 0, "", ""},
      {{"export", "a.b", file}, 0, "", ""},
      {{"write", "c.d", "kept", "true"}, 0, "", ""},
      {{"import", "c.d", file}, 0, "", ""},
      {{"read", "c.d", "--json"}, 0, other, ""},
      {{"import", "c.d", file + ".array"}, 7, "", ".array"},
      {{"import", "c.d", file + ".none"}, 3, "", ".none"},
  };
  ExpectRuns({"prefs"}, runs);
  EXPECT_EQ(ReadFile(file), Prefs({"export", "a.b"}).output);
}

TEST_F(PrefsVerb, AFileThatOthersMayWriteIsReportedAndLeftAlone) {
  EXPECT_EQ(0, Prefs({"write", "a.b", "n", "5"}).status);
  const std::string path = Folder("XDG_CONFIG_HOME") + "a.b.plist";
  const std::string before = ReadFile(path);
  chmod(path.c_str(), 0666);
  const std::string reason = "its group or others may write it";
  ExpectRuns({"prefs"}, {{{"read", "a.b"}, 5, "", reason},
                         {{"write", "a.b", "n", "6"}, 5, "", reason},
                         {{"delete", "a.b"}, 5, "", reason}});
  EXPECT_EQ(before, ReadFile(path));
}

}  // namespace
