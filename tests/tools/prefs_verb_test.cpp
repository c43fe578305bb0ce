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
#include "tests/tools/verb_runner.h"

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

TEST_F(PrefsVerb, ValuesKeepTheirTypes) {
  const struct {
    std::vector<std::string> words;
    int status;
    const char* output;
  } rows[] = {
      {{"write", "a.b", "n", "5"}, 0, ""},
      {{"write", "a.b", "n", "x"}, 2, ""},  // was an integer, and stays one
      {{"write", "a.b", "s", "hello"}, 0, ""},
      {{"write", "a.b", "s", "12"}, 0, ""},
      {{"write", "a.b", "n", "1", "--type", "real"}, 0, ""},
      {{"write", "a.b", "l", "<array><date>2005-03-01T12:34:56Z</date></array>"}, 0, ""},
      {{"write", "a.b", "d", "{\"x\":[true]}", "--json"},
       0,
       "{\"domain\":\"a.b\",\"outcome\":\"written\",\"problem\":null}\n"},
      {{"read", "a.b", "s"}, 0, "12\n"},
      {{"read", "a.b", "--json"},
       0,
       "{\"d\":{\"x\":[true]},\"l\":[\"2005-03-01T12:34:56Z\"],\"n\":1.0,\"s\":\"12\"}\n"},
      {{"delete", "a.b", "d"}, 0, ""},
      {{"delete", "a.b", "d"}, 3, ""},
      {{"read", "a.b", "d"}, 3, ""},
      {{"delete", "a.b"}, 0, ""},
      {{"read", "a.b", "--json"}, 0, "{}\n"},
      {{"wirte", "a.b"}, 2, ""},
      {{"write", "a.b", "n"}, 2, ""},
      {{"read", "a.b", "n", "x"}, 2, ""},
      {{"read", "../x"}, 2, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    const ProgramResult result = Prefs(row.words);
    EXPECT_EQ(row.status, result.status) << result.errors;
    EXPECT_EQ(row.output, result.output);
    EXPECT_EQ(row.status == 0, result.errors.empty()) << result.errors;
  }
}

TEST_F(PrefsVerb, WhereAValueComesFrom) {
  const std::string user = Folder("XDG_CONFIG_HOME"), shared = Folder("XDG_CONFIG_DIRS");
  EXPECT_EQ(3, Prefs({"where", "a.b", "n"}).status);
  const struct {
    std::vector<std::string> options;
    std::string path;
  } weakestFirst[] = {{{"--any-user"}, shared + "a.b.plist"},
                      {{}, user + "a.b.plist"},
                      {{"--current-host"}, user + "ByHost/a.b.plist"}};
  for (const auto& row : weakestFirst) {
    std::vector<std::string> words = {"write", "a.b", "n", "1"};
    words.insert(words.end(), row.options.begin(), row.options.end());
    EXPECT_EQ(0, Prefs(words).status);
    EXPECT_EQ(row.path + "\n", Prefs({"where", "a.b", "n"}).output);
  }
  EXPECT_EQ(shared + "a.b.plist\n", Prefs({"where", "a.b", "n", "--any-user"}).output);
  const ProgramResult all = Prefs({"where", "a.b"});
  EXPECT_EQ(6, std::count(all.output.begin(), all.output.end(), '\n')) << all.output;
}

TEST_F(PrefsVerb, ExportAndImport) {
  const std::string file = Folder("HOME") + "../../list.plist";
  std::filesystem::create_directories(Folder("HOME"));
  EXPECT_EQ(0, Prefs({"write", "a.b", "n", "5"}).status);
  EXPECT_EQ(0, Prefs({"export", "a.b", file}).status);
  EXPECT_EQ(ReadFile(file), Prefs({"export", "a.b"}).output);
  EXPECT_EQ(0, Prefs({"write", "c.d", "kept", "true"}).status);
  EXPECT_EQ(0, Prefs({"import", "c.d", file}).status);
  EXPECT_EQ("{\"kept\":true,\"n\":5}\n", Prefs({"read", "c.d", "--json"}).output);
  std::ofstream(file) << "[1]";
  EXPECT_EQ(7, Prefs({"import", "c.d", file}).status);
  EXPECT_EQ(3, Prefs({"import", "c.d", file + ".none"}).status);
}

TEST_F(PrefsVerb, ARefusedFileIsExplainedAndLeftAlone) {
  EXPECT_EQ(0, Prefs({"write", "a.b", "n", "5"}).status);
  const std::string path = Folder("XDG_CONFIG_HOME") + "a.b.plist";
  const std::string before = ReadFile(path);
  chmod(path.c_str(), 0666);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"read", "a.b"}, {"write", "a.b", "n", "6"}, {"delete", "a.b"}}) {
    const ProgramResult result = Prefs(words);
    EXPECT_EQ(5, result.status);
    EXPECT_NE(std::string::npos, result.errors.find("its group or others may write it"))
        << result.errors;
  }
  EXPECT_EQ(before, ReadFile(path));
}

}  // namespace
