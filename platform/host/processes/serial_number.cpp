#include "platform/host/processes/serial_number.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

#include <CoreServices/MacErrors.h>

namespace {

bool IsCurrentProcess(const ProcessSerialNumber& psn) {
  return psn.highLongOfPSN == 0 && psn.lowLongOfPSN == kCurrentProcess;
}

bool AreEqual(const ProcessSerialNumber& a, const ProcessSerialNumber& b) {
  return a.highLongOfPSN == b.highLongOfPSN && a.lowLongOfPSN == b.lowLongOfPSN;
}

ProcessSerialNumber Compose(uint64_t startTicks, pid_t pid) {
  const auto ticks = static_cast<UInt32>(startTicks);
  return {ticks != 0 ? ticks : 1, static_cast<UInt32>(pid)};
}

// This process's number, with the high word in the upper half. In a forked child it is the parent's
// until OwnSerialNumber notices that.
constinit std::atomic<uint64_t> sOwnNumber{0};

bool OwnSerialNumber(ProcessSerialNumber* psn) {
  const pid_t pid = getpid();
  const uint64_t known = sOwnNumber.load(std::memory_order_relaxed);
  *psn = {static_cast<UInt32>(known >> 32), static_cast<UInt32>(known)};
  if (psn->lowLongOfPSN == static_cast<UInt32>(pid)) return true;
  HostProcessStatus status;
  if (HostReadProcessStatus(pid, &status) != 0) return false;
  *psn = Compose(status.startTicks, pid);
  sOwnNumber.store(uint64_t{psn->highLongOfPSN} << 32 | psn->lowLongOfPSN,
                   std::memory_order_relaxed);
  return true;
}

// Replaces { 0, kCurrentProcess } by this process's number.
bool Resolve(const ProcessSerialNumber& psn, ProcessSerialNumber* resolved) {
  *resolved = psn;
  return !IsCurrentProcess(psn) || OwnSerialNumber(resolved);
}

}  // namespace

int HostFindSerialNumber(pid_t pid, ProcessSerialNumber* psn) {
  if (pid == getpid() && GetCurrentProcess(psn) == noErr) return 0;
  HostProcessStatus status;
  if (pid <= 0) return ESRCH;
  if (const int error = HostReadProcessStatus(pid, &status); error != 0) return error;
  if (status.uid != geteuid()) return ESRCH;
  *psn = Compose(status.startTicks, pid);
  return 0;
}

bool HostSerialNumberOfPid(pid_t pid, ProcessSerialNumber* psn) {
  return HostFindSerialNumber(pid, psn) == 0;
}

bool HostFindProcess(const ProcessSerialNumber& psn, HostProcess* process) {
  ProcessSerialNumber wanted;
  HostProcessStatus status;
  if (!Resolve(psn, &wanted) || wanted.lowLongOfPSN > INT32_MAX) return false;
  const auto pid = static_cast<pid_t>(wanted.lowLongOfPSN);
  if (pid <= 0 || HostReadProcessStatus(pid, &status) != 0) return false;
  if (pid != getpid() && status.uid != geteuid()) return false;
  if (!AreEqual(Compose(status.startTicks, pid), wanted)) return false;
  *process = {pid, wanted, status};
  return true;
}

pid_t HostPidOfSerialNumber(const ProcessSerialNumber& psn) {
  HostProcess process;
  return HostFindProcess(psn, &process) ? process.pid : 0;
}

OSErr GetCurrentProcess(ProcessSerialNumber* psn) {
  if (psn == nullptr) return paramErr;
  ProcessSerialNumber own;
  if (!OwnSerialNumber(&own)) return procNotFound;
  *psn = own;
  return noErr;
}

OSErr SameProcess(const ProcessSerialNumber* a, const ProcessSerialNumber* b, Boolean* result) {
  if (a == nullptr || b == nullptr || result == nullptr) return paramErr;
  ProcessSerialNumber left;
  ProcessSerialNumber right;
  if (!Resolve(*a, &left) || !Resolve(*b, &right)) return procNotFound;
  *result = AreEqual(left, right);
  return noErr;
}

OSStatus GetProcessPID(const ProcessSerialNumber* psn, pid_t* pid) {
  if (psn == nullptr || pid == nullptr) return paramErr;
  const pid_t found = HostPidOfSerialNumber(*psn);
  if (found == 0) return procNotFound;
  *pid = found;
  return noErr;
}

OSStatus GetProcessForPID(pid_t pid, ProcessSerialNumber* psn) {
  if (psn == nullptr) return paramErr;
  return HostSerialNumberOfPid(pid, psn) ? noErr : procNotFound;
}
