#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/table.h"
#include "tools/terminal.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"
#include "util/notice_post.h"

// Tries the installation in a session of its own: other processes of this program are the servers
// and clients. Nothing of the user's is touched.

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kStepLimit = std::chrono::seconds(8);
constexpr char kEcho[] = "selftest.echo";
constexpr char kLaunched[] = "selftest.launched";

struct Result {
  int status = -1;   // exit status; -1 if it was ended by a signal or did not end in time
  std::string text;  // standard output and error
};

std::string OwnProgram() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).string();
}

// A process of this program. It ends with the object at the latest.
class Child {
 public:
  explicit Child(std::vector<std::string> words) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    output = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    const std::string program = OwnProgram();
    words.insert(words.begin(), "vltctl");
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments.data(), environ) != 0) {
      pid = 0;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
  }
  ~Child() {
    Kill();
    Reap();
    if (output >= 0) close(output);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void Kill() {
    if (pid > 0) kill(pid, SIGKILL);
  }

  // Reads until the process has closed its output, and waits for it.
  Result Finish() {
    Result result;
    const auto end = Clock::now() + kStepLimit;
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
      pollfd entry = {output, POLLIN, 0};
      const int ready = left > 0 ? poll(&entry, 1, static_cast<int>(left)) : 0;
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) return Kill(), result;
      char buffer[4096];
      const ssize_t size = read(output, buffer, sizeof buffer);
      if (size < 0 && errno == EINTR) continue;
      if (size <= 0) break;
      result.text.append(buffer, static_cast<size_t>(size));
    }
    const int status = Reap();
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
  }

 private:
  int Reap() {
    int status = -1;
    while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    pid = 0;
    return status;
  }

  pid_t pid = 0;
  int output = -1;
};

Result Run(const std::vector<std::string>& words) { return Child(words).Finish(); }

// Runs the command and returns a message about its fault; "" if it ended with the status and
// printed the text.
std::string Expect(const std::vector<std::string>& words, int status,
                   const std::string& text = "") {
  const Result result = Run(words);
  if (result.status == status && result.text.find(text) != std::string::npos) return "";
  std::string command = "vltctl";
  for (const std::string& word : words) command += " " + word;
  return command + ": exit status " + std::to_string(result.status) + ", " + Quoted(result.text);
}

// The first problem of several runs.
struct WordsAndEnd {
  std::vector<std::string> words;
  int status;
  std::string text = "";
};
std::string ExpectAll(const std::vector<WordsAndEnd>& runs) {
  for (const WordsAndEnd& run : runs) {
    std::string problem = Expect(run.words, run.status, run.text);
    if (!problem.empty()) return problem;
  }
  return "";
}

// A folder of its own with all that the environment names, removed at the end.
class PrivateSession {
 public:
  PrivateSession() {
    const char* const parent = std::getenv("TMPDIR");
    std::string name =
        std::string(parent != nullptr && parent[0] == '/' ? parent : "/tmp") + "/vltctl-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      problem = name + ": " + std::strerror(errno);
      return;
    }
    folder = name;
    const char* const dataFolders = std::getenv("XDG_DATA_DIRS");
    installed = dataFolders != nullptr ? dataFolders : "";
    const std::pair<const char*, const char*> variables[] = {
        {"XDG_RUNTIME_DIR", "run"},  {"XDG_DATA_HOME", "data"},  {"XDG_CONFIG_HOME", "config"},
        {"XDG_STATE_HOME", "state"}, {"XDG_CONFIG_DIRS", "etc"}, {"HOME", "home"},
        {"VLTHOST_NOTICES", ""},     {"VLTHOST_LOG", ""}};
    for (const auto& [variable, place] : variables) {
      const std::string path = Path(place[0] != 0 ? place : variable);
      if (place[0] != 0) mkdir(path.c_str(), 0700);
      setenv(variable, path.c_str(), 1);
    }
  }
  ~PrivateSession() {
    std::error_code error;
    if (!folder.empty()) std::filesystem::remove_all(folder, error);
  }
  PrivateSession(const PrivateSession&) = delete;
  PrivateSession& operator=(const PrivateSession&) = delete;

  std::string Path(const std::string& name) const { return folder + "/" + name; }

  std::string problem;  // why it could not be made; else ""
  std::string installed;

 private:
  std::string folder;
};

struct Step {
  const char* name;
  std::string (*run)(const PrivateSession& session);  // what is wrong; "" if nothing
};

std::string TrySession(const PrivateSession& session) {
  return Expect({"session", "--json"}, kExitOk, session.Path("run/veltrane"));
}

std::string TryClaim(const PrivateSession&) {
  Child server({"serve", kEcho});
  return ExpectAll({{{"wait", kEcho}, kExitOk},
                    {{"serve", kEcho}, kExitRefused, "its owner is process"},
                    {{"ports"}, kExitOk, kEcho}});
}

std::string TrySend(const PrivateSession&) {
  Child server({"serve", kEcho, "--reply", "size:long=640", "--count", "2"});
  std::string problem =
      ExpectAll({{{"wait", kEcho}, kExitOk},
                 {{"send", kEcho, "test", "echo", "name:text=camera"}, kExitOk, "size:long=640"},
                 {{"send", kEcho, "test", "last"}, kExitOk}});
  const Result printed = server.Finish();
  if (!problem.empty()) return problem;
  return printed.text == "test echo name:text=camera\ntest last\n"
             ? ""
             : "the server got " + printed.text;
}

std::string TryKill(const PrivateSession&) {
  Child server({"serve", kEcho});
  std::string problem = Expect({"wait", kEcho}, kExitOk);
  server.Kill();
  if (!problem.empty()) return problem;
  return ExpectAll(
      {{{"wait", kEcho, "--gone"}, kExitOk}, {{"send", kEcho, "test", "echo"}, kExitNotFound}});
}

// Opens an application that is a script which runs this program.
std::string TryLaunch(const PrivateSession& session) {
  const std::string bundle = session.Path("data/veltrane/Applications/Selftest.app");
  const std::string program = bundle + "/Contents/Linux/program";
  std::error_code error;
  std::filesystem::create_directories(bundle + "/Contents/Linux", error);
  std::ofstream(bundle + "/Contents/Info.plist")
      << "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
         "<string>com.veltrane.selftest</string><key>CFBundleExecutable</key>"
         "<string>program</string></dict></plist>\n";
  std::ofstream(program) << "#!/bin/sh\necho hello\nexec '" << OwnProgram() << "' serve "
                         << kLaunched << "\n";
  chmod(program.c_str(), 0700);
  std::string problem =
      ExpectAll({{{"launch", "com.veltrane.selftest", "--port", kLaunched, "--wait", "5"},
                  kExitOk,
                  kLaunched},
                 {{"launch", "com.veltrane.selftest"}, kExitOk, "already running"}});
  std::string stopped = Expect({"stop", kLaunched, "--timeout", "5", "--force"}, kExitOk);
  std::ostringstream log;
  log << std::ifstream(session.Path("state/veltrane/log/com.veltrane.selftest.log")).rdbuf();
  if (!problem.empty()) return problem;
  if (!stopped.empty()) return stopped;
  return log.str().find("hello\n") != std::string::npos ? "" : "its log has: " + Quoted(log.str());
}

std::string TryPreferences(const PrivateSession&) {
  const std::string domain = "com.veltrane.selftest";
  return ExpectAll({{{"prefs", "write", domain, "size", "[640,480]"}, kExitOk},
                    {{"prefs", "read", domain, "size", "--json"}, kExitOk, "[640,480]"},
                    {{"prefs", "delete", domain, "size"}, kExitOk},
                    {{"prefs", "read", domain, "size"}, kExitNotFound}});
}

std::string TryPropertyLists(const PrivateSession& session) {
  const std::string xml = session.Path("a.plist"), binary = session.Path("b.plist");
  std::ofstream(xml) << "<plist version=\"1.0\"><dict><key>n</key><real>0.1</real></dict></plist>";
  return ExpectAll({{{"plist", "lint", xml}, kExitOk, "ok (XML)"},
                    {{"plist", "convert", "binary", xml, "-o", binary}, kExitOk},
                    {{"plist", "lint", binary}, kExitOk, "ok (binary)"},
                    {{"plist", "diff", xml, binary}, kExitOk}});
}

std::string TryNotice(const PrivateSession& session) {
  static NMRec record = {};
  UInt32 flags = 0;
  record.qType = nmType;
  unsigned char text[] = "\010selftest";
  PostNotice(&flags, &record, text, nullptr);
  std::string line;
  std::getline(std::ifstream(session.Path("VLTHOST_NOTICES")) >> std::ws, line);
  return line.find("selftest") != std::string::npos ? "" : "the sink file got " + Quoted(line);
}

constexpr Step kSteps[] = {{"session directory", TrySession},
                           {"claim a port", TryClaim},
                           {"send and reply", TrySend},
                           {"death of a server", TryKill},
                           {"launch", TryLaunch},
                           {"preferences", TryPreferences},
                           {"property lists", TryPropertyLists},
                           {"notice", TryNotice}};

}  // namespace

static int RunSelftest(const CommandLine& line) {
  const PrivateSession session;
  if (!session.problem.empty()) return Say("selftest: " + session.problem), kExitGeneral;
  int exit = kExitOk;
  for (const Step& step : kSteps) {
    const auto began = Clock::now();
    std::string problem = step.run(session);
    const double seconds = std::chrono::duration<double>(Clock::now() - began).count();
    if (!problem.empty()) exit = kExitGeneral;
    if (line.Has("--json")) {
      JsonValue model = JsonValue::Object();
      model.Add("step", step.name);
      model.Add("passed", JsonValue::Bool(problem.empty()));
      model.Add("seconds", JsonValue::Real(seconds));
      model.Add("problem", problem.empty() ? JsonValue() : JsonValue(problem));
      PrintJson(model);
    } else {
      PrintTable({{problem.empty() ? Painted(Paint::kGreen, "pass") : Painted(Paint::kRed, "FAIL"),
                   step.name + (problem.empty() ? "" : ": " + OneLine(problem))}});
    }
  }
  return exit;
}

Verb SelftestVerb() {
  return {"selftest",
          "[--json]",
          "Tries the installation in a private session.",
          "Makes a temporary folder with a session of its own, in which it claims a port,\n"
          "sends events, kills a server, launches an application, and uses preferences,\n"
          "property lists and a notice. Your own session is not touched. It takes less\n"
          "than ten seconds. Prints pass or FAIL for each step; the exit status is 1 if\n"
          "one failed.\n"
          "\n"
          "Example: vltctl selftest\n"
          "\n"
          "JSON: one object for each step with step, passed, seconds and problem, which\n"
          "is null if it passed.\n",
          {kJsonOption},
          0,
          0,
          RunSelftest,
          false};
}
