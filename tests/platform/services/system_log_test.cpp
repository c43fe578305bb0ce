#include <Carbon/Carbon.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>

#include "platform/host/services/log_socket.h"
#include "tests/support/permissions.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"
#include "tests/support/test_sink.h"

namespace {

using Lines = std::vector<std::string>;

// A log daemon: a datagram socket at a path.
class LogDaemon {
 public:
  explicit LogDaemon(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      ADD_FAILURE() << "no log socket: " << std::strerror(errno);
    }
  }
  ~LogDaemon() { close(socket); }

  // All entries that wait.
  Lines Take() {
    Lines entries;
    char entry[1 << 17];
    for (;;) {
      const ssize_t size = recv(socket, entry, sizeof entry, MSG_DONTWAIT);
      if (size < 0) return entries;
      entries.emplace_back(entry, static_cast<size_t>(size));
    }
  }

 private:
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

std::string OwnName() {
  return std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + "]: ";
}

// Returns the entry without the time after its priority ("Nov  2 04:05:06 ", 16 characters), if it
// has one.
std::string WithoutTime(const std::string& entry) {
  const size_t start = entry.find('>') + 1;
  tm time = {};
  const char* const begin = entry.c_str() + start;
  const char* const end = strptime(begin, "%b %d %H:%M:%S ", &time);
  return end != nullptr && end - begin == 16 ? entry.substr(0, start) + end : entry;
}

TEST(SystemLog, AnEntryBearsPriorityTimeProgramAndProcess) {
  const ScratchFolder folder;
  const std::string path = folder.Path("log");
  LogDaemon daemon(path);
  HostLogSocket log(path.c_str());
  const std::string longest(HostLogSocket::kMaxText, 'x');
  log.Write(LOG_WARNING, "text");
  log.Write(LOG_DAEMON | LOG_ERR, longest);
  log.Write(LOG_INFO, "\x1B[31mred\x7F\r\n<0>.\xC3\xA9");
  const Lines entries = daemon.Take();
  ASSERT_EQ(3u, entries.size());
  EXPECT_EQ("<12>" + OwnName() + "text", WithoutTime(entries[0]));
  EXPECT_EQ("<27>" + OwnName() + longest, WithoutTime(entries[1]));
  EXPECT_TRUE(entries[2].ends_with("]:  [31mred   <0>.\xC3\xA9")) << entries[2];
}

// Writes entries until the socket is full. The number of lost entries is logged once.
TEST(SystemLog, AStuckLogLosesEntriesAndGetsTheirNumber) {
  const ScratchFolder folder;
  const std::string path = folder.Path("log");
  HostLogSocket log(path.c_str());
  log.Write(LOG_INFO, "nobody there");
  LogDaemon daemon(path);
  constexpr int kWritten = 5000;
  for (int i = 0; i < kWritten; ++i) log.Write(LOG_INFO, "entry");
  Lines taken = daemon.Take();
  ASSERT_GE(taken.size(), 2u);
  EXPECT_TRUE(taken[0].ends_with(": 1 log entries of this process were lost")) << taken[0];
  EXPECT_LT(taken.size(), size_t{kWritten});
  const size_t lost = kWritten + 1 - taken.size();
  log.Write(LOG_INFO, "first");
  log.Write(LOG_INFO, "second");
  taken = daemon.Take();
  ASSERT_EQ(3u, taken.size());
  EXPECT_TRUE(taken[0].starts_with("<12>"));
  EXPECT_TRUE(
      taken[0].ends_with(": " + std::to_string(lost) + " log entries of this process were lost"))
      << taken[0];
  EXPECT_TRUE(taken[1].ends_with("]: first"));
  EXPECT_TRUE(taken[2].ends_with("]: second"));
}

// In a mount namespace of its own, where /dev/log is this role's socket, which nobody reads.
TEST_ROLE(LogsToNobody) {
  unsetenv("VLTHOST_LOG");
  unsetenv("VLTHOST_NOTICES");
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", "/dev", "tmpfs", 0, nullptr) != 0) {
    return RoleFailed();
  }
  role.SignalReady();
  errno = EDOM;
  syslog(LOG_INFO, "nobody there");
  if (errno != EDOM) return RoleFailed();
  LogDaemon daemon("/dev/log");
  unsigned char text[] = "\x04text";
  NMRec record = {};
  record.qType = nmType;
  record.nmStr = text;
  for (int i = 0; i < 2000; ++i) {
    syslog(0x404, "%d", i);
    if (NMInstall(&record) != noErr || NMRemove(&record) != noErr) return RoleFailed();
  }
  const Lines entries = daemon.Take();
  if (entries.size() < 3) return RoleFailed();
  for (size_t i = 0; i < 3; ++i) {
    role.Tell(entries[i].substr(0, 4) + entries[i].substr(entries[i].find("]: ")));
  }
  return kRoleDone;
}

TEST(SystemLog, AStuckLogDaemonBlocksNeitherLogEntriesNorNotices) {
  SKIP_IF(NoMounts());
  TestProcess process("LogsToNobody");
  EXPECT_EQ("ready", process.Hear(20s));
  EXPECT_EQ("<12>]: 1 log entries of this process were lost", process.Hear(60s));
  EXPECT_EQ("<12>]: 0", process.Hear(20s));
  EXPECT_EQ("<13>]: text", process.Hear(20s));
  EXPECT_EQ(kRoleDone, process.Wait(20s));
}

TEST(SystemLog, EntriesAreSingleLines) {
  const TestSink log("VLTHOST_LOG");
  errno = ENOENT;
  syslog(0x404, "%s Assert Failed: %ld\n", "tool", static_cast<long>(-5));
  syslog(LOG_ERR, "two\nlines: %m");
  EXPECT_EQ(ENOENT, errno);
  for (const size_t size : {2046u, 2047u, 2048u, 65536u}) {
    syslog(LOG_DEBUG, "%s", std::string(size, 'x').c_str());
  }
  EXPECT_EQ((Lines{"404 tool Assert Failed: -5", "3 two lines: No such file or directory",
                   "7 " + std::string(2046, 'x'), "7 " + std::string(2047, 'x'),
                   "7 " + std::string(2047, 'x'), "7 " + std::string(2047, 'x')}),
            log.Lines());
}

TEST(SystemLog, LinesOfSeveralWritersDoNotMix) {
  const TestSink log("VLTHOST_LOG");
  std::vector<std::thread> writers;
  for (char letter = 'a'; letter < 'e'; ++letter) {
    writers.emplace_back([letter] {
      for (int i = 0; i < 50; ++i) syslog(LOG_INFO, "%s", std::string(1000, letter).c_str());
    });
  }
  for (std::thread& writer : writers) writer.join();
  const Lines lines = log.Lines();
  EXPECT_EQ(200u, lines.size());
  for (const std::string& line : lines) EXPECT_EQ("6 " + std::string(1000, line[2]), line);
}

}  // namespace
