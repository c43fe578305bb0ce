#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>

#include "bench/ipc_report.h"
#include "plist/preferences.h"

// Measures preferences. Rows take turns within each round, so the ratios compare what was measured
// right after each other.
//
//   read    one value of a file of 100 keys that has not changed, microseconds. bare is the stat
//           that shows it.
//   commit  one changed key of that file, microseconds. bare writes as many bytes beside it, waits
//           for the disk, renames and waits for the folder.

namespace {

constexpr int kKeys = 100;
constexpr int kReads = 200000;
constexpr int kCommits = 20;
constexpr int kRounds = 9;

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "prefs_bench: %s\n", what);
  std::exit(1);
}

double Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double Microseconds(int count, const std::function<void(int)>& body) {
  const double start = Now();
  for (int i = 0; i < count; i++) body(i);
  return (Now() - start) / count * 1e6;
}

void WriteBeside(const std::string& folder, const std::string& bytes) {
  const std::string made = folder + "/made", place = folder + "/place";
  FILE* const file = std::fopen(made.c_str(), "we");
  if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
    Fail("cannot write");
  }
  if (std::fflush(file) != 0 || fsync(fileno(file)) != 0) Fail("cannot write");
  std::fclose(file);
  const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (std::rename(made.c_str(), place.c_str()) != 0 || fsync(directory) != 0) Fail("cannot rename");
  close(directory);
}

class Folder {
 public:
  Folder() {
    char pattern[] = "/tmp/vlt-prefs-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) Fail("no folder");
    path = pattern;
    setenv("XDG_CONFIG_HOME", pattern, 1);
  }
  ~Folder() { std::filesystem::remove_all(path); }
  std::string path;
};

void Measure(const Folder& folder) {
  VLTPreferences preferences("bench", kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
  for (int i = 0; i < kKeys; i++) preferences.setInteger(std::to_string(i).c_str(), i);
  if (preferences.commit() != 0) Fail("cannot commit");
  const std::string file = folder.path + "/veltrane/preferences/bench.plist";
  const std::string bytes(std::filesystem::file_size(file), 'x');
  const CFStringRef key = CFSTR("50"), application = CFSTR("bench");
  IpcReport report;
  for (int round = 0; round < kRounds; round++) {
    report.Add("bare", "read", Microseconds(kReads, [&](int) {
                 struct stat info;
                 if (stat(file.c_str(), &info) != 0) Fail("no file");
               }));
    report.Add("ours", "read", Microseconds(kReads, [&](int) {
                 CFRelease(CFPreferencesCopyValue(key, application, kCFPreferencesCurrentUser,
                                                  kCFPreferencesAnyHost));
               }));
    report.Add("bare", "commit",
               Microseconds(kCommits, [&](int) { WriteBeside(folder.path, bytes); }));
    report.Add("ours", "commit", Microseconds(kCommits, [&](int i) {
                 preferences.setInteger("50", round * kCommits + i);
                 if (preferences.commit() != 0) Fail("cannot commit");
               }));
  }
  report.PrintTable();
}

}  // namespace

int main() {
  const Folder folder;
  Measure(folder);
}
