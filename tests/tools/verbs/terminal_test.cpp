#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <sstream>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/tools/verbs/verb_runner.h"
#include "tools/table.h"
#include "tools/terminal.h"
#include "tools/verbs/verb.h"

// What the tool prints on a terminal.

namespace {

// A terminal with a program's standard output and error on it.
class Terminal {
 public:
  explicit Terminal(unsigned short columns) : master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_TRUE(grantpt(master) == 0 && unlockpt(master) == 0);
    const winsize size = {24, columns, 0, 0};
    EXPECT_EQ(0, ioctl(master, TIOCSWINSZ, &size));
  }
  ~Terminal() { close(master); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Everything that the tool prints until it ends.
  std::string Run(const std::vector<std::string>& words,
                  std::map<std::string, std::string> environment) {
    const int slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ChildProcess child;
    ChildOptions options;
    options.arguments = {VLTCTL_PROGRAM};
    options.arguments.insert(options.arguments.end(), words.begin(), words.end());
    options.environment = std::move(environment);
    options.descriptors = {{STDOUT_FILENO, slave}, {STDERR_FILENO, slave}};
    EXPECT_TRUE(child.Start(options));
    close(slave);
    // Reading fails when the last process has closed its side.
    std::string text;
    char part[4096];
    for (ssize_t size = 0; (size = read(master, part, sizeof part)) > 0;) {
      text.append(part, static_cast<size_t>(size));
    }
    EXPECT_EQ(0, child.Wait(60s));
    return text;
  }

 private:
  const int master;
};

TEST(Terminal, HelpHasAtMostEightyColumnsAndColoursOnlyWhereTheyAreWanted) {
  OpenDescriptorCheck noLeaks;
  const struct {
    std::map<std::string, std::string> environment;
    bool isColoured;
  } rows[] = {{{{"TERM", "xterm"}, {"NO_COLOR", ""}}, true},
              {{{"TERM", "xterm"}, {"NO_COLOR", "1"}}, false},
              {{{"TERM", "dumb"}, {"NO_COLOR", ""}}, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.environment));
    for (const char* const verb : {"send", "help"}) {
      Terminal terminal(80);
      const std::string text = terminal.Run({"help", verb}, row.environment);
      EXPECT_EQ(row.isColoured, text.find('\033') != std::string::npos) << text;
      EXPECT_NE(std::string::npos, text.find("Exit status:")) << text;
      std::istringstream lines(text);
      for (std::string line; std::getline(lines, line);) {
        if (line.ends_with('\r')) line.pop_back();
        EXPECT_LE(ColumnsOf(line), 80u) << line;
      }
    }
  }
  EXPECT_EQ(std::string::npos,
            RunVerb({"help", "send"}, {}, {{"TERM", "xterm"}}).output.find('\033'));
}

TEST(Terminal, TablesShortenPathsToItsWidth) {
  OpenDescriptorCheck noLeaks;
  const std::string whole = "/" + std::string(150, 'p') + "/program";
  for (const size_t columns : {size_t{20}, size_t{60}, size_t{158}}) {
    const std::string shorter = ShortenedPath(whole, columns);
    EXPECT_EQ(columns, shorter.size()) << shorter;
    EXPECT_TRUE(shorter.starts_with("/p") && shorter.ends_with("/program")) << shorter;
  }
  EXPECT_EQ(whole, ShortenedPath(whole, whole.size()));

  const std::string port = UniquePortName();
  ChildProcess server;
  ChildOptions options;
  options.arguments = {VLTCTL_PROGRAM, "serve", port};
  ASSERT_TRUE(server.Start(options));
  ASSERT_TRUE(WaitForPort(port, 60s));
  const std::string program = VLTCTL_PROGRAM;
  const std::map<std::string, std::string> environment = {{"TERM", "xterm"}, {"NO_COLOR", "1"}};
  const std::string wide = Terminal(1000).Run({"ports"}, environment);
  EXPECT_TRUE(wide.starts_with("NAME ")) << wide;
  EXPECT_NE(std::string::npos, wide.find(program)) << wide;
  const size_t columns = wide.rfind(program) + program.size() - wide.find('\n') - 1;
  Terminal narrow(static_cast<unsigned short>(columns - 1));
  const std::string cut = narrow.Run({"ports"}, environment);
  EXPECT_EQ(std::string::npos, cut.find(program)) << cut;
  EXPECT_NE(std::string::npos, cut.find("...")) << cut;
  EXPECT_TRUE(cut.ends_with("/vltctl\r\n")) << cut;
  // Not for programs that read it.
  EXPECT_NE(std::string::npos, RunVerb({"ports"}, {}).output.find(program));
  EXPECT_EQ(0, RunVerb({"quit"}, {port}).status);
  EXPECT_EQ(0, server.Wait(60s));
}

TEST(Terminal, HelpAndJsonMayBeAskedForInEveryUsualWay) {
  const std::string ofSend = RunVerb({"help", "send"}, {}).output;
  EXPECT_NE(std::string::npos, ofSend.find("-t, --timeout SECONDS"));
  for (const std::vector<std::string>& words : {std::vector<std::string>{"send", "-h"},
                                                {"send", "--help"},
                                                {"--help", "send"},
                                                {"-h", "send"},
                                                {"send", "x", "--nonsense", "-h"}}) {
    const ProgramResult result = RunVerb({}, words);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(ofSend, result.output) << testing::PrintToString(words);
  }
  const std::string nobody = "test.nobody";
  const std::string gone =
      "{\"port\":\"" + nobody + "\",\"outcome\":\"notRunning\",\"error\":null}\n";
  ExpectRuns({}, {{{"--json", "quit", nobody}, 0, gone, "not running"},
                  {{"quit", nobody, "--json"}, 0, gone, "not running"},
                  {{"quit", "-t", "3", "--json", nobody}, 0, gone, "not running"},
                  {{"quit", "-t3", nobody}, 0, "", "not running"},
                  {{"quit", nobody, "-t"}, 2, "", "-t needs a value: SECONDS"},
                  {{"quit", nobody, "-t", "-h"}, 2, "", "\"-h\" is not a time"},
                  {{"--json"}, 2, "", "vltctl ports"},
                  {{"--json", "prots"}, 2, "", "did you mean ports?"}});
  for (const Verb& verb : AllVerbs()) {
    const std::string name = verb.name;
    const std::string help = RunVerb({"help", name}, {}).output;
    const size_t example = help.find("\nExample");
    ASSERT_NE(std::string::npos, example) << name;
    EXPECT_NE(std::string::npos, help.find("vltctl " + name, example)) << name;
  }
}

}  // namespace
