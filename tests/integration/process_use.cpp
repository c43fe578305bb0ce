#include "tests/integration/process_use.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/host/base/clock.h"

#include "tests/support/scratch_folder.h"

namespace {

std::string ProcFolder(pid_t pid) { return "/proc/" + std::to_string(pid); }

void ReadMemory(pid_t pid, ProcessUse* use) {
  std::ifstream file(ProcFolder(pid) + "/smaps_rollup");
  for (std::string word; file >> word;) {
    size_t kilobytes = 0;
    if (word == "Private_Dirty:" && file >> kilobytes) use->memory = kilobytes * 1024;
  }
}

int64_t ProcessorTimeOf(pid_t pid) {
  clockid_t clock;
  timespec time = {};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return 0;
  return int64_t{time.tv_sec} * kHostSecond + time.tv_nsec;
}

}  // namespace

ProcessUse UseOf(pid_t pid) {
  ProcessUse use;
  use.descriptors = EntriesOf(ProcFolder(pid) + "/fd");
  use.threads = EntriesOf(ProcFolder(pid) + "/task");
  ReadMemory(pid, &use);
  use.processorTime = ProcessorTimeOf(pid);
  return use;
}

void ExpectBackAt(const ProcessUse& before, pid_t pid, std::chrono::milliseconds limit) {
  size_t descriptors = 0, threads = 0;
  WaitUntil(
      [&] {
        descriptors = EntriesOf(ProcFolder(pid) + "/fd");
        threads = EntriesOf(ProcFolder(pid) + "/task");
        return descriptors == before.descriptors && threads == before.threads;
      },
      limit);
  EXPECT_EQ(before.descriptors, descriptors);
  EXPECT_EQ(before.threads, threads);
}

char ProcessStateOf(pid_t pid) {
  std::ifstream stat(ProcFolder(pid) + "/stat");
  std::string text;
  std::getline(stat, text);
  const size_t name = text.rfind(") ");  // the name itself may hold anything
  return name == std::string::npos || name + 2 >= text.size() ? '\0' : text[name + 2];
}

void WaitForState(pid_t pid, char letter) {
  EXPECT_TRUE(WaitUntil([&] { return ProcessStateOf(pid) == letter; }, 20s));
}

int TestScale() {
  const char* text = std::getenv("VLT_TEST_SCALE");
  return text == nullptr ? 1 : std::clamp(std::atoi(text), 1, 1000);
}

void RaiseDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void SleepUntil(int64_t instant) {
  timespec time = {};
  time.tv_sec = static_cast<time_t>(instant / kHostSecond);
  time.tv_nsec = static_cast<decltype(time.tv_nsec)>(instant % kHostSecond);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
  }
}
