#include "tests/support/test_role.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

namespace {

std::map<std::string, TestRoleBody>& Roles() {
  static std::map<std::string, TestRoleBody> roles;
  return roles;
}

// Blocks SIGPIPE for this thread and drops one that comes meanwhile, since the other end of a pipe
// between a test and its role may have ended. Everywhere else the signal keeps its effect, so that
// a test fails if the code under test raises it.
class NoPipeSignal {
 public:
  NoPipeSignal() {
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
  }
  ~NoPipeSignal() {
    const timespec none = {};
    while (sigtimedwait(&pipe, nullptr, &none) < 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
  NoPipeSignal(const NoPipeSignal&) = delete;
  NoPipeSignal& operator=(const NoPipeSignal&) = delete;

 private:
  sigset_t pipe;
  sigset_t before;
};

}  // namespace

int RoleFailed(std::source_location where) {
  const int error = errno;
  std::fprintf(stderr, "%s:%u: role failed (errno: %s)\n", where.file_name(), where.line(),
               error != 0 ? std::strerror(error) : "none");
  return kRoleFailed;
}

TestRoleEntry::TestRoleEntry(const char* name, TestRoleBody body) { Roles()[name] = body; }

std::optional<std::string> ReadLine(int descriptor, std::string& pending,
                                    std::chrono::milliseconds limit) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + limit;
  for (;;) {
    if (const size_t newline = pending.find('\n'); newline != std::string::npos) {
      std::string line = pending.substr(0, newline);
      pending.erase(0, newline + 1);
      return line;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd entry = {descriptor, POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>(left > 0 ? left : 0));
    if (ready == 0 && left <= 0) return std::nullopt;
    if (ready <= 0) continue;
    char block[4096];
    const ssize_t count = read(descriptor, block, sizeof block);
    if (count <= 0) return std::nullopt;
    pending.append(block, count);
  }
}

bool WriteLine(int descriptor, const std::string& line) {
  const NoPipeSignal quiet;
  const std::string text = line + "\n";
  for (size_t done = 0; done < text.size();) {
    const ssize_t count = write(descriptor, text.data() + done, text.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += count;
  }
  return true;
}

void TestRole::Tell(const std::string& line) { WriteLine(toTest, line); }

std::optional<std::string> TestRole::Hear(std::chrono::milliseconds limit) {
  return ReadLine(fromTest, heard, limit);
}

// --role=NAME --port-name=NAME --pipes=OUT,IN, then the role's own arguments.
std::optional<int> RunRoleOfCommandLine(int argc, char** argv) {
  if (argc < 4 || std::strncmp(argv[1], "--role=", 7) != 0) return std::nullopt;
  const std::string name = argv[1] + 7;
  const std::string portName = argv[2] + std::strlen("--port-name=");
  int out = -1;
  int in = -1;
  if (std::sscanf(argv[3], "--pipes=%d,%d", &out, &in) != 2) return kRoleFailed;
  const auto found = Roles().find(name);
  if (found == Roles().end()) {
    std::fprintf(stderr, "no role \"%s\" in %s\n", name.c_str(), argv[0]);
    return kRoleFailed;
  }
  TestRole role(portName, {argv + 4, argv + argc}, out, in);
  return found->second(role);
}
