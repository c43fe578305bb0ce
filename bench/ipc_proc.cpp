#include "bench/ipc_proc.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/host/base/clock.h"

namespace {

std::string ProcPath(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

// The sum of the numbers that follow any of `labels`, each at the start of a line; -1 without any.
int64_t SumOf(const std::string& path, std::initializer_list<const char*> labels) {
  std::ifstream file(path);
  std::string line;
  int64_t sum = 0;
  size_t found = 0;
  while (std::getline(file, line)) {
    for (const std::string label : labels) {
      if (!line.starts_with(label + ":")) continue;
      sum += std::strtoll(line.c_str() + label.size() + 1, nullptr, 10);
      ++found;
    }
  }
  return found == labels.size() ? sum : -1;
}

int64_t CpuTime(pid_t pid) {
  clockid_t clock;
  timespec time;
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return -1;
  return time.tv_sec * kHostSecond + time.tv_nsec;
}

int64_t CountDescriptors(pid_t pid) {
  std::error_code err;
  const std::filesystem::directory_iterator list(ProcPath(pid, "fd"), err);
  return err ? -1 : std::distance(begin(list), end(list));
}

}  // namespace

bool IpcReadProcess(pid_t pid, IpcProcSnapshot* snapshot) {
  const std::string status = ProcPath(pid, "status");
  const std::string memory = ProcPath(pid, "smaps_rollup");
  const IpcProcSnapshot now = {
      SumOf(status, {"voluntary_ctxt_switches"}),
      SumOf(status, {"voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"}),
      CpuTime(pid),
      SumOf(memory, {"Rss"}),
      SumOf(memory, {"Private_Clean", "Private_Dirty"}),
      SumOf(status, {"Threads"}),
      CountDescriptors(pid),
  };
  for (const int64_t each : {now.wakeUps, now.switches, now.cpuTime, now.rssKiB, now.ussKiB,
                             now.threads, now.descriptors}) {
    if (each < 0) return false;
  }
  *snapshot = now;
  return true;
}
