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

std::filesystem::path Journal() {
  return std::string(std::getenv("XDG_STATE_HOME")) + "/veltrane/undo/writes.plist";
}

class PrefsVerb : public testing::Test {
 protected:
  PrefsVerb() {
    for (const char* variable : {"XDG_CONFIG_HOME", "XDG_CONFIG_DIRS"}) {
      std::filesystem::remove_all(Folder(variable));
    }
    std::filesystem::remove_all(Journal().parent_path());
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

TEST_F(PrefsVerb, APathNamesAValueInsideAKeyAndAKeyThatLooksLikeOneGetsAWord) {
  const std::string list = "{\"a\":{\"b\":[1,2]},\"a.b\":7}";
  const std::vector<VerbRun> runs = {
      {{"write", "p.d", "a", "{\"b\":[1,2]}"}, 0, "", ""},
      {{"read", "p.d", "a.b"}, 3, "", "--path a.b reads what is inside"},
      {{"write", "p.d", "a.b", "7"}, 0, "", "--path a.b changes what is inside"},
      {{"write", "p.d", "a.b", "7"}, 0, "", ""},  // it is a key by now
      {{"read", "p.d", "a.b"}, 0, "7\n", ""},
      {{"read", "p.d", "--json"}, 0, list + "\n", ""},
      {{"read", "p.d", "--path", "a.b.1"}, 0, "2\n", ""},
      {{"read", "p.d", "--path", "a\\.b"}, 0, "7\n", ""},
      {{"read", "p.d", "--path", "a.b.2"}, 3, "", "b is an array of 2 and has no index \"2\""},
      {{"write", "p.d", "--path", "a.b.1", "x"}, 2, "", "\"x\" is not an integer"},
      {{"write", "p.d", "--path", "a.b.1", "20"}, 0, "", ""},
      {{"write", "p.d", "--path", "a.c.x", "1"}, 3, "", "a has no key \"c\""},
      {{"write", "p.d", "--path", "z.c", "1"}, 3, "", "has no key \"z\""},
      {{"write", "p.d", "--path", "n", "1"}, 0, "", ""},
      {{"delete", "p.d", "--path", "a.b.0"}, 0, "", ""},
      {{"delete", "p.d", "--path", "a.b.9"}, 3, "", "has no index \"9\""},
      {{"read", "p.d", "--json"}, 0, "{\"a\":{\"b\":[20]},\"a.b\":7,\"n\":1}\n", ""},
      {{"where", "p.d", "--path", "a.b.0"}, 0, Folder("XDG_CONFIG_HOME") + "p.d.plist\n", ""},
      {{"where", "p.d", "--path", "a.b.1"}, 3, "", "p.d.plist: a.b is an array of 1"},
      {{"read", "p.d", "a", "--path", "a"}, 2, "", "--path takes the place of KEY"},
      {{"read", "p.d", "--path", ""}, 2, "", "is not a key path"},
      {{"export", "p.d", "--path", "a"}, 2, "", "export does not take --path"},
  };
  ExpectRuns({"prefs"}, runs);
}

TEST_F(PrefsVerb, EffectiveValuesAreThoseOfTheStrongestFilesAndWhereNamesTheWinner) {
  const std::vector<VerbRun> runs = {
      {{"read", "e.d", "--effective"}, 3, "", "\"e.d\" has no preferences"},
      {{"write", "--any-user", "e.d", "n", "1"}, 0, "", ""},
      {{"write", "--any-user", "e.d", "all", "1"}, 0, "", ""},
      {{"write", "e.d", "n", "2"}, 0, "", ""},
      {{"write", "e.d", "mine", "2"}, 0, "", ""},
      {{"write", "kCFPreferencesAnyApplication", "any", "3"}, 0, "", ""},
      {{"write", "--current-host", "e.d", "n", "4"}, 0, "", ""},
      {{"read", "e.d", "--effective", "--json"},
       0,
       "{\"n\":4,\"mine\":2,\"any\":3,\"all\":1}\n",
       ""},
      {{"read", "e.d", "n", "--effective"}, 0, "4\n", ""},
      {{"read", "e.d", "all", "--effective"}, 0, "1\n", ""},
      {{"read", "e.d", "all"}, 3, "", "has no key \"all\""},
      {{"read", "e.d", "--effective", "--any-user"}, 2, "", "--effective looks at all files"},
      {{"read", "e.x"}, 3, "", "did you mean e.d?"},
      {{"domains"},
       0,
       "e.d                           user, this host; user; all users\n"
       "kCFPreferencesAnyApplication  user\n",
       ""},
  };
  ExpectRuns({"prefs"}, runs);
  const std::string where = Prefs({"where", "e.d", "n", "--json"}).output;
  const size_t winner = where.find("\"winner\":true");
  EXPECT_LT(where.find("ByHost/e.d.plist"), winner) << where;
  EXPECT_EQ(where.npos, where.find("\"winner\":true", winner + 1)) << where;
  EXPECT_LT(winner, where.find("\n")) << where;
  // A domain whose folder is none is reported, and the others are listed all the same.
  const std::string folder = Folder("XDG_CONFIG_DIRS");
  std::filesystem::remove_all(folder);
  std::ofstream(folder.substr(0, folder.size() - 1)) << "";
  const ProgramResult domains = Prefs({"domains", "--json"});
  EXPECT_EQ(5, domains.status);
  EXPECT_NE(std::string::npos, domains.output.find("{\"domain\":\"e.d\",\"files\":[\""))
      << domains.output;
  EXPECT_NE(std::string::npos, domains.errors.find("Not a directory (20, ENOTDIR)"));
  std::filesystem::remove(folder.substr(0, folder.size() - 1));
}

TEST_F(PrefsVerb, AValueThatIsMeantAsAContainerNeverBecomesAString) {
  const std::vector<VerbRun> runs = {
      {{"write", "v.d", "s", "text"}, 0, "", ""},
      {{"write", "v.d", "s", "[640, 480"}, 2, "", "expected \",\" or \"]\""},
      {{"write", "v.d", "s", " {\"a\":1}"}, 2, "", "would replace a string by dict"},
      {{"write", "v.d", "s", "<dict><key>a</key>"}, 2, "", "--type string"},
      {{"write", "v.d", "new", "{\"a\":"}, 2, "", "expected a value"},
      {{"write", "v.d", "new", "<array>"}, 2, "", "not a property list"},
      {{"write", "v.d", "s", "(none)"}, 0, "", ""},
      {{"read", "v.d", "--json"}, 0, "{\"s\":\"(none)\"}\n", ""},
      {{"write", "v.d", "s", "{\"a\":", "--type", "string"}, 0, "", ""},
      {{"read", "v.d", "s"}, 0, "{\"a\":\n", ""},
      {{"write", "v.d", "s", "[1]", "--type", "array"}, 0, "", ""},
      {{"read", "v.d", "s", "--json"}, 0, "[1]\n", ""},
  };
  ExpectRuns({"prefs"}, runs);
}

TEST_F(PrefsVerb, ExportKeepsEverythingOrSaysWhatItCuts) {
  const std::string file = Folder("HOME") + "../../export.plist";
  std::filesystem::create_directories(Folder("HOME"));
  const std::string when = "2005-03-01T12:34:56.125Z", nul = "\"a\\u0000b\"";
  const std::vector<VerbRun> dates = {
      {{"write", "x.d", "when", when, "--type", "date"}, 0, "", ""},
      {{"export", "x.d", file}, 0, "", "binary form, because XML has no fractions of seconds"},
      {{"import", "y.d", file}, 0, "", ""},
      {{"read", "y.d", "when"}, 0, when + "\n", ""},
      {{"export", "x.d", file, "--format", "xml"}, 0, "", "no fractions of seconds (1 date)"},
      {{"export", "x.d", "--format", "json"}, 0, "{\"when\":\"" + when + "\"}\n", "1 date"},
      {{"export", "x.d", "--format", "toml"}, 2, "", "unknown format \"toml\""},
      {{"export", "x.d", file, "--format", "binary"}, 0, "", ""},
      {{"delete", "x.d", "when"}, 0, "", ""},
      {{"write", "x.d", "nul", nul}, 0, "", ""},
      {{"export", "x.d", file}, 0, "", "binary form, because XML cannot hold"},
      {{"export", "x.d", file, "--format", "xml"}, 7, "", "--format binary keeps everything"},
      {{"export", "x.d", "--json"}, 0, "{\"nul\":" + nul + "}\n", ""},
      {{"export", "none.d"}, 3, "", "\"none.d\" has no preferences"},
  };
  ExpectRuns({"prefs"}, dates);
  EXPECT_EQ(0u, ReadFile(file).find("bplist00"));
}

TEST_F(PrefsVerb, UndoTakesBackTheLastWriteIfTheValueIsStillThat) {
  const std::string path = Folder("XDG_CONFIG_HOME") + "u.d.plist";
  const std::vector<VerbRun> runs = {
      {{"undo"}, 3, "", "no change of vltctl is left"},
      {{"write", "u.d", "n", "1"}, 0, "", ""},
      {{"write", "u.d", "n", "1.0", "--type", "real"}, 0, "", ""},
      {{"write", "u.d", "l", "[1,2]"}, 0, "", ""},
      {{"write", "u.d", "l", "[1,2]"}, 0, "", ""},  // changes nothing
      {{"write", "--any-user", "u.d", "n", "5"}, 0, "", ""},
      {{"write", "o.d", "n", "9"}, 0, "", ""},
      {{"delete", "u.d"}, 0, "", ""},
      {{"write", "u.d", "n", "[", "--type", "integer"}, 2, "", "not an integer"},  // not one
      {{"undo", "none.d"}, 3, "", "\"none.d\": no change"},
      {{"undo", "u.d", "--any-user"}, 0, "- n = 5\n", ""},  // not the last one
      {{"undo", "u.d"}, 0, "+ l = [...] (2)\n+ n = 1.0\n", ""},
      {{"read", "u.d", "--json"}, 0, "{\"l\":[1,2],\"n\":1.0}\n", ""},
      {{"undo"}, 0, "o.d:\n- n = 9\n", ""},
      {{"write", "u.d", "l", "[1,3]"}, 0, "", ""},
      {{"undo", "--json"},
       0,
       "{\"domain\":\"u.d\",\"outcome\":\"undone\",\"problem\":null,\"file\":\"" + path +
           "\",\"keys\":[\"l\"]}\n",
       ""},
      {{"undo", "u.d"}, 0, "- l = [...] (2)\n", ""},
      {{"delete", "none.d"}, 0, "", ""},  // leaves neither a file nor a note
  };
  ExpectRuns({"prefs"}, runs);
  EXPECT_EQ("{\"n\":1.0}\n", Prefs({"read", "u.d", "--json"}).output);
  EXPECT_FALSE(std::filesystem::exists(Folder("XDG_CONFIG_HOME") + ".none.d.plist.lock"));
  // 1 is not 1.0: somebody else wrote it. All keys of a change go back together, or none.
  const std::string others = "<plist><dict><key>n</key><integer>1</integer></dict></plist>";
  std::ofstream(path) << others;
  ExpectRuns({"prefs"}, {{{"undo"}, 5, "", "u.d: not taken back: n is 1, vltctl wrote 1.0"}});
  EXPECT_EQ(others, ReadFile(path));
  EXPECT_NE(std::string::npos, Prefs({"undo", "--json"}).output.find("\"outcome\":\"changed\""));
  std::ofstream(path) << "<plist><dict/></plist>";
  ExpectRuns({"prefs"}, {{{"undo"}, 5, "", "n is no value, vltctl wrote 1.0"}});
  // Another user's configuration, as after su, has had none of these changes.
  const ScratchFolder other;
  EXPECT_EQ(3, RunVerb({"prefs", "undo"}, {}, {{"XDG_CONFIG_HOME", other.Path()}}).status);
}

TEST_F(PrefsVerb, UndoFindsEveryWriteOfProcessesThatWriteAtOnce) {
  constexpr int kWriters = 8;
  // Of one key the journal has to have the order of the commits and what each of them replaced.
  for (const bool isOneKey : {true, false}) {
    ChildProcess writers[kWriters];
    for (int i = 0; i < kWriters; i++) {
      const std::string number = std::to_string(i);
      ChildOptions options;
      options.arguments = TestLauncher();
      for (const std::string& word :
           {std::string(VLTCTL_PROGRAM), std::string("prefs"), std::string("write"),
            std::string("w.d"), isOneKey ? "n" : "n" + number, number}) {
        options.arguments.push_back(word);
      }
      options.capture = true;
      ASSERT_TRUE(writers[i].Start(options));
    }
    for (ChildProcess& writer : writers) {
      EXPECT_EQ(0, writer.Wait(60s));
      EXPECT_EQ("", writer.Errors());
    }
    for (int i = 0; i < kWriters; i++) {
      const ProgramResult undo = Prefs({"undo"});
      EXPECT_EQ(0, undo.status) << undo.errors;
    }
    EXPECT_EQ("{}\n", Prefs({"read", "w.d", "--json"}).output);
    EXPECT_EQ(3, Prefs({"undo", "w.d"}).status);
  }
}

TEST_F(PrefsVerb, AJournalThatCannotBeUsedCostsTheUndoAndNotTheWrite) {
  const ProgramResult write =
      RunVerb({"prefs", "write", "j.d", "n", "1"}, {}, {{"XDG_STATE_HOME", "/proc"}});
  EXPECT_EQ(0, write.status);
  EXPECT_NE(std::string::npos, write.errors.find("written, but undo will not know it: /proc"))
      << write.errors;
  EXPECT_EQ("1\n", Prefs({"read", "j.d", "n"}).output);
  ExpectRuns({"prefs"}, {{{"write", "j.d", "n", "2"}, 0, "", ""}});
  EXPECT_EQ(0700u, ModeOf(Journal().parent_path()));
  std::ofstream(Journal()) << "no list {";
  const std::vector<VerbRun> runs = {
      {{"undo"}, 1, "", "writes.plist"},
      {{"write", "j.d", "n", "3"}, 0, "", ""},  // it begins another one
      {{"undo"}, 0, "j.d:\n- n = 3\n+ n = 2\n", ""},
      {{"undo"}, 3, "", "no change"},
  };
  ExpectRuns({"prefs"}, runs);
  // It keeps the last 64 changes.
  const std::string change =
      "<dict><key>domain</key><string>j.d</string><key>changes</key><array><dict>"
      "<key>key</key><string>old</string></dict></array></dict>";
  std::string list = "<plist><array>";
  for (int i = 0; i < 64; i++) list += change;
  std::ofstream(Journal()) << list + "</array></plist>";
  ExpectRuns({"prefs"}, {{{"write", "j.d", "n", "4"}, 0, "", ""}});
  const std::string last = "63.changes.0.after", beyond = "64";
  ExpectRuns({"plist", "extract"}, {{{Journal().string(), last}, 0, "4\n", ""},
                                    {{Journal().string(), beyond}, 3, "", "an array of 64"}});
}

}  // namespace
