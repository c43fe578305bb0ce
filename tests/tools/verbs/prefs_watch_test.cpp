#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/tools/verbs/verb_runner.h"

// vltctl prefs watch, beside what it watches.

namespace {

namespace fs = std::filesystem;

ProgramResult Prefs(const std::vector<std::string>& words) { return RunVerb({"prefs"}, words); }

void Write(const char* value, const std::vector<std::string>& options = {}) {
  std::vector<std::string> words = {"write", "w.d", "n", value};
  words.insert(words.end(), options.begin(), options.end());
  EXPECT_EQ(0, Prefs(words).status);
}

// A dictionary with the key n.
std::string List(const std::string& value) {
  return "<plist><dict><key>n</key><integer>" + value + "</integer></dict></plist>";
}

// Puts a file in the place of `path`, or changes the one there in a single write of the same
// length: no reader finds half of it.
void Replace(const fs::path& path, const std::string& value) {
  std::ofstream(path.string() + ".made") << List(value);
  fs::rename(path.string() + ".made", path);
}
void Overwrite(const fs::path& path, const std::string& value) {
  const std::string text = List(value);
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
  EXPECT_EQ(0, close(fd));
}

class PrefsWatch : public testing::Test {
 protected:
  PrefsWatch() { Clear(); }

  static void Clear() {
    for (const char* variable : {"XDG_CONFIG_HOME", "XDG_CONFIG_DIRS"}) {
      fs::remove_all(std::getenv(variable));
    }
  }

  static bool Start(ChildProcess& watch, const std::vector<std::string>& options = {},
                    const std::string& domain = "w.d") {
    std::vector<std::string> words = {VLTCTL_PROGRAM, "prefs", "watch", domain};
    words.insert(words.end(), options.begin(), options.end());
    return Begin(watch, words) && IsReady(watch);
  }

  static bool Begin(ChildProcess& child, const std::vector<std::string>& words) {
    ChildOptions options;
    options.arguments = words;
    options.capture = true;
    return child.Start(options);
  }

  static bool IsReady(ChildProcess& watch) {
    return WaitUntil([&] { return watch.Errors().find("watching") != std::string::npos; }, 60s);
  }

  static bool Prints(ChildProcess& watch, const std::string& text) {
    return WaitUntil([&] { return watch.Output().find(text) != std::string::npos; }, 60s);
  }

  const fs::path config = std::getenv("XDG_CONFIG_HOME");
  const fs::path folder = config / "veltrane/preferences";
  const fs::path file = folder / "w.d.plist";
};

TEST_F(PrefsWatch, PrintsAChangeWhereverOnTheWayToTheFileItHappens) {
  const fs::path other = config.parent_path() / "other.plist";
  const struct {
    const char* what;
    std::function<void()> change;
    const char* printed;
  } rows[] = {
      {"no folder yet", [&] { Write("1"); }, "+ n = 1\n"},
      {"replaced", [&] { Replace(file, "2"); }, "- n = 1\n+ n = 2\n"},
      {"written in place", [&] { Overwrite(file, "3"); }, "- n = 2\n+ n = 3\n"},
      {"for another scope", [&] { Write("4", {"--current-host"}); }, "- n = 3\n+ n = 4\n"},
      {"removed", [&] { fs::remove(folder / "ByHost/w.d.plist"); }, "- n = 4\n+ n = 3\n"},
      {"a link takes its place",
       [&] {
         Replace(other, "5");
         fs::create_symlink(other, folder / "link");
         fs::rename(folder / "link", file);
       },
       "- n = 3\n+ n = 5\n"},
      {"where the link leads", [&] { Overwrite(other, "6"); }, "- n = 5\n+ n = 6\n"},
      {"not to be trusted", [&] { chmod(other.c_str(), 0666); }, "- n = 6\n"},
      {"trusted again", [&] { chmod(other.c_str(), 0600); }, "+ n = 6\n"},
      {"a folder on the way goes", [&] { fs::rename(config, config.string() + ".away"); },
       "- n = 6\n"},
      {"and comes", [&] { fs::rename(config.string() + ".away", config); }, "+ n = 6\n"},
      {"for all users, not seen and then seen",
       [&] {
         Write("7", {"--any-user"});
         fs::remove(file);
       },
       "- n = 6\n+ n = 7\n"},
  };
  ChildProcess watch;
  ASSERT_TRUE(Start(watch)) << watch.Errors();
  std::string printed;
  for (const auto& row : rows) {
    row.change();
    printed += row.printed;
    EXPECT_TRUE(WaitUntil([&] { return watch.Output().size() >= printed.size(); }, 60s))
        << row.what;
    ASSERT_EQ(printed, watch.Output()) << row.what;
  }
  EXPECT_NE(std::string::npos, watch.Errors().find("may write it")) << watch.Errors();
  fs::remove(other);
}

TEST_F(PrefsWatch, FindsAChangeWhoseReportTheKernelDropped) {
  Write("1");
  ChildProcess watch;
  ASSERT_TRUE(Start(watch));
  ASSERT_EQ(0, kill(watch.Pid(), SIGSTOP));
  long limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  ASSERT_GT(limit, 0);
  // Each renaming is two reports. The last change gets none.
  const std::string names[] = {folder / "a", folder / "b"};
  std::ofstream(names[0]) << "";
  for (long i = 0; i < limit; i++) {
    ASSERT_EQ(0, std::rename(names[i % 2].c_str(), names[(i + 1) % 2].c_str()));
  }
  Write("2");
  ASSERT_EQ(0, kill(watch.Pid(), SIGCONT));
  EXPECT_TRUE(Prints(watch, "- n = 1\n+ n = 2\n")) << watch.Output();
}

TEST_F(PrefsWatch, OptionsChooseTheFileTheFormAndTheEnd) {
  Write("1");
  ChildProcess shared, json;
  ASSERT_TRUE(Start(shared, {"--any-user", "--count", "1"}));
  ASSERT_TRUE(Start(json, {"--json", "--count", "2"}));
  Write("2", {"--any-user"});
  EXPECT_EQ(0, shared.Wait(60s));
  EXPECT_EQ("+ n = 2\n", shared.Output());
  Write("3");
  EXPECT_TRUE(Prints(json, "\n"));
  EXPECT_EQ(0, Prefs({"delete", "w.d"}).status);
  EXPECT_EQ(0, json.Wait(60s));
  EXPECT_EQ(
      "{\"path\":\"n\",\"beforeType\":\"integer\",\"before\":1,\"afterType\":\"integer\",\"after\":3}\n"
      "{\"path\":\"n\",\"beforeType\":\"integer\",\"before\":3,\"afterType\":\"integer\",\"after\":2}\n",
      json.Output());
  ExpectRuns({"prefs", "watch"}, {{{"w.d", "--count", "0"}, 2, "", "not a number above 0"},
                                  {{}, 2, "", "watch needs DOMAIN"}});
}

TEST_F(PrefsWatch, EndsWithASignalOrWhenNobodyReadsItsOutput) {
  for (const int number : {SIGINT, SIGTERM}) {
    ChildProcess watch;
    ASSERT_TRUE(Start(watch));
    watch.Signal(number);
    EXPECT_EQ(-number, watch.Wait(60s));
  }
  // Nothing changes here.
  const ProgramResult gone = RunProgram(
      {"/bin/sh", "-c", "{ " VLTCTL_PROGRAM " prefs watch w.d; echo status $? >&2; } | true"}, 60s);
  EXPECT_NE(std::string::npos, gone.errors.find("nobody reads the output\nstatus 1\n"))
      << gone.errors;
  ChildProcess full;
  ASSERT_TRUE(Begin(full, {"/bin/sh", "-c", VLTCTL_PROGRAM " prefs watch w.d > /dev/full"}));
  ASSERT_TRUE(IsReady(full));
  Write("1");
  EXPECT_EQ(1, full.Wait(60s));
  EXPECT_NE(std::string::npos, full.Errors().find("standard output: No space left on device"));
}

}  // namespace
