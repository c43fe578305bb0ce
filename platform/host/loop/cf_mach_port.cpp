#include <CoreFoundation/CFMachPort.h>

#include <atomic>
#include <mutex>
#include <new>
#include <unordered_map>

#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/mutex.h"
#include "platform/host/loop/run_loop.h"
#include "platform/host/objects/cf_object.h"
#include "platform/host/ports/port_table.h"

// valid --CFMachPortInvalidate, or its right destroyed elsewhere--> invalid --last release--> gone
struct __CFMachPort final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeMachPort;

  __CFMachPort(mach_port_t port, bool ownsRight, CFMachPortCallBack callout,
               const CFMachPortContext* given);

  mach_port_t Port() const { return port; }
  void CopyContext(CFMachPortContext* out) const { *out = context; }
  bool IsValid() const { return valid.load(std::memory_order_acquire); }
  void SetInvalidationCallBack(CFMachPortInvalidationCallBack callback);
  CFRunLoopSourceRef CopySource(CFIndex order);
  void Deliver(void* message, CFIndex size);
  void Invalidate();

 private:
  void LastRelease() override;

  const mach_port_t port;
  const bool ownsRight;
  const CFMachPortCallBack callout;
  CFMachPortContext context = {};
  HostMutex mutex;
  std::atomic<bool> valid{true};  // changed under the mutex
  CFMachPortInvalidationCallBack invalidation = nullptr;
  HostRetained<__CFRunLoopSource> source;
};

namespace {

using MachPort = HostRetained<__CFMachPort>;

// The objects by their port, not owned. LastRelease takes its object out under the mutex.
constinit HostMutex sMutex;
using PortMap = std::unordered_map<mach_port_t, __CFMachPort*>;
constinit __CFMachPort* sFound = nullptr;  // of the map: the last one found, or null

constinit PortMap* sPorts = nullptr;  // made by the first object, never destroyed

MachPort FindPort(mach_port_t port) {
  const std::lock_guard<HostMutex> lock(sMutex);
  if (sPorts == nullptr) return MachPort();
  if (sFound == nullptr || sFound->Port() != port) {
    const auto found = sPorts->find(port);
    if (found == sPorts->end()) return MachPort();
    sFound = found->second;
  }
  return sFound->RetainUnlessDying() ? MachPort(sFound) : MachPort();
}

// The right was destroyed: its object must not stay valid.
void PortDied(mach_port_t port) {
  if (const MachPort object = FindPort(port)) object->Invalidate();
}

void* PortInfo(mach_port_t port) { return reinterpret_cast<void*>(static_cast<uintptr_t>(port)); }

mach_port_t SourcePort(void* info) {
  return static_cast<mach_port_t>(reinterpret_cast<uintptr_t>(info));
}

void* SourcePerform(void* message, CFIndex size, CFAllocatorRef, void* info) {
  if (const MachPort object = FindPort(SourcePort(info))) object->Deliver(message, size);
  return nullptr;
}

// Enters `made` under its port. Returns the object that the map has then: `made`, or one that
// another thread has entered meanwhile. Retained for the caller.
MachPort Enter(const MachPort& made) {
  const std::lock_guard<HostMutex> lock(sMutex);
  if (sPorts == nullptr) sPorts = new PortMap;
  __CFMachPort*& entry = sPorts->try_emplace(made->Port(), nullptr).first->second;
  if (entry != nullptr && entry->RetainUnlessDying()) return MachPort(entry);
  entry = sFound = made.Get();  // what was there before is dying
  return made;
}

// If this fails and `ownsRight`, the right is destroyed. The client's retain callback runs without
// a lock, and so before the object is entered, where others find it.
CFMachPortRef Create(mach_port_t port, bool ownsRight, CFMachPortCallBack callout,
                     CFMachPortContext* context, Boolean* shouldFreeInfo) {
  HostSetDeathObserver(PortDied);
  MachPort result = FindPort(port);
  bool isNew = false;
  if (!result) {
    const MachPort made(new (std::nothrow) __CFMachPort(port, ownsRight, callout, context));
    if (!made) {
      if (ownsRight) mach_port_destroy(mach_task_self(), port);
      return nullptr;
    }
    result = Enter(made);
    isNew = result.Get() == made.Get();
  }
  if (shouldFreeInfo != nullptr) *shouldFreeInfo = isNew ? 0 : 1;
  return result.Give();
}

}  // namespace

__CFMachPort::__CFMachPort(mach_port_t port, bool ownsRight, CFMachPortCallBack callout,
                           const CFMachPortContext* given)
    : HostCFObject(kClass), port(port), ownsRight(ownsRight), callout(callout) {
  if (given == nullptr) return;
  context = *given;
  if (context.retain != nullptr) context.retain(context.info);
}

void __CFMachPort::LastRelease() {
  Retain();  // a callback below may count references of its own
  {
    const std::lock_guard<HostMutex> lock(sMutex);
    if (sPorts != nullptr) {  // null if there was no memory to enter the first object
      const auto found = sPorts->find(port);
      if (found != sPorts->end() && found->second == this) sPorts->erase(found);
    }
    if (sFound == this) sFound = nullptr;
  }
  Invalidate();
  if (ownsRight) mach_port_destroy(mach_task_self(), port);
  delete this;
}

void __CFMachPort::SetInvalidationCallBack(CFMachPortInvalidationCallBack callback) {
  {
    const std::lock_guard<HostMutex> lock(mutex);
    if (valid) {
      invalidation = callback;
      return;
    }
  }
  if (callback != nullptr) callback(this, context.info);
}

CFRunLoopSourceRef __CFMachPort::CopySource(CFIndex order) {
  const std::lock_guard<HostMutex> lock(mutex);
  if (!valid) return nullptr;
  if (!source || !source->IsValid()) {
    CFRunLoopSourceContext1 sourceContext = {};
    sourceContext.version = 1;
    sourceContext.info = PortInfo(port);
    sourceContext.getPort = SourcePort;
    sourceContext.perform = SourcePerform;
    source =
        HostRetained<__CFRunLoopSource>(new (std::nothrow) __CFRunLoopSource(order, sourceContext));
    if (!source) return nullptr;
  }
  source->Retain();
  return source.Get();
}

void __CFMachPort::Deliver(void* message, CFIndex size) {
  if (callout != nullptr && IsValid()) callout(this, message, size, context.info);
}

void __CFMachPort::Invalidate() {
  HostRetained<__CFRunLoopSource> dropped;
  CFMachPortInvalidationCallBack callback = nullptr;
  {
    const std::lock_guard<HostMutex> lock(mutex);
    if (!valid) return;
    valid = false;
    dropped = std::move(source);
    callback = std::exchange(invalidation, nullptr);
  }
  if (dropped) dropped->Invalidate();
  if (callback != nullptr) callback(this, context.info);
  if (context.release != nullptr) context.release(context.info);
}

// The documented calls.

CFTypeID CFMachPortGetTypeID(void) { return kHostTypeMachPort; }

CFMachPortRef CFMachPortCreate(CFAllocatorRef, CFMachPortCallBack callout,
                               CFMachPortContext* context, Boolean* shouldFreeInfo) {
  mach_port_t port = MACH_PORT_NULL;
  if (mach_port_allocate(mach_task_self(), MACH_PORT_RIGHT_RECEIVE, &port) != KERN_SUCCESS) {
    return nullptr;
  }
  mach_port_insert_right(mach_task_self(), port, port, MACH_MSG_TYPE_MAKE_SEND);
  return HostGuard<CFMachPortRef>(
      nullptr, [&] { return Create(port, true, callout, context, shouldFreeInfo); });
}

CFMachPortRef CFMachPortCreateWithPort(CFAllocatorRef, mach_port_t port, CFMachPortCallBack callout,
                                       CFMachPortContext* context, Boolean* shouldFreeInfo) {
  return HostGuard<CFMachPortRef>(nullptr, [&]() -> CFMachPortRef {
    if (HostReceiverOf(port) == nullptr) return nullptr;
    return Create(port, false, callout, context, shouldFreeInfo);
  });
}

mach_port_t CFMachPortGetPort(CFMachPortRef ref) {
  const auto* port = HostCast<__CFMachPort>(ref);
  return port == nullptr ? MACH_PORT_NULL : port->Port();
}

void CFMachPortGetContext(CFMachPortRef ref, CFMachPortContext* context) {
  const auto* port = HostCast<__CFMachPort>(ref);
  if (port != nullptr && context != nullptr) port->CopyContext(context);
}

Boolean CFMachPortIsValid(CFMachPortRef ref) {
  auto* port = HostCast<__CFMachPort>(ref);
  return port != nullptr && port->IsValid();
}

void CFMachPortInvalidate(CFMachPortRef ref) {
  const MachPort port = MachPort::Retaining(HostCast<__CFMachPort>(ref));
  if (port) port->Invalidate();
}

void CFMachPortSetInvalidationCallBack(CFMachPortRef ref, CFMachPortInvalidationCallBack callout) {
  if (auto* port = HostCast<__CFMachPort>(ref)) port->SetInvalidationCallBack(callout);
}

CFRunLoopSourceRef CFMachPortCreateRunLoopSource(CFAllocatorRef, CFMachPortRef ref, CFIndex order) {
  auto* port = HostCast<__CFMachPort>(ref);
  return port == nullptr ? nullptr : port->CopySource(order);
}
