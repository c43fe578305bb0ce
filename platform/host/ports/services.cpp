#include "platform/host/ports/services.h"

#include <servers/bootstrap.h>

#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/mutex.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/ports/receiver.h"

namespace {

// Texts are looked up as they are: a look-up must not fail for lack of memory.
struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};

struct Services {
  std::unordered_map<std::string, mach_port_t, TextHash, std::equal_to<>> ports;
  const Services* inherited = nullptr;  // the parent's, in a forked child: unused, but not freed
};

// Nothing else is locked under the mutex.
constinit HostMutex sMutexStorage;
constinit HostMutex* sMutex = &sMutexStorage;
constinit Services* sServices = nullptr;
constinit const Services* sInherited = nullptr;

alignas(HostMutex) constinit char sChildMutex[sizeof(HostMutex)] = {};

// The parent's map is not used and not freed: a thread that does not exist here may have been
// changing it.
void ForgetAllInChild() {
  sMutex = new (sChildMutex) HostMutex;
  if (sServices != nullptr) sInherited = sServices;
  sServices = nullptr;
}

void Note(const char* service, mach_port_t port) {
  static const bool sInstalled = (HostAtForkInChild(ForgetAllInChild), true);
  (void)sInstalled;
  const std::lock_guard<HostMutex> lock(*sMutex);
  if (sServices == nullptr) {
    auto services = std::make_unique<Services>();
    services->inherited = sInherited;
    sServices = services.release();
  }
  sServices->ports.insert_or_assign(service, port);
}

// Needs no memory.
template <class Condition>
void ForgetIf(Condition condition) {
  const std::lock_guard<HostMutex> lock(*sMutex);
  if (sServices != nullptr) std::erase_if(sServices->ports, condition);
}

}  // namespace

kern_return_t HostRegisterService(const char* service, mach_port_t port) {
  const auto receiver = HostReceiverOf(port);
  if (receiver == nullptr) return KERN_INVALID_RIGHT;
  if (receiver->IsRegisteredAs(service)) return BOOTSTRAP_SUCCESS;
  const kern_return_t err = receiver->Register(service);
  if (err != 0) return err;
  if (!HostGuard([&] { Note(service, port); })) {
    receiver->Unregister(service);
    return BOOTSTRAP_NO_MEMORY;
  }
  // Destroyed meanwhile, perhaps before it was noted.
  if (receiver->IsDestroyed()) HostForgetServicesOf(port);
  return BOOTSTRAP_SUCCESS;
}

kern_return_t HostWithdrawService(const char* service) {
  const auto receiver = HostReceiverOf(HostFindOwnService(service));
  if (receiver == nullptr || !receiver->Unregister(service)) return BOOTSTRAP_UNKNOWN_SERVICE;
  ForgetIf([service](const auto& each) { return each.first == service; });
  return BOOTSTRAP_SUCCESS;
}

mach_port_t HostFindOwnService(const char* service) {
  const std::lock_guard<HostMutex> lock(*sMutex);
  if (sServices == nullptr || sServices->ports.empty()) return MACH_PORT_NULL;
  const auto found = sServices->ports.find(std::string_view(service));
  return found == sServices->ports.end() ? MACH_PORT_NULL : found->second;
}

void HostForgetServicesOf(mach_port_t port) {
  ForgetIf([port](const auto& each) { return each.second == port; });
}
