#include "tests/support/failing_allocations.h"

#include <execinfo.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <new>

// The functions below replace the C library's in the whole program, from its first instruction on,
// so their state has to be complete without any code that runs at start.

#ifdef VLT_ABOVE_ADDRESS_SANITIZER
#define UNDERLYING(name) __interceptor_##name
#else
#define UNDERLYING(name) __libc_##name
#endif

extern "C" {
void* UNDERLYING(malloc)(size_t size);
void* UNDERLYING(calloc)(size_t count, size_t size);
void* UNDERLYING(realloc)(void* block, size_t size);
void* UNDERLYING(memalign)(size_t alignment, size_t size);
void UNDERLYING(free)(void* block);
}

namespace {

constexpr int kMaxFrames = 24;

enum class Scope { kNone, kThread, kProcess };

std::atomic<Scope> sScope{Scope::kNone};
std::atomic<const void*> sThread{nullptr};
std::atomic<AllocationFailure> sKind{AllocationFailure::kOne};
std::atomic<int> sNumber{0};
std::atomic<int> sCount{0};
std::atomic<int> sFailed{0};
std::atomic<int> sDescriptor{-1};
std::atomic<long> sLive{0};
constinit void* sFrames[kMaxFrames] = {};
constinit int sFrameCount = 0;

constinit thread_local char tThread = 0;      // its address stands for the thread
constinit thread_local bool tInside = false;  // in the layer itself

bool IsArmedHere() {
  switch (sScope.load(std::memory_order_relaxed)) {
    case Scope::kNone:
      return false;
    case Scope::kThread:
      return sThread.load(std::memory_order_relaxed) == &tThread && !tInside;
    default:
      return !tInside;
  }
}

// Not backtrace(): it loads a library at its first call, which allocates.
_Unwind_Reason_Code NoteFrame(_Unwind_Context* context, void*) {
  if (sFrameCount == kMaxFrames) return _URC_END_OF_STACK;
  // GetIP's result is an address that only serves to be printed.
  sFrames[sFrameCount++] = reinterpret_cast<void*>(_Unwind_GetIP(context));  // NOLINT
  return _URC_NO_REASON;
}

void NoteFailure() {
  tInside = true;
  sFailed++;
  sFrameCount = 0;
  _Unwind_Backtrace(NoteFrame, nullptr);
  if (const int descriptor = sDescriptor; descriptor >= 0) {
    [[maybe_unused]] const ssize_t ignored = write(descriptor, "failed\n", 7);
  }
  tInside = false;
}

// Whether this allocation is to fail.
bool Fails() {
  if (!IsArmedHere()) return false;
  const int count = ++sCount;
  const int number = sNumber;
  if (number == 0 || count < number) return false;
  if (count > number && sKind.load() == AllocationFailure::kOne) return false;
  NoteFailure();
  errno = ENOMEM;
  return true;
}

void* Counted(void* block) {
  if (block != nullptr) sLive.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void Arm(Scope scope, int number, AllocationFailure kind, int descriptor) {
  sScope = Scope::kNone;
  sThread = &tThread;
  sNumber = number;
  sKind = kind;
  sCount = 0;
  sFailed = 0;
  sFrameCount = 0;
  sDescriptor = descriptor;
  sScope = scope;
}

void* Allocate(size_t size) { return std::malloc(size > 0 ? size : 1); }

void* Allocate(size_t size, std::align_val_t alignment) {
  if (Fails()) return nullptr;
  return Counted(UNDERLYING(memalign)(static_cast<size_t>(alignment), size > 0 ? size : 1));
}

void* OrThrow(void* block) { return block != nullptr ? block : throw std::bad_alloc(); }

}  // namespace

extern "C" {

void* malloc(size_t size) { return Fails() ? nullptr : Counted(UNDERLYING(malloc)(size)); }

void* calloc(size_t count, size_t size) {
  return Fails() ? nullptr : Counted(UNDERLYING(calloc)(count, size));
}

void* realloc(void* block, size_t size) {
  if (Fails()) return nullptr;
  void* const moved = UNDERLYING(realloc)(block, size);
  if (block == nullptr) return Counted(moved);
  if (moved == nullptr && size == 0) sLive.fetch_sub(1, std::memory_order_relaxed);
  return moved;
}

void* memalign(size_t alignment, size_t size) {
  return Fails() ? nullptr : Counted(UNDERLYING(memalign)(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** block, size_t alignment, size_t size) {
  void* const made = memalign(alignment, size);
  if (made == nullptr) return ENOMEM;
  *block = made;
  return 0;
}

void free(void* block) {
  if (block != nullptr) sLive.fetch_sub(1, std::memory_order_relaxed);
  UNDERLYING(free)(block);
}

}  // extern "C"

// NOLINTBEGIN(misc-new-delete-overloads): each has its match among these.
void* operator new(size_t size) { return OrThrow(Allocate(size)); }
void* operator new[](size_t size) { return OrThrow(Allocate(size)); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new(size_t size, std::align_val_t to) { return OrThrow(Allocate(size, to)); }
void* operator new[](size_t size, std::align_val_t to) { return OrThrow(Allocate(size, to)); }
void* operator new(size_t size, std::align_val_t to, const std::nothrow_t&) noexcept {
  return Allocate(size, to);
}
void* operator new[](size_t size, std::align_val_t to, const std::nothrow_t&) noexcept {
  return Allocate(size, to);
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t) noexcept { std::free(block); }
void operator delete[](void* block, size_t) noexcept { std::free(block); }
void operator delete(void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, std::align_val_t) noexcept { std::free(block); }
void operator delete(void* block, size_t, std::align_val_t) noexcept { std::free(block); }
void operator delete[](void* block, size_t, std::align_val_t) noexcept { std::free(block); }
// NOLINTEND(misc-new-delete-overloads)

void ArmAllocationFailure(int number, AllocationFailure kind) {
  Arm(Scope::kThread, number, kind, -1);
}

void ArmAllocationFailureOfProcess(int number, AllocationFailure kind, int descriptor) {
  Arm(Scope::kProcess, number, kind, descriptor);
}

void DisarmAllocationFailure() { sScope = Scope::kNone; }
int AllocationsSinceArmed() { return sCount; }
int FailedAllocations() { return sFailed; }
long LiveAllocations() { return sLive; }

std::string WhereAllocationFailed() {
  std::string text;
  char** const lines = backtrace_symbols(sFrames, sFrameCount);
  for (int i = 0; lines != nullptr && i < sFrameCount; i++) (text += lines[i]) += '\n';
  std::free(lines);
  return text;
}

namespace {

const char* sSwept = "";

// Otherwise a stray exception would end the test without a report of its allocation.
[[noreturn]] void TellAndAbort() {
  DisarmAllocationFailure();
  std::fprintf(stderr, "%s: std::terminate with allocation %d failing\n%s", sSwept, sNumber.load(),
               WhereAllocationFailed().c_str());
  std::abort();
}

struct Round {
  OSStatus status = 0;
  bool hasThrown = false;
  int allocations = 0;
  int failed = 0;
};

Round DoOnce(const AllocationSweep& sweep, int number, AllocationFailure kind) {
  Round round;
  ArmAllocationFailure(number, kind);
  try {
    round.status = sweep.work();
  } catch (...) {
    round.hasThrown = true;
    round.status = -1;  // for the check: it did not succeed
  }
  DisarmAllocationFailure();
  round.allocations = AllocationsSinceArmed();
  round.failed = FailedAllocations();
  return round;
}

// One number; the last of the rounds that this takes.
Round TryNumber(const AllocationSweep& sweep, int number, AllocationFailure kind) {
  // More than the parts of the largest table whose parts each keep a block from their first use on.
  constexpr int kRepetitions = 20;
  Round round;
  long lost = 0;
  for (int i = 0; i < kRepetitions; i++) {
    const long before = LiveAllocations();
    round = DoOnce(sweep, number, kind);
    EXPECT_FALSE(round.hasThrown) << WhereAllocationFailed();
    const bool isPermitted =
        round.status == 0 || (round.failed > 0 && sweep.refusals.contains(round.status));
    EXPECT_TRUE(isPermitted) << "status " << round.status << '\n' << WhereAllocationFailed();
    if (sweep.check) sweep.check(round.status);
    lost = LiveAllocations() - before;
    if (lost <= 0) return round;
  }
  ADD_FAILURE() << lost << " blocks lost at each repetition\n" << WhereAllocationFailed();
  return round;
}

}  // namespace

void SweepAllocations(const AllocationSweep& sweep) {
  constexpr int kMost = 20000;
  const std::terminate_handler handler = std::set_terminate(TellAndAbort);
  sSwept = sweep.name;
  EXPECT_EQ(0, sweep.work()) << sweep.name << ", before any allocation fails";
  for (const auto kind : {AllocationFailure::kOne, AllocationFailure::kAllFromThere}) {
    std::map<OSStatus, int> outcomes;
    int number = 1;
    for (; number < kMost && !testing::Test::HasFatalFailure(); number++) {
      SCOPED_TRACE(std::string(sweep.name) + ", allocation " + std::to_string(number) +
                   (kind == AllocationFailure::kOne ? " fails" : " and all later ones fail"));
      const Round round = TryNumber(sweep, number, kind);
      if (round.failed == 0) {
        EXPECT_EQ(0, round.status);
        break;
      }
      outcomes[round.status]++;
    }
    EXPECT_LT(number, kMost) << "there seems to be no end";
    std::printf("%-28s %-4s %4d allocations:", sweep.name,
                kind == AllocationFailure::kOne ? "one" : "all", number - 1);
    for (const auto& [status, count] : outcomes) {
      std::printf(" %d x %d", count, static_cast<int>(status));
    }
    std::printf("\n");
  }
  std::set_terminate(handler);
}
