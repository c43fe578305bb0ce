#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/ipc_dbus_daemon.h"
#include "bench/ipc_meeting.h"
#include "bench/ipc_proc.h"
#include "bench/ipc_report.h"
#include "bench/ipc_system.h"
#include "bench/session_folder.h"

// Measures communication between processes, beside the bare socket and a message bus. The rows
// take turns within each round, so that what else the machine does hits all of them.

namespace {

constexpr char kUsage[] =
    "usage: ipc_bench [--quick] [--rounds N] [--only TEXT]\n"
    "       ipc_bench --loop ROW-FIGURE [--count N] [--place pin0|split|free]\n"
    "\n"
    "Prints row,metric,value lines, then a table of medians with ratios to the first row.\n"
    "  --quick   a short run, to see that all of it works\n"
    "  --rounds  how often each figure is taken (7)\n"
    "  --only    only the figures that have TEXT in their names\n"
    "  --loop    one row of one figure for N requests (100000), to be looked at with strace or "
    "perf:\n"
    "            ours-160, raw-echo-65536, sd-bus-oneway-160, ours-lookup, ...\n";

struct Options {
  int rounds = 7;
  IpcBudget budget;
  int crowdMs = 1000;
  int idleMs = 10'000;
  std::string only;
  std::string loop;
  uint64_t count = 100'000;
  std::string place = "pin0";
};

struct Figure {
  const char* name;
  IpcWork work;
};

constexpr Figure kFigures[] = {
    {"request-160", {IpcKind::kRequest, 160}},
    {"request-4096", {IpcKind::kRequest, 4096}},
    {"request-65536", {IpcKind::kRequest, 65536}},
    {"request-1048576", {IpcKind::kRequest, 1048576}},
    {"echo-160", {IpcKind::kEcho, 160}},
    {"echo-4096", {IpcKind::kEcho, 4096}},
    {"echo-65536", {IpcKind::kEcho, 65536}},
    {"echo-1048576", {IpcKind::kEcho, 1048576}},
    {"oneway-160", {IpcKind::kOneWay, 160}},
    {"lookup", {IpcKind::kLookUp, 0}},
    {"crowd16-160", {IpcKind::kRequest, 160, 16}},
};

// One run of the program.
class Bench {
 public:
  Bench(const Options& theOptions, const std::string& theFolder)
      : options(theOptions), folder(theFolder), placements(IpcPlacements()) {
    for (auto& transport : IpcAllTransports(folder)) {
      if (transport->Prepare()) {
        transports.push_back(std::move(transport));
      } else {
        std::fprintf(stderr, "%s cannot be had here and is left out\n", transport->Name());
      }
    }
  }

  bool RunAll() {
    for (int round = 0; round < options.rounds && !IpcIsInterrupted(); ++round) {
      std::fprintf(stderr, "round %d of %d\n", round + 1, options.rounds);
      for (const IpcPlacement& placement : placements) {
        for (const Figure& figure : kFigures) RunFigure(figure, placement);
        RunFlood(placement);
        if (!placement.IsFree()) RunStart(placement);
      }
    }
    transports.clear();  // with their bus: one more of a program shares the pages that count below
    RunIdle();
    report.PrintTable();
    return !failed && !IpcIsInterrupted();
  }

  bool RunLoop() {
    for (const auto& transport : transports) {
      const std::string row = transport->Name();
      if (!options.loop.starts_with(row + "-")) continue;
      const std::string wanted = options.loop.substr(row.size() + 1);
      for (const Figure& figure : kFigures) {
        if (wanted == figure.name || "request-" + wanted == figure.name) {
          Check(LoopFigure(*transport, figure), row, figure.name);
          return !failed;
        }
      }
    }
    std::fprintf(stderr, "no such row and figure: %s\n", options.loop.c_str());
    return false;
  }

 private:
  bool IsWanted(const std::string& metric) const {
    return !IpcIsInterrupted() && metric.find(options.only) != std::string::npos;
  }

  void Check(bool done, const std::string& row, const std::string& metric) {
    if (done) return;
    failed = true;
    std::fprintf(stderr, "FAILED: %s,%s\n", row.c_str(), metric.c_str());
  }

  void RunFigure(const Figure& figure, const IpcPlacement& placement) {
    const std::string metric = std::string(figure.name) + "-" + placement.name;
    // Without pinning the result differs from run to run.
    if (placement.IsFree() && figure.work.clients == 1) return;
    for (const auto& transport : transports) {
      if (!IsWanted(metric)) continue;
      IpcMeeting meeting(*transport, figure.work, placement);
      const bool done =
          meeting.Start() &&
          (figure.work.clients > 1 ? TakeCrowd(meeting, transport->Name(), metric)
                                   : TakeOne(meeting, figure, transport->Name(), metric));
      Check(done && meeting.End(), transport->Name(), metric);
    }
  }

  // Context switches of those who are not the client. 0 when they cannot be read.
  static int64_t Switches(const std::vector<pid_t>& pids) {
    int64_t sum = 0;
    for (const pid_t pid : pids) {
      IpcProcSnapshot now;
      if (IpcReadProcess(pid, &now)) sum += now.switches;
    }
    return sum;
  }

  bool TakeOne(IpcMeeting& meeting, const Figure& figure, const char* row,
               const std::string& metric) {
    double nanoseconds = 0;
    if (&figure == &kFigures[0]) {
      report.Add(row, "first-" + metric + "-us", meeting.FirstNanoseconds() / 1e3);
    }
    if (!meeting.MeasureCount(1, &nanoseconds)) return false;  // completes the start
    const int64_t before = Switches(meeting.ServingPids());
    if (!meeting.Measure(options.budget, &nanoseconds) || nanoseconds <= 0) return false;
    const int64_t after = Switches(meeting.ServingPids());
    if (figure.work.kind == IpcKind::kOneWay) {
      report.Add(row, metric + "-per-s", 1e9 / nanoseconds);
    } else {
      report.Add(row, metric + "-us", nanoseconds / 1e3);
    }
    if (figure.work.kind == IpcKind::kLookUp) {
      report.AddIncomparable(row, metric + "-switches", static_cast<double>(after - before));
    }
    return true;
  }

  bool TakeCrowd(IpcMeeting& meeting, const char* row, const std::string& metric) {
    std::vector<double> answers;
    if (!meeting.MeasureAll(options.crowdMs, &answers)) return false;
    double sum = 0;
    for (const double each : answers) sum += each;
    const auto [slowest, fastest] = std::minmax_element(answers.begin(), answers.end());
    report.Add(row, metric + "-per-s", sum * 1e3 / options.crowdMs);
    report.Add(row, metric + "-slow/fast", *fastest > 0 ? *slowest / *fastest : 0);
    return true;
  }

  // Whether one client that floods the server delays fifty others.
  void RunFlood(const IpcPlacement& placement) {
    const std::string metric = "p99-of-50-" + placement.name;
    for (const auto& transport : transports) {
      if (transport->Name() != std::string("ours") || !IsWanted(metric)) continue;
      IpcMeeting meeting(*transport, {IpcKind::kRequest, 160, 51}, placement);
      double quiet = 0, flooded = 0;
      const bool done = meeting.Start() && meeting.MeasureLatency(options.crowdMs, false, &quiet) &&
                        meeting.MeasureLatency(options.crowdMs, true, &flooded);
      if (done) report.Add("ours", metric + "-us", quiet / 1e3);
      if (done) report.Add("ours, beside a flood", metric + "-us", flooded / 1e3);
      Check(done && meeting.End(), transport->Name(), metric);
    }
  }

  struct Program {
    const char* row;
    IpcProgram program;
  };

  // A bus that is measured has its own folder; the transport's bus is in this session's.
  std::string SystemFolder() const {
    std::string path = folder + "/system";
    mkdir(path.c_str(), 0700);
    return path;
  }

  void RunStart(const IpcPlacement& placement) {
    const std::string metric = "start-" + placement.name + "-us";
    for (const Program& each :
         {Program{"empty", IpcProgram::kEmpty}, Program{"vltsessiond", IpcProgram::kSessionDaemon},
          Program{"dbus-daemon", IpcProgram::kDBusDaemon}}) {
      if (!IsWanted(metric) || !IsHere(each.program)) continue;
      double microseconds = 0;
      const bool done = IpcMeasureStart(each.program, placement, SystemFolder(), &microseconds);
      if (done) report.Add(each.row, metric, microseconds);
      Check(done, each.row, metric);
    }
  }

  void RunIdle() {
    for (const Program& each : {Program{"vltsessiond", IpcProgram::kSessionDaemon},
                                Program{"dbus-daemon", IpcProgram::kDBusDaemon}}) {
      if (placements.empty() || !IsWanted("idle") || !IsHere(each.program)) continue;
      IpcIdle idle;
      const bool done =
          IpcMeasureIdle(each.program, placements.front(), SystemFolder(), options.idleMs, &idle);
      Check(done, each.row, "idle");
      if (!done) continue;
      report.AddIncomparable(each.row, "idle-wake-ups", idle.wakeUps);
      report.AddIncomparable(each.row, "idle-cpu-ms", idle.cpuMs);
      report.Add(each.row, "idle-uss-kib", idle.ussKiB);
      report.Add(each.row, "idle-rss-kib", idle.rssKiB);
    }
  }

  static bool IsHere(IpcProgram program) {
    return program != IpcProgram::kDBusDaemon || IpcDBusDaemon::IsInstalled();
  }

  static void PrintServer(const char* when, pid_t pid) {
    IpcProcSnapshot now;
    if (!IpcReadProcess(pid, &now)) return;
    std::printf("server %s: %d descriptors, %d threads, RSS %d KiB, USS %d KiB\n", when,
                int(now.descriptors), int(now.threads), int(now.rssKiB), int(now.ussKiB));
  }

  // A tenth first, so that what every process takes once is not taken for growth.
  bool LoopFigure(IpcTransport& transport, const Figure& figure) {
    const auto placement =
        std::find_if(placements.begin(), placements.end(),
                     [this](const IpcPlacement& each) { return each.name == options.place; });
    if (placement == placements.end() || figure.work.clients > 1) {
      std::fprintf(stderr, "no such placement, or a figure of many clients\n");
      return false;
    }
    IpcMeeting meeting(transport, figure.work, *placement);
    if (!meeting.Start()) return false;
    const pid_t server = meeting.ServingPids().front();
    std::fprintf(stderr, "server %d, client %d\n", int(server), int(meeting.ClientPid()));
    double nanoseconds = 0;
    const uint64_t first = std::max<uint64_t>(options.count / 10, 1);
    if (!meeting.MeasureCount(first, &nanoseconds)) return false;
    PrintServer("after a tenth", server);
    const uint64_t rest = std::max<uint64_t>(options.count - first, 1);
    if (!meeting.MeasureCount(rest, &nanoseconds)) return false;
    PrintServer("in the end", server);
    std::printf("%.3f us each\n", nanoseconds / 1e3);
    return meeting.End();
  }

  const Options options;
  const std::string folder;
  const std::vector<IpcPlacement> placements;
  std::vector<std::unique_ptr<IpcTransport>> transports;
  IpcReport report;
  bool failed = false;
};

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--quick") {
      options->rounds = 2;
      options->budget = {5, 20};
      options->crowdMs = 100;
      options->idleMs = 1000;
      continue;
    }
    if (++i == argc) return false;
    if (name == "--rounds") {
      options->rounds = std::atoi(argv[i]);
    } else if (name == "--only") {
      options->only = argv[i];
    } else if (name == "--loop") {
      options->loop = argv[i];
    } else if (name == "--count") {
      options->count = std::strtoull(argv[i], nullptr, 10);
    } else if (name == "--place") {
      options->place = argv[i];
    } else {
      return false;
    }
  }
  return options->rounds > 0 && options->count > 0;
}

}  // namespace

std::vector<std::unique_ptr<IpcTransport>> IpcAllTransports(const std::string& folder) {
  std::vector<std::unique_ptr<IpcTransport>> all;
  all.push_back(NewRawTransport(folder));
  all.push_back(NewOursTransport());
  if (auto bus = NewDBusTransport(folder); bus != nullptr) all.push_back(std::move(bus));
  return all;
}

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  IpcCatchSignals();
  const BenchSessionFolder session;
  if (session.Path().empty()) {
    std::perror("temporary folder");
    return 1;
  }
  Bench bench(options, session.Path());
  const bool done = options.loop.empty() ? bench.RunAll() : bench.RunLoop();
  return session.LogIsEmpty() && done ? 0 : 1;
}
