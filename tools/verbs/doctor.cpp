#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "platform/host/applications/introspect.h"
#include "platform/host/notices/introspect.h"
#include "platform/host/preferences/introspect.h"
#include "platform/host/session/introspect.h"
#include "tools/applications/launch_plan.h"
#include "tools/applications/program_state.h"
#include "tools/preferences/domains.h"
#include "tools/table.h"
#include "tools/terminal.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"
#include "util/owned_ref.h"

// Checks what the library needs from the machine and the user's session.

namespace {

constexpr rlim_t kFewDescriptors = 1024;
constexpr unsigned long long kLittleRoom = 16 << 20;

enum class Health { kOk, kWarning, kFailure };

struct Finding {
  std::string check;
  Health health = Health::kOk;
  std::string text;
  std::string remedy = "";  // "" if nothing has to be done
};

using Findings = std::vector<Finding>;

const char* NameOf(Health health) {
  switch (health) {
    case Health::kOk:
      return "ok";
    case Health::kWarning:
      return "warning";
    default:
      return "failure";
  }
}

Paint PaintOf(Health health) {
  if (health == Health::kOk) return Paint::kGreen;
  return health == Health::kWarning ? Paint::kYellow : Paint::kRed;
}

void CheckSession(Findings& findings) {
  const HostSessionDirectoryInfo session = HostDescribeSessionDirectory();
  if (!session.usable) {
    findings.push_back(
        {"session", Health::kFailure, session.problem, "as it says; then try vltctl session"});
    return;
  }
  findings.push_back({"session", Health::kOk, session.path + " (from " + session.source + ")"});
  for (const HostSessionDirectoryInfo& other : HostOtherSessionDirectories()) {
    findings.push_back({"session", Health::kWarning,
                        other.path + " exists, too; programs that use it are not seen from here",
                        "set XDG_RUNTIME_DIR alike for all programs, or remove the folder"});
  }
  struct statvfs room;
  if (statvfs(session.path.c_str(), &room) == 0) {
    const unsigned long long free = 1ULL * room.f_bavail * room.f_frsize;
    const bool isLow = free < kLittleRoom;
    findings.push_back({"session", isLow ? Health::kWarning : Health::kOk,
                        SizeText(static_cast<long long>(free)) + " free there",
                        isLow ? "free some space" : ""});
  }
}

void CheckDaemon(Findings& findings) {
  if (!HostDescribeSessionDirectory().usable) return;
  const LaunchPlan plan = PlanLaunch(gSessionMonitorLaunchSpec);
  const OSStatus err = SMCheckDaemonRunning();
  if (err == 0) {
    findings.push_back({"daemon", Health::kOk, "the session daemon runs"});
  } else if (!plan.problem.empty()) {
    findings.push_back({"daemon", Health::kFailure, plan.problem, "correct or delete that key"});
  } else if (plan.opensNext.empty()) {
    findings.push_back({"daemon", Health::kFailure, "it does not run; " + NextStep(plan),
                        "install the package, or add its share folder to XDG_DATA_DIRS"});
  } else {
    findings.push_back({"daemon", Health::kOk, "it does not run; clients start " + plan.opensNext});
  }
  const LaunchPlan monitor = PlanLaunch(gDeviceMonitorLaunchSpec);
  if (!monitor.problem.empty()) {
    findings.push_back(
        {"device monitor", Health::kFailure, monitor.problem, "correct or delete that key"});
  }
}

void CheckApplications(Findings& findings) {
  size_t good = 0;
  for (const HostApplicationInfo& each : HostDescribeAllBundles()) {
    if (each.problem.empty()) {
      ++good;
      continue;
    }
    findings.push_back({"applications", Health::kWarning, each.path + ": " + each.problem,
                        "repair or remove the bundle"});
  }
  findings.push_back({"applications", Health::kOk, std::to_string(good) + " can be opened"});
}

// The files of all domains, and those of any application.
void CheckPreferences(Findings& findings) {
  std::set<std::string> seen;
  size_t good = 0;
  std::vector<std::string> problems;
  std::set<std::string> names = {
      "any"};  // without a domain, there are the files of any application
  for (const PrefsDomain& domain : ListPrefsDomains(problems)) names.insert(domain.name);
  for (const std::string& text : problems) {
    findings.push_back(
        {"preferences", Health::kFailure, text, "correct the folder's mode or owner"});
  }
  for (const std::string& name : names) {
    const OwnedRef<CFStringRef> domain(
        CFStringCreateWithCString(nullptr, name.c_str(), kCFStringEncodingUTF8));
    if (domain == nullptr) continue;
    for (const HostPreferencesSource& source : HostPreferencesSources(domain, nullptr)) {
      if (!source.exists || !seen.insert(source.path).second) continue;
      if (source.problem.empty()) {
        ++good;
      } else {
        findings.push_back({"preferences", Health::kFailure, source.problem,
                            "the file is not used until that is corrected"});
      }
    }
  }
  const std::string count = std::to_string(good);
  findings.push_back(
      {"preferences", Health::kOk, count + (good == 1 ? " file is in use" : " files are in use")});
}

void CheckNotices(Findings& findings) {
  const HostNoticeWay way = HostDescribeNotices();
  if (!way.sink.empty()) {
    findings.push_back({"notices", Health::kOk, "go to the file " + way.sink});
  } else if (way.helper.empty()) {
    findings.push_back({"notices", Health::kWarning, "there is no notice helper (vlt-notify)",
                        "install it; until then notices go to the system log"});
  } else if (!way.hasDesktop) {
    findings.push_back({"notices", Health::kWarning,
                        "no desktop is known to this session; notices go to the system log",
                        "set DBUS_SESSION_BUS_ADDRESS if there is one"});
  } else {
    findings.push_back({"notices", Health::kOk, "are shown by " + way.helper});
  }
}

void CheckLog(Findings& findings) {
  std::string problem;
  const std::string path = HostProgramLogPath("/vltctl-doctor");
  const int fd = HostOpenProgramLog(path, &problem);
  if (fd < 0) {
    findings.push_back({"logs", Health::kWarning, path + ": " + problem,
                        "what opened programs print is lost until that is corrected"});
    return;
  }
  close(fd);
  unlink(path.c_str());
  findings.push_back({"logs", Health::kOk, path.substr(0, path.rfind('/'))});
}

void CheckLimits(Findings& findings) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const bool isLow = limit.rlim_cur < kFewDescriptors;
  findings.push_back({"limits", isLow ? Health::kWarning : Health::kOk,
                      std::to_string(limit.rlim_cur) + " file descriptors for each process",
                      isLow ? "ulimit -n 1024, for servers with many clients" : ""});
}

bool HasFileLocks() {
  const int fd = static_cast<int>(memfd_create("vltctl", MFD_CLOEXEC));
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  const bool has = fd >= 0 && fcntl(fd, F_OFD_GETLK, &lock) == 0;
  if (fd >= 0) close(fd);
  return has;
}

bool HasSealedMemory() {
  const int fd = static_cast<int>(memfd_create("vltctl", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  const bool has = fd >= 0 && fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) == 0;
  if (fd >= 0) close(fd);
  return has;
}

bool HasPidDescriptors() {
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0));
  if (fd >= 0) close(fd);
  return fd >= 0;
}

bool HasCloseRange() { return syscall(SYS_close_range, ~0U, ~0U, 0) == 0; }

bool HasProcesses() { return access("/proc/self/fd", X_OK) == 0; }

// Tries each feature instead of relying on the kernel's version.
void CheckKernel(Findings& findings) {
  const struct {
    const char* name;
    bool (*has)();
    Health without;
    const char* remedy;
  } features[] = {
      {"open file description locks", HasFileLocks, Health::kFailure, "a kernel from 3.15 on"},
      {"/proc", HasProcesses, Health::kFailure, "mount /proc"},
      {"process descriptors", HasPidDescriptors, Health::kFailure, "a kernel from 5.3 on"},
      {"sealed memory", HasSealedMemory, Health::kWarning, "a kernel from 3.17 on"},
      {"close_range", HasCloseRange, Health::kWarning,
       "a kernel from 5.11 on; until then exit statuses of opened programs are unknown"},
  };
  utsname machine = {};
  uname(&machine);
  std::string missing;
  for (const auto& feature : features) {
    if (feature.has()) continue;
    missing = feature.name;
    findings.push_back(
        {"kernel", feature.without, std::string("no ") + feature.name, feature.remedy});
  }
  const std::string release =
      std::string(machine.sysname) + " " + machine.release + ", " + machine.machine;
  if (missing.empty()) findings.push_back({"kernel", Health::kOk, release});
}

// The bundles' versions, which should all be of one installation.
void CheckVersions(Findings& findings) {
  for (const VLTLaunchSpec* each : {&gSessionMonitorLaunchSpec, &gDeviceMonitorLaunchSpec}) {
    Search search;
    search.ways.push_back(FindByIdentifier(each->bundleID, search));
    if (!search.Found()) continue;
    search.path = PathOf(search.application);
    findings.push_back(
        {"version", Health::kOk, each->bundleID + (" " + FoundApplication(search).version)});
  }
}

}  // namespace

static int RunDoctor(const CommandLine& line) {
  Findings findings;
  for (void (*check)(Findings&) :
       {CheckSession, CheckDaemon, CheckApplications, CheckPreferences, CheckNotices, CheckLog,
        CheckLimits, CheckKernel, CheckVersions}) {
    check(findings);
  }
  bool hasFailed = false;
  std::vector<TableRow> rows;
  for (const Finding& each : findings) {
    hasFailed = hasFailed || each.health == Health::kFailure;
    if (line.Has("--json")) {
      JsonValue model = JsonValue::Object();
      model.Add("check", each.check);
      model.Add("result", NameOf(each.health));
      model.Add("text", each.text);
      model.Add("remedy", each.remedy.empty() ? JsonValue() : JsonValue(each.remedy));
      PrintJson(model);
      continue;
    }
    rows.push_back(
        {each.check, Painted(PaintOf(each.health), NameOf(each.health)), OneLine(each.text)});
    if (!each.remedy.empty()) rows.push_back({"", "", "-> " + OneLine(each.remedy)});
  }
  PrintTable(rows);
  return hasFailed ? kExitGeneral : kExitOk;
}

Verb DoctorVerb() {
  return {"doctor",
          "[--json]",
          "Checks the session, the installation and the machine.",
          "Prints a line for each check: ok, warning or failure, and what was found. A\n"
          "line with an arrow says what to do. The exit status is 1 if something failed.\n"
          "Changes nothing and starts nothing.\n"
          "\n"
          "Example: vltctl doctor\n"
          "\n"
          "JSON: one object for each check with check, result (ok, warning, failure),\n"
          "text and remedy, which is null if nothing has to be done.\n",
          {kJsonOption},
          0,
          0,
          RunDoctor,
          false};
}
