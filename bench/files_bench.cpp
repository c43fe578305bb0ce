#include <CoreServices/CoreServices.h>
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>

#include "bench/ipc_report.h"
#include "util/file_utils.h"

// Measures file specs and the process list, in one thread, beside the system calls that any program
// needs for the same results. The rows take turns within each round; the time is the
// processor's.
//
//   realpath    resolves a path with seven components, or with three (short-path).
//   there-back  the same path to an FSSpec and the FSSpec to its path.
//   bare        reads /proc: the folder, and each own process's stat and exe.
//   pass        FindPSN over all processes, for a signature that no process has.

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "files_bench: %s\n", what);
  std::exit(1);
}

double ProcessorNanoseconds() {
  timespec used;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

double NanosecondsEach(const std::function<void()>& body, int count) {
  const double start = ProcessorNanoseconds();
  for (int i = 0; i < count; ++i) body();
  return (ProcessorNanoseconds() - start) / count;
}

struct PathRows {
  PathRows() {
    char pattern[] = "/tmp/vlt-files-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) Fail("no folder");
    root = pattern;
    const std::string folder = root + "/Library/Application Support/Veltrane/Logs";
    std::filesystem::create_directories(folder);
    path = File(folder);
    shortPath = File(root);
  }
  ~PathRows() { std::filesystem::remove_all(root); }

  static std::string File(const std::string& folder) {
    const std::string path = folder + "/file";
    if (close(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)) != 0) Fail("no file");
    return path;
  }

  static void Realpath(const std::string& path) {
    char real[PATH_MAX];
    if (realpath(path.c_str(), real) == nullptr) Fail("no path");
  }
  static void ThereAndBack(const std::string& path) {
    FSSpec spec;
    char back[PATH_MAX];
    if (PathToFSSpec(path.c_str(), &spec) != noErr) Fail("no record");
    if (FSSpecToPath(&spec, back, sizeof back) != noErr || path != back) Fail("another path");
  }

  std::string root;
  std::string path;
  std::string shortPath;
};

// The fewest calls that show which program each process of this user runs.
void ReadProcBare() {
  DIR* directory = opendir("/proc");
  if (directory == nullptr) Fail("no /proc");
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    char path[300], text[PATH_MAX];
    std::snprintf(path, sizeof path, "/proc/%s/stat", entry->d_name);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    struct stat info;
    const bool isRead = read(fd, text, sizeof text) > 0 && fstat(fd, &info) == 0;
    close(fd);
    if (!isRead || info.st_uid != geteuid()) continue;
    std::snprintf(path, sizeof path, "/proc/%s/exe", entry->d_name);
    if (readlink(path, text, sizeof text) < 0) continue;
  }
  closedir(directory);
}

void Pass() {
  ProcessSerialNumber psn;
  if (FindPSN(&psn, FourCC('N', 'o', 'n', 'e'), FourCC('A', 'P', 'P', 'L')) != procNotFound) {
    Fail("somebody has the signature");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool isQuick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  if (argc > 2 || (argc == 2 && !isQuick)) {
    std::fputs("usage: files_bench [--quick]\n", stderr);
    return 2;
  }
  const int rounds = isQuick ? 3 : 51;

  const PathRows paths;
  // The first row of a metric is what its others are compared with.
  const struct {
    const char* name;
    const char* metric;
    int count;
    std::function<void()> body;
  } rows[] = {
      {"realpath", "path-ns", 2000, [&] { paths.Realpath(paths.path); }},
      {"there-back", "path-ns", 2000, [&] { paths.ThereAndBack(paths.path); }},
      {"realpath", "short-path-ns", 2000, [&] { paths.Realpath(paths.shortPath); }},
      {"there-back", "short-path-ns", 2000, [&] { paths.ThereAndBack(paths.shortPath); }},
      {"bare", "process-list-ns", 20, ReadProcBare},
      {"pass", "process-list-ns", 20, Pass},
  };
  IpcReport report;
  for (const auto& row : rows) NanosecondsEach(row.body, row.count);  // warm
  for (int round = 0; round < rounds; ++round) {
    for (const auto& row : rows) {
      report.Add(row.name, row.metric, NanosecondsEach(row.body, row.count));
    }
  }
  report.PrintTable();
}
