#include "bench/ipc_dbus_daemon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <utility>

#include "platform/host/base/clock.h"

namespace {

constexpr char kProgram[] = "/usr/bin/dbus-daemon";
constexpr int kStartMs = 10'000;

// Everything is allowed and nothing is limited that a measurement could run into.
constexpr char kConfiguration[] = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>%ADDRESS%</listen>
  <auth>EXTERNAL</auth>
  <servicedir>%FOLDER%</servicedir>
  <policy context="default">
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">134217728</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
)";

}  // namespace

bool IpcDBusDaemon::IsInstalled() { return access(kProgram, X_OK) == 0; }

bool IpcDBusDaemon::WriteConfiguration() const {
  std::string text = kConfiguration;
  for (const auto& [mark, value] :
       {std::pair<std::string, std::string>{"%ADDRESS%", Address()}, {"%FOLDER%", folder}}) {
    text.replace(text.find(mark), mark.size(), value);
  }
  std::ofstream file(ConfigurationPath());
  file << text;
  file.close();
  return !file.fail();
}

bool IpcDBusDaemon::Start(const IpcProcessors& processors) {
  int ends[2];
  if (!IsInstalled() || !WriteConfiguration() || pipe2(ends, O_CLOEXEC) != 0) return false;
  const int errors = open(ErrorsPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const bool started =
      process.Exec(processors,
                   {kProgram, "--config-file=" + ConfigurationPath(), "--nofork", "--nopidfile",
                    "--nosyslog", "--print-address=" + std::to_string(ends[1])},
                   ends[1], errors);
  close(ends[1]);
  if (errors >= 0) close(errors);
  // It prints its address when it listens; an end of file means that it gave up.
  char first = 0;
  const bool listens =
      started && IpcWaitReadable(ends[0], kStartMs) && read(ends[0], &first, 1) == 1;
  startTime = HostNow() - process.ExecTime();
  close(ends[0]);
  if (listens) return true;
  Stop();
  PrintErrors();
  return false;
}

// It complains of limits that it cannot raise, which is of interest only when it does not start.
void IpcDBusDaemon::PrintErrors() const {
  std::ifstream file(ErrorsPath());
  std::string line;
  while (std::getline(file, line)) std::fprintf(stderr, "%s\n", line.c_str());
}
