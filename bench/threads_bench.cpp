#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "bench/ipc_report.h"
#include "threads/std_mp_run_loop_thread.h"

// Measures the thread classes beside the bare primitives below them. Rows take turns within each
// round, so the ratios compare what was measured right after each other.
//
//   call    a function run on another thread and waited for, microseconds: bare is a mutex, a
//           condition and an eventfd, on which the thread blocks in read, or in epoll_wait as an
//           event loop must.
//   queue   posting and taking triples, millions a second: alone on one thread, and from one
//           thread to another. bare is a mutex, a condition and a deque.
//   pairs   100,000 times start and stop, microseconds each, and the memory that stays.

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "threads_bench: %s\n", what);
  std::exit(1);
}

double Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double Seconds(const std::function<void()>& body) {
  const double start = Now();
  body();
  return Now() - start;
}

SInt32 Count(void* counter, void*) {
  ++*static_cast<int*>(counter);
  return 0;
}

// A function handed to a thread, as one would write it by hand.
class BareCall {
 public:
  explicit BareCall(bool polls) : polls(polls), wake(eventfd(0, EFD_CLOEXEC)) {
    epoll_event event = {};
    event.events = EPOLLIN;
    if (epoll_ctl(set, EPOLL_CTL_ADD, wake, &event) != 0) Fail("no eventfd");
    thread = std::thread([this] { Serve(); });
  }
  ~BareCall() {
    ends = true;
    Wake();
    thread.join();
    close(set);
    close(wake);
  }

  SInt32 Call(SInt32 (*wanted)(void*, void*), void* a, void* b) {
    std::unique_lock<std::mutex> lock(mutex);
    function = wanted;
    first = a;
    second = b;
    Wake();
    changed.wait(lock, [this] { return function == nullptr; });
    return result;
  }

 private:
  void Wake() {
    const uint64_t one = 1;
    if (write(wake, &one, sizeof one) != sizeof one) Fail("no wake-up");
  }

  void Serve() {
    while (!ends) {
      epoll_event event;
      uint64_t count;
      if (polls && epoll_wait(set, &event, 1, -1) != 1) continue;
      if (read(wake, &count, sizeof count) != sizeof count) Fail("no wake-up");
      std::unique_lock<std::mutex> lock(mutex);
      if (function == nullptr) continue;
      const auto wanted = function;
      lock.unlock();
      const SInt32 value = wanted(first, second);
      lock.lock();
      result = value;
      function = nullptr;
      changed.notify_all();
    }
  }

  const bool polls;
  const int set = epoll_create1(EPOLL_CLOEXEC);
  const int wake;
  std::atomic<bool> ends{false};
  std::mutex mutex;
  std::condition_variable changed;
  SInt32 (*function)(void*, void*) = nullptr;
  void* first = nullptr;
  void* second = nullptr;
  SInt32 result = 0;
  std::thread thread;
};

void MeasureCalls(IpcReport& report) {
  constexpr int kCalls = 20'000;
  BareCall reading(false), polling(true);
  VLTStdMPRunLoopThread thread;
  const auto measure = [&report](const char* row, const std::function<SInt32(int*)>& call) {
    int served = 0;
    const double took = Seconds([&] {
      for (int i = 0; i < kCalls; i++) {
        if (call(&served) != 0) Fail("a call failed");
      }
    });
    if (served != kCalls) Fail("a call was lost");
    report.Add(row, "call us", took * 1e6 / kCalls);
  };
  for (int round = 0; round < 15; round++) {
    measure("bare, read", [&](int* n) { return reading.Call(Count, n, nullptr); });
    measure("bare, epoll", [&](int* n) { return polling.Call(Count, n, nullptr); });
    measure("CallSynchronous",
            [&](int* n) { return thread.CallSynchronous(Count, n, nullptr, kDurationForever); });
  }
  if (thread.FinalizeIfNeeded(0) != 0) Fail("the thread did not end");
}

struct BareQueue {
  struct Triple {
    void* values[3];
  };
  void Post(void* a, void* b, void* c) {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      triples.push_back({{a, b, c}});
    }
    changed.notify_one();
  }
  void Take(void** a, void** b, void** c) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return !triples.empty(); });
    *a = triples.front().values[0];
    *b = triples.front().values[1];
    *c = triples.front().values[2];
    triples.pop_front();
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Triple> triples;
};

struct OurQueue {
  OurQueue() {
    if (MPCreateQueue(&id) != 0) Fail("no queue");
  }
  ~OurQueue() { MPDeleteQueue(id); }
  void Post(void* a, void* b, void* c) {
    if (MPNotifyQueue(id, a, b, c) != 0) Fail("a message was refused");
  }
  void Take(void** a, void** b, void** c) {
    if (MPWaitOnQueue(id, a, b, c, kDurationForever) != 0) Fail("no message");
  }
  MPQueueID id = kInvalidID;
};

template <class Queue>
void TakeAll(Queue& queue, intptr_t count) {
  for (intptr_t i = 0; i < count; i++) {
    void* taken[3];
    queue.Take(&taken[0], &taken[1], &taken[2]);
    if (reinterpret_cast<intptr_t>(taken[1]) != i) Fail("messages out of order");
  }
}

template <class Queue>
void PostAll(Queue& queue, intptr_t count) {
  for (intptr_t i = 0; i < count; i++) queue.Post(&queue, reinterpret_cast<void*>(i), nullptr);
}

template <class Queue>
void MeasureQueue(IpcReport& report, const char* row) {
  constexpr intptr_t kMessages = 400'000;
  constexpr intptr_t kBurst = 8;
  Queue queue;
  const double alone = Seconds([&] {
    for (intptr_t i = 0; i < kMessages / kBurst; i++) {
      PostAll(queue, kBurst);
      TakeAll(queue, kBurst);
    }
  });
  report.Add(row, "queue, one thread, millions/s", kMessages / alone / 1e6);
  const double across = Seconds([&] {
    std::thread taker([&] { TakeAll(queue, kMessages); });
    PostAll(queue, kMessages);
    taker.join();
  });
  report.Add(row, "queue, across threads, millions/s", kMessages / across / 1e6);
}

// KiB; 0 if unknown.
double ResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atof(line.c_str() + 6);
  }
  return 0;
}

double CountEntries(const char* directory) {
  double count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory)) count++;
  return count;
}

void AddUse(IpcReport& report, const char* row) {
  report.AddIncomparable(row, "resident KiB", ResidentKiB());
  report.AddIncomparable(row, "descriptors", CountEntries("/proc/self/fd"));
  report.AddIncomparable(row, "threads", CountEntries("/proc/self/task"));
}

void StartAndStop(VLTStdMPRunLoopThread& thread, int pairs) {
  for (int i = 0; i < pairs; i++) {
    if (thread.StartThread() != 0 || thread.StopThread() != 0) Fail("a start or stop failed");
  }
}

// Measures a bare thread with a file descriptor of its own, started and joined.
void StartAndJoin(int pairs) {
  for (int i = 0; i < pairs; i++) {
    std::thread([] { close(eventfd(0, EFD_CLOEXEC)); }).join();
  }
}

void MeasurePairs(IpcReport& report) {
  constexpr int kPairs = 100'000;
  VLTStdMPRunLoopThread thread;
  StartAndStop(thread,
               20'000);  // what is made once and kept, as the allocator's arenas for threads
  IpcReport loadsTheCode;
  AddUse(loadsTheCode, "not counted");
  AddUse(report, "before");
  const double bare = Seconds([&] { StartAndJoin(kPairs / 10); });
  report.Add("bare thread and eventfd", "start and stop us", bare * 1e6 / (kPairs / 10));
  const double took = Seconds([&] { StartAndStop(thread, kPairs); });
  report.Add("run-loop thread", "start and stop us", took * 1e6 / kPairs);
  AddUse(report, "after 100,000");
  StartAndStop(thread, kPairs);
  AddUse(report, "after 200,000");
  if (thread.FinalizeIfNeeded(0) != 0) Fail("the thread did not end");
}

}  // namespace

int main() {
  IpcReport report;
  MeasurePairs(report);
  MeasureCalls(report);
  for (int round = 0; round < 9; round++) {
    MeasureQueue<BareQueue>(report, "bare");
    MeasureQueue<OurQueue>(report, "MPNotifyQueue, MPWaitOnQueue");
  }
  report.PrintTable();
  return 0;
}
