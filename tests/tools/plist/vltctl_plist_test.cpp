#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/tools/verbs/verb_runner.h"

// vltctl plist as people and scripts meet it.

namespace {

ProgramResult Plist(const std::vector<std::string>& words) { return RunVerb({"plist"}, words); }

constexpr char kList[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple Computer//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n"
    "\t<key>big</key>\n\t<integer>18446744073709551615</integer>\n"
    "\t<key>list</key>\n\t<array>\n\t\t<real>0.10000000000000001</real>\n\t\t<true/>\n\t</array>\n"
    "\t<key>name</key>\n\t<string>a &amp; \xC3\xA9</string>\n"
    "\t<key>raw</key>\n\t<data>\n\tAAEC/w==\n\t</data>\n"
    "\t<key>when</key>\n\t<date>2005-03-01T12:34:56Z</date>\n"
    "</dict>\n</plist>\n";

}  // namespace

TEST(VltctlPlist, ConvertingToBinaryAndBackGivesTheSameFile) {
  const OpenDescriptorCheck noLeaks;
  const ScratchFolder folder;
  const std::string xml = folder.File("a.plist", kList);
  const std::string binary = folder.Path("b.plist"), again = folder.Path("c.plist");
  EXPECT_EQ(0, Plist({"convert", "binary", xml, "-o", binary}).status);
  EXPECT_EQ(0u, ReadFile(binary).find("bplist00"));
  EXPECT_EQ(0, Plist({"convert", "xml", binary, "-o", again}).status);
  EXPECT_EQ(kList, ReadFile(again));
  EXPECT_EQ(kList, Plist({"convert", "xml", binary}).output);
  const char* json =
      "{\"big\":\"18446744073709551615\",\"list\":[0.1,true],\"name\":\"a & \xC3\xA9\","
      "\"raw\":\"AAEC/w==\",\"when\":\"2005-03-01T12:34:56Z\"}\n";
  const std::vector<VerbRun> runs = {
      {{"diff", xml, binary}, 0, "", ""},
      {{"convert", "json", binary}, 0, json, "strings in it: 1 date, 1 data value, 1 number\n"},
      {{"print", "--json", xml}, 0, json, ""},
      {{"print", "--json", folder.File("a.json", json)}, 0, json, ""},
  };
  ExpectRuns({"plist"}, runs);
}

TEST(VltctlPlist, LintReportsThePositionOfEachFaultAndFailsIfAnyFileHasOne) {
  const ScratchFolder folder;
  const std::string good = folder.File("good", kList);
  const std::string bad =
      folder.File("bad", "<plist>\n<dict>\n  <string>x</string>\n</dict></plist>");
  const std::string cut = folder.File("cut", "bplist00\x01");
  const std::string missing = folder.Path("missing"), json = folder.File("json", "{\"a\":1}");
  // `model`: how they go on after the file's name.
  const std::tuple<std::string, int, std::string, std::string, bool, bool> rows[] = {
      {good, 0, ": ok (XML)\n",
       "\"ok\":true,\"format\":\"XML\",\"line\":null,\"column\":null,\"offset\":null,", false,
       false},
      {bad, 7, ":3:3: ", "\"ok\":false,\"format\":\"XML\",\"line\":3,\"column\":3,\"offset\":17,",
       true, false},
      {cut, 7, ": byte 9: ",
       "\"ok\":false,\"format\":\"binary\",\"line\":null,\"column\":null,\"offset\":9,", true,
       true},
      {missing, 3, ": cannot be read: No such file or directory (2, ENOENT)\n",
       "\"ok\":false,\"format\":null,\"line\":null,\"column\":null,\"offset\":null,", true, false},
      {json, 7, ":1:5: ", "\"ok\":false,\"format\":\"text\",\"line\":1,\"column\":5,\"offset\":4,",
       true, true},
  };
  for (const auto& [file, status, reported, model, hasProblem, hasHint] : rows) {
    // The file is the first and the last of several: neither hides its fault.
    for (const auto& words : {std::vector<std::string>{file, good}, {good, file}}) {
      std::vector<std::string> all = {"lint"};
      all.insert(all.end(), words.begin(), words.end());
      const ProgramResult result = Plist(all);
      EXPECT_EQ(status, result.status) << file;
      EXPECT_NE(std::string::npos, result.output.find(file + reported)) << result.output;
      EXPECT_NE(std::string::npos, result.output.find(good + ": ok (XML)\n")) << result.output;
    }
    const std::string line = Plist({"lint", "--json", file}).output;
    EXPECT_EQ(0u, line.find("{\"file\":\"" + file + "\"," + model + "\"problem\":")) << line;
    EXPECT_EQ(hasProblem, line.find("\"problem\":null") == std::string::npos) << line;
    EXPECT_EQ(hasHint, line.find("\"hint\":null,") == std::string::npos) << line;
    EXPECT_TRUE(line.ends_with(status == 3 ? "\"errno\":2}\n" : "\"errno\":null}\n")) << line;
  }
}

TEST(VltctlPlist, ReportsTheFaultOfTheFormatWhoseReaderGotFurther) {
  const ScratchFolder folder;
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"print", "{ a = b; ", "line 1, column 10: the file ends too early"},
      {"print", "{ \"a\" = (b }", "line 1, column 12: expected \",\" or \")\" here"},
      {"print", "{\"a\":1", "JSON line 1, column 7: expected \",\" or \"}\""},
      {"print", "[1,", "JSON line 1, column 4: expected a value"},
      {"lint", "{\"a\":1}", ":1:5: expected \"=\" or \";\" here (this is JSON"},
      {"lint", "{\"a\":1", ":1:5: expected \"=\" or \";\" here\n"},
  };
  for (const auto& [verb, text, said] : rows) {
    const ProgramResult result = Plist({verb, folder.File("list", text)});
    EXPECT_EQ(7, result.status) << text;
    const std::string told = result.output + result.errors;
    EXPECT_NE(std::string::npos, told.find(said)) << told;
  }
}

TEST(VltctlPlist, OutputThatCannotBeWrittenIsStatusOneWithItsReason) {
  const ScratchFolder folder;
  const std::string shortFile = folder.File("short", kList);
  // Larger than the buffer of standard output, several times.
  const std::string longFile = folder.File("long", "{\"a\":\"" + std::string(100000, 'x') + "\"}");
  const std::string longList = folder.Path("long.plist");
  EXPECT_EQ(0, Plist({"convert", "xml", longFile, "-o", longList}).status);
  EXPECT_EQ(0, RunVerb({"prefs", "import", "full.test"}, {longFile}).status);
  for (const std::string& words : {"plist print " + shortFile,
                                   "plist print " + longFile,
                                   "plist print --json " + longFile,
                                   "plist extract " + longFile + " a",
                                   "plist convert xml " + shortFile,
                                   "plist convert xml " + longFile,
                                   "plist lint " + shortFile,
                                   "plist remove - list < " + shortFile,
                                   std::string("prefs read full.test"),
                                   std::string("prefs read full.test a --json"),
                                   std::string("prefs export full.test"),
                                   std::string("prefs where full.test"),
                                   std::string("prefs domains"),
                                   std::string("prefs read full.test --effective"),
                                   "plist canonical " + longFile,
                                   "plist merge " + longFile + " " + longFile + " " + shortFile,
                                   std::string("session"),
                                   std::string("ps --json"),
                                   std::string("help"),
                                   std::string("help send")}) {
    SCOPED_TRACE(words);
    const std::string command = VLTCTL_PROGRAM " " + words;
    for (const auto& [target, reason] :
         {std::pair{"/dev/full", "No space left on device"}, {"&-", "Bad file descriptor"}}) {
      const ProgramResult result = RunProgram({"/bin/sh", "-c", command + " >" + target}, 20s);
      EXPECT_EQ(1, result.status);
      EXPECT_EQ(std::string("vltctl: standard output: ") + reason + "\n", result.errors);
    }
  }
  // A result that is no success keeps its own status, and the reason is given all the same.
  const ProgramResult diff =
      RunProgram({"/bin/sh", "-c", VLTCTL_PROGRAM " plist lint " + longFile + " > /dev/full"}, 20s);
  EXPECT_EQ(7, diff.status);
  EXPECT_NE("", diff.errors);
}

TEST(VltctlPlist, RefusesInputThatNeverEnds) {
  for (const char* command : {"lint /dev/zero", "print - < /dev/zero"}) {
    const ProgramResult result =
        RunProgram({"/bin/sh", "-c", std::string(VLTCTL_PROGRAM " plist ") + command}, 60s);
    EXPECT_EQ(7, result.status);
    EXPECT_NE(std::string::npos, (result.output + result.errors).find("more than 256 MiB"));
  }
}

TEST(VltctlPlist, EditingKeepsLinkAndModeAndAFailureKeepsTheFile) {
  const ScratchFolder folder;
  const std::string file = folder.File("a.plist", kList);
  const std::string link = folder.Link("link", "a.plist");
  ASSERT_EQ(0, chmod(file.c_str(), 0640));
  const std::pair<std::vector<std::string>, int> rows[] = {
      {{"set", link, "name", "5"}, 0},
      {{"set", link, "when", "2024-02-29T00:00:00Z"}, 0},
      {{"set", link, "new", "{\"x\":[1.5]}"}, 0},
      {{"insert", link, "list.0", "first"}, 0},
      {{"remove", link, "list.1"}, 0},
      {{"set", link, "raw", "--type", "string", "text"}, 0},
      {{"remove", link, "big"}, 0},
      {{"set", link, "list.1", "maybe"}, 2},  // is a bool
      {{"set", link, "x", "--type", "dict", "[]"}, 2},
      {{"insert", link, "name", "1"}, 3},
      {{"set", folder.Path("missing"), "a", "1"}, 3},
      {{"set", folder.File("bad", "<dict>"), "a", "1"}, 7},
      {{"set", folder.Path("."), "a", "1"}, 1},
      {{"convert", "xml", file, "-o", folder.Path("no/such/folder")}, 3},
      {{"convert", "xml", file, "-o", folder.Link("loop", "loop")}, 1},
      {{"convert", "xml", file, "-o", folder.Path("none/")}, 1},
  };
  for (const auto& [words, status] : rows) {
    SCOPED_TRACE(testing::PrintToString(words));
    const ProgramResult result = Plist(words);
    EXPECT_EQ(status, result.status) << result.errors;
    EXPECT_EQ(status != 0, !result.errors.empty()) << result.errors;
  }
  EXPECT_EQ(
      "{\"list\":[\"first\",true],\"name\":\"5\",\"new\":{\"x\":[1.5]},\"raw\":\"text\","
      "\"when\":\"2024-02-29T00:00:00Z\"}\n",
      Plist({"print", "--json", file}).output);
  EXPECT_EQ("5\n", Plist({"extract", file, "name"}).output);
  EXPECT_EQ("[\n  1.5\n]\n", Plist({"extract", file, "new.x"}).output);
  struct stat info = {};
  ASSERT_EQ(0, lstat(link.c_str(), &info));
  EXPECT_TRUE(S_ISLNK(info.st_mode));
  ASSERT_EQ(0, stat(file.c_str(), &info));
  EXPECT_EQ(0640u, info.st_mode & 07777);

  const std::string before = folder.File("before", kList);
  const ProgramResult diff = Plist({"diff", before, file});
  EXPECT_EQ(1, diff.status);
  EXPECT_NE(std::string::npos, diff.output.find("- list.0 = 0.1\n+ list.0 = \"first\"\n"))
      << diff.output;
  // A key takes no more than its line, and does nothing to the terminal.
  const std::string odd = folder.File("odd", "{\"a\\n+ b\\u001b\":1}");
  EXPECT_EQ("- a\\n+ b\\x1b = 1\n", Plist({"diff", odd, folder.File("none", "{}")}).output);
}

TEST(VltctlPlist, ReadsStandardInputAndWritesThroughLinksToOpenFiles) {
  const ScratchFolder folder;
  const std::string file = folder.File("a.plist", kList);
  auto filter = [&](const std::string& words) {
    return RunProgram({"/bin/sh", "-c", "< " + file + " " VLTCTL_PROGRAM " plist " + words}, 20s);
  };
  EXPECT_EQ("true\n", filter("extract - list.1").output);
  EXPECT_EQ(kList, filter("convert binary - -o - | " VLTCTL_PROGRAM " plist convert xml -").output);
  EXPECT_EQ("{\"list\":[0.1,true]}\n",
            filter("remove - big | " VLTCTL_PROGRAM " plist remove - name | " VLTCTL_PROGRAM
                   " plist remove - raw | " VLTCTL_PROGRAM " plist remove - when | " VLTCTL_PROGRAM
                   " plist print --json -")
                .output);
  EXPECT_EQ(kList, ReadFile(file));
  // Links to what is open are written to, and nothing takes the place of what they lead to.
  EXPECT_EQ(kList, filter("convert xml - -o /dev/stdout | cat").output);
  const std::string out = folder.File("out", "kept\n");
  const ProgramResult through =
      filter("convert json - -o /dev/fd/3 3>> " + out + " && echo more >> " + out);
  EXPECT_EQ(0u, through.errors.find("vltctl: plist: standard input: JSON has no such values"));
  EXPECT_EQ("more\n", ReadFile(out).substr(ReadFile(out).find('\n') + 1));
}

TEST(VltctlPlist, MergeWritesTheChangesOfBothSidesOrListsConflicts) {
  const ScratchFolder folder;
  const std::string base = folder.File("base", "{\"a\":1,\"b\":2}");
  const std::string ours = folder.File("ours", "{\"a\":3,\"b\":2}");
  const std::string theirs = folder.File("theirs", "{\"a\":1,\"b\":4}");
  const std::string other = folder.File("other", "{\"a\":5,\"b\":4}");
  const std::string out = folder.Path("out"), binary = folder.Path("binary");
  const std::string conflict =
      "{\"path\":\"a\",\"baseType\":\"integer\",\"base\":1,\"oursType\":\"integer\",\"ours\":3,"
      "\"theirsType\":\"integer\",\"theirs\":5}\n";
  const std::vector<VerbRun> runs = {
      {{"merge", base, ours, theirs, "-o", out}, 0, "", ""},
      {{"print", "--json", out}, 0, "{\"a\":3,\"b\":4}\n", ""},
      {{"merge", base, ours, other, "-o", out},
       1,
       "base   a = 1\nours   a = 3\ntheirs a = 5\n",
       "nothing is written: both sides changed 1 value"},
      {{"print", "--json", out}, 0, "{\"a\":3,\"b\":4}\n", ""},
      {{"merge", base, ours, other, "-o", out, "--prefer", "theirs"}, 0, "", "theirs is taken"},
      {{"print", "--json", out}, 0, "{\"a\":5,\"b\":4}\n", ""},
      {{"merge", "--json", base, ours, other, "-o", out}, 1, conflict, "nothing is written"},
      {{"merge", "--json", base, ours, other}, 2, "", "--json needs -o OUT"},
      {{"merge", base, ours, other, "--prefer", "mine"}, 2, "", "neither ours nor theirs"},
      {{"merge", base, ours}, 2, "", "usage: vltctl plist merge BASE OURS THEIRS"},
      {{"merge", base, ours, folder.Path("none")}, 3, "", "none: cannot be read: No such file"},
      {{"merge", base, folder.File("bad", "{"), theirs}, 7, "", "bad: "},
      {{"convert", "binary", ours, "-o", binary}, 0, "", ""},
      {{"merge", base, binary, theirs, "-o", out}, 0, "", ""},
      {{"merge", base, ours, theirs, "-o", folder.Path("no/where")}, 3, "", "cannot be written"},
  };
  ExpectRuns({"plist"}, runs);
  EXPECT_EQ(0u, ReadFile(out).find("bplist00"));
  const std::string written = Plist({"merge", "--json", base, ours, theirs, "-o", out}).output;
  EXPECT_EQ(0u, written.find("{\"outcome\":\"merged\",\"conflicts\":0,\"to\":\"XML\",\"out\":"))
      << written;
}

TEST(VltctlPlist, EqualListsHaveOneCanonicalFormAndOthersHaveAnother) {
  const ScratchFolder folder;
  const std::string first = folder.File("a", "{\"b\":[1,{\"y\":1,\"x\":2}],\"a\":\"t\"}");
  const std::string same = folder.File("b", "{\"a\":\"t\",\"b\":[1,{\"x\":2,\"y\":1}]}");
  const std::string other = folder.File("c", "{\"a\":\"t\",\"b\":[1,{\"x\":2.0,\"y\":1}]}");
  const std::string binary = folder.Path("d"), xml = folder.Path("e");
  EXPECT_EQ(0, Plist({"convert", "binary", first, "-o", binary}).status);
  const std::string canonical = Plist({"canonical", first}).output;
  EXPECT_EQ(0u, canonical.find("<?xml"));
  EXPECT_EQ(canonical, Plist({"canonical", same}).output);
  EXPECT_EQ(canonical, Plist({"canonical", binary}).output);
  EXPECT_NE(canonical, Plist({"canonical", other}).output);
  // XML would make one of these.
  std::string forms[2];
  for (std::string& form : forms) {
    const std::string when = &form == forms ? "2005-03-01T12:34:56.5Z" : "2005-03-01T12:34:56.25Z";
    const std::string made = folder.File("f", ReadFile(binary));
    EXPECT_EQ(0, Plist({"set", made, "when", when, "--type", "date"}).status);
    EXPECT_EQ(0, Plist({"canonical", made, "-o", xml}).status);
    form = ReadFile(xml);
    EXPECT_EQ(0u, form.find("bplist00"));
    EXPECT_EQ(when + "\n", Plist({"extract", xml, "when"}).output);
    const ProgramResult diff = Plist({"diff", binary, xml});
    EXPECT_EQ("+ when = " + when + "\n", diff.output);
    const ProgramResult cut = Plist({"convert", "xml", xml});
    EXPECT_EQ(0, cut.status);
    EXPECT_NE(std::string::npos, cut.errors.find("XML has no fractions of seconds (1 date)"));
  }
  EXPECT_NE(forms[0], forms[1]);
}

TEST(VltctlPlist, WritingRemovesWhatAKilledProcessLeft) {
  const ScratchFolder folder;
  const std::string file = folder.File("a.plist", kList);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"set", file, "name", "5"}, {"convert", "xml", file, "-o", file}}) {
    folder.File(".vlt-abcdef/new", "half");
    EXPECT_EQ(0, Plist(words).status);
    EXPECT_EQ(1u, EntriesOf(folder.Path()));
  }
}
