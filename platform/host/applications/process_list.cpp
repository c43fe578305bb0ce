#include "platform/host/applications/process_list.h"

#include <CoreServices/MacErrors.h>
#include <CoreServices/Processes.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/host/base/clock.h"
#include "platform/host/base/directory.h"
#include "platform/host/base/guard.h"
#include "platform/host/files/items.h"
#include "platform/host/files/status.h"
#include "platform/host/processes/serial_number.h"

namespace {

constexpr UInt64 kTicksPerSecond = 60;
constexpr int64_t kPidsFreshFor = kHostSecond;

// The pids of one look at /proc, shared by all passes over the list. If each step read the folder
// again, the cost of a pass would grow with the square of its length.
struct Pids {
  std::mutex mutex;
  std::vector<pid_t> pids;  // increasing
  int64_t readAt = 0;
};

Pids& KnownPids() {
  static Pids* pids = new Pids;
  return *pids;
}

// Returns 0 or the errno value of a list that cannot be read; then no pids are known.
int ReadPids(std::vector<pid_t>* pids) {
  pids->clear();
  HostDirectory directory("/proc");
  if (!directory.IsOpen()) return errno;
  while (const dirent* entry = directory.Next()) {
    const char* name = entry->d_name;
    const char* end = name + std::strlen(name);
    pid_t pid = 0;
    const auto result = std::from_chars(name, end, pid);
    if (result.ec == std::errc() && result.ptr == end && pid > 0) pids->push_back(pid);
  }
  std::sort(pids->begin(), pids->end());
  return 0;
}

// Finds the first pid above `after`, or 0 at the end of the list. `isFirst` is set for the first
// step of a pass, which always reads the list again. Returns 0 or an errno value.
int FindNextPid(pid_t after, bool isFirst, pid_t* pid) {
  Pids& known = KnownPids();
  const std::lock_guard<std::mutex> lock(known.mutex);
  const int64_t now = HostNow();
  if (isFirst || known.readAt == 0 || now - known.readAt > kPidsFreshFor) {
    known.readAt = 0;
    if (const int error = ReadPids(&known.pids); error != 0) return error;
    known.readAt = now;
  }
  const auto next = std::upper_bound(known.pids.begin(), known.pids.end(), after);
  *pid = next == known.pids.end() ? 0 : *next;
  return 0;
}

UInt32 ToTicks(uint64_t clockTicks) {
  const auto rate = static_cast<uint64_t>(std::max(sysconf(_SC_CLK_TCK), decltype(sysconf(0)){1}));
  return static_cast<UInt32>(clockTicks / rate * kTicksPerSecond +
                             clockTicks % rate * kTicksPerSecond / rate);
}

// The last part of a path, a bundle's without its extension.
std::string_view NameOf(std::string_view path, bool isBundled) {
  path.remove_prefix(path.rfind('/') + 1);  // 0 without a slash
  return isBundled ? path.substr(0, path.rfind('.')) : path;
}

// Returns the file spec of a path, or an empty one if there is none.
FSSpec SpecOf(const std::string& path) {
  HostItem item;
  FSSpec spec = {};
  if (HostItemAtEndOf(path.c_str(), &item) == noErr) HostSpecOfItem(item, &spec);
  return spec;
}

OSErr NextProcess(ProcessSerialNumber* psn) {
  ProcessSerialNumber from = *psn;
  if (from.highLongOfPSN == 0 && from.lowLongOfPSN == kCurrentProcess) GetCurrentProcess(&from);
  bool isFirst = from.highLongOfPSN == 0 && from.lowLongOfPSN == kNoProcess;
  auto pid = static_cast<pid_t>(std::min<UInt32>(from.lowLongOfPSN, INT32_MAX));
  for (;; isFirst = false) {
    int error = FindNextPid(pid, isFirst, &pid);
    if (error == 0 && pid == 0) break;
    if (error == 0) error = HostFindSerialNumber(pid, psn);
    if (error == 0) return noErr;
    // Skips processes that end and those whose files in /proc this process may not read. Without
    // file descriptors or memory the next process is not known.
    if (error == EMFILE || error == ENFILE || error == ENOMEM) return HostFileStatus(error);
    if (pid == 0) return HostFileStatus(error);
  }
  *psn = {0, kNoProcess};
  return procNotFound;
}

// Allocates before it sets the first field, so that a failure leaves `*info` unchanged.
OSErr Inform(const HostProcess& process, ProcessInfoRec* info) {
  std::string program;
  HostBundle bundle;
  const bool isBundled = HostBundleOfProcess(process, &program, &bundle);
  const std::string& path = isBundled ? bundle.path : program;
  if (info->processAppSpec != nullptr) *info->processAppSpec = SpecOf(path);

  info->processNumber = process.number;
  info->processType = bundle.packageType;
  info->processSignature = bundle.signature;
  info->processMode = 0;
  info->processLocation = nullptr;
  info->processSize = info->processFreeMem = 0;
  info->processLauncher = {0, kNoProcess};
  info->processLaunchDate = ToTicks(process.status.startTicks);
  info->processActiveTime = ToTicks(process.status.activeTicks);
  if (info->processName != nullptr)
    HostGiveName(NameOf(path, isBundled), sizeof(Str31) - 1, info->processName);
  return noErr;
}

}  // namespace

bool HostBundleOfProcess(const HostProcess& process, std::string* program, HostBundle* bundle) {
  constexpr OSType kUnknownCode = FourCC('?', '?', '?', '?');
  *program = HostProgramPath(process.pid);
  bundle->packageType = bundle->signature = kUnknownCode;
  return HostBundleOfProgram(*program, bundle);
}

OSErr GetNextProcess(ProcessSerialNumber* psn) {
  if (psn == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [psn] { return NextProcess(psn); });
}

OSErr GetProcessInformation(const ProcessSerialNumber* psn, ProcessInfoRec* info) {
  if (psn == nullptr || info == nullptr || info->processInfoLength != sizeof *info) {
    return paramErr;
  }
  HostProcess process;
  if (!HostFindProcess(*psn, &process)) return procNotFound;
  return HostGuard(OSErr{memFullErr}, [&] { return Inform(process, info); });
}
