#include "platform/host/base/descriptors.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#include <cerrno>

#include <atomic>
#include <cassert>
#include <mutex>

namespace {

// The kind of each file descriptor, by its number. Pages that were never written take no memory.
constexpr int kTableSize = 1 << 20;
constinit uint8_t sKinds[kTableSize] = {};
constinit std::atomic<int> sHighest{-1};
constinit std::atomic<uint32_t> sForkGeneration{1};

constinit std::mutex sOpening;
constinit std::atomic<bool> sHandlersInstalled{false};

constexpr int kMaxResets = 8;
constinit std::atomic<void (*)()> sResets[kMaxResets] = {};
constinit std::atomic<int> sResetCount{0};

std::atomic_ref<uint8_t> Kind(int fd) { return std::atomic_ref<uint8_t>(sKinds[fd]); }

void LockBeforeFork() { sOpening.lock(); }
void UnlockInParent() { sOpening.unlock(); }

void CloseKind(HostDescriptorKind kind, int highest) {
  for (int fd = 0; fd <= highest; fd++) {
    if (Kind(fd).load(std::memory_order_relaxed) != static_cast<uint8_t>(kind)) continue;
    close(fd);
    Kind(fd).store(0, std::memory_order_relaxed);
  }
}

// Closes the file descriptors and does nothing else: unlocking, EPOLL_CTL_DEL, shutdown and unlink
// would affect the parent, too.
void GiveUpInChild() {
  const int highest = sHighest.load(std::memory_order_relaxed);
  CloseKind(HostDescriptorKind::kEpoll, highest);
  CloseKind(HostDescriptorKind::kListener, highest);
  CloseKind(HostDescriptorKind::kConnection, highest);
  CloseKind(HostDescriptorKind::kNameFile, highest);
  CloseKind(HostDescriptorKind::kWake, highest);
  sHighest.store(-1, std::memory_order_relaxed);
  sForkGeneration.fetch_add(1, std::memory_order_relaxed);
  const int resets = sResetCount.load(std::memory_order_relaxed);
  for (int i = 0; i < resets; i++) sResets[i].load(std::memory_order_relaxed)();
  sOpening.unlock();
}

void InstallHandlers() {
  if (sHandlersInstalled.exchange(true)) return;
  const bool isInstalled = pthread_atfork(LockBeforeFork, UnlockInParent, GiveUpInChild) == 0;
  if (!isInstalled) sHandlersInstalled.store(false);  // no memory: the next opening tries again
}

}  // namespace

HostDescriptorOpening::HostDescriptorOpening() {
  InstallHandlers();
  sOpening.lock();
}

HostDescriptorOpening::~HostDescriptorOpening() { sOpening.unlock(); }

int HostDescriptorOpening::Enter(int fd, HostDescriptorKind kind) {
  fd = HostAboveStandard(fd);
  if (fd < 0) return -1;
  if (fd >= kTableSize) {
    close(fd);
    errno = EMFILE;
    return -1;
  }
  Kind(fd).store(static_cast<uint8_t>(kind), std::memory_order_relaxed);
  int highest = sHighest.load(std::memory_order_relaxed);
  while (highest < fd && !sHighest.compare_exchange_weak(highest, fd)) {
  }
  return fd;
}

int HostAboveStandard(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  close(fd);
  errno = error;
  return moved;
}

void HostCloseDescriptor(int fd) {
  if (fd < 0) return;
  // Cleared before closing: another thread may get the number as soon as it is closed.
  Kind(fd).store(0, std::memory_order_relaxed);
  close(fd);
}

uint32_t HostForkGeneration() { return sForkGeneration.load(std::memory_order_relaxed); }

void HostAtForkInChild(void (*reset)()) {
  const std::lock_guard<std::mutex> lock(sOpening);
  const int count = sResetCount.load();
  for (int i = 0; i < count; i++) {
    if (sResets[i].load() == reset) return;
  }
  assert(count < kMaxResets);
  sResets[count].store(reset);
  sResetCount.store(count + 1);
}
