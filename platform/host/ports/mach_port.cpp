#include <mach/mach.h>

#include <servers/bootstrap.h>

#include <cstring>
#include <string>

#include "platform/host/base/guard.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/ports/receiver.h"
#include "platform/host/ports/services.h"
#include "platform/host/session/name_registry.h"
#include "platform/host/session/session_directory.h"

namespace {

bool IsOwnTask(mach_port_t task) { return task == kHostTaskPort; }

bool IsServiceName(const char* name) {
  if (name == nullptr) return false;
  const size_t size = strnlen(name, BOOTSTRAP_MAX_NAME_LEN);
  return size > 0 && size < BOOTSTRAP_MAX_NAME_LEN;
}

kern_return_t LookUp(const char* name, mach_port_t* port) {
  mach_port_t found = HostFindOwnService(name);
  if (found == MACH_PORT_NULL) {
    uint64_t portID = 0;
    const kern_return_t err = HostFindName(name, &portID);
    if (err != BOOTSTRAP_SUCCESS) return err;
    found = HostInsertSendRight(portID);
    if (found == MACH_PORT_NULL) return KERN_NO_SPACE;
  } else {
    HostAddSendReference(found);
  }
  *port = found;
  return BOOTSTRAP_SUCCESS;
}

}  // namespace

mach_port_t mach_task_self(void) { return kHostTaskPort; }

kern_return_t task_get_special_port(task_t task, int which, mach_port_t* port) {
  if (!IsOwnTask(task) || which != TASK_BOOTSTRAP_PORT || port == nullptr) {
    return KERN_INVALID_ARGUMENT;
  }
  return HostGuard(KERN_RESOURCE_SHORTAGE, [&] {
    if (HostGetSessionDirectory() == nullptr) return KERN_FAILURE;
    *port = kHostBootstrapPort;
    return KERN_SUCCESS;
  });
}

kern_return_t mach_port_allocate(ipc_space_t task, mach_port_right_t right,
                                 mach_port_name_t* name) {
  if (!IsOwnTask(task)) return KERN_INVALID_TASK;
  if (name == nullptr) return KERN_INVALID_ARGUMENT;
  if (right != MACH_PORT_RIGHT_RECEIVE) return KERN_INVALID_VALUE;
  const mach_port_t port = HostGuard(mach_port_t{MACH_PORT_NULL},
                                     [] { return HostAllocateReceiveRight(HostMakeReceiver); });
  if (port == MACH_PORT_NULL) return KERN_NO_SPACE;
  *name = port;
  return KERN_SUCCESS;
}

kern_return_t mach_port_insert_right(ipc_space_t task, mach_port_name_t name, mach_port_t right,
                                     mach_msg_type_name_t kind) {
  if (!IsOwnTask(task)) return KERN_INVALID_TASK;
  if (kind != MACH_MSG_TYPE_MAKE_SEND) return KERN_INVALID_VALUE;
  if (name != right) return KERN_INVALID_CAPABILITY;
  return HostAddSendReference(name);
}

kern_return_t mach_port_deallocate(ipc_space_t task, mach_port_name_t name) {
  return IsOwnTask(task) ? HostDropReference(name) : KERN_INVALID_TASK;
}

kern_return_t mach_port_destroy(ipc_space_t task, mach_port_name_t name) {
  if (!IsOwnTask(task)) return KERN_INVALID_TASK;
  HostForgetServicesOf(name);
  return HostDestroyRight(name);
}

kern_return_t bootstrap_register(mach_port_t bp, const name_t name, mach_port_t port) {
  if (bp != kHostBootstrapPort) return KERN_INVALID_NAME;
  if (!IsServiceName(name)) return KERN_INVALID_ARGUMENT;
  return HostGuard(kern_return_t{BOOTSTRAP_NO_MEMORY}, [&] {
    return port == MACH_PORT_NULL ? HostWithdrawService(name) : HostRegisterService(name, port);
  });
}

kern_return_t bootstrap_look_up(mach_port_t bp, const name_t name, mach_port_t* port) {
  if (port == nullptr) return KERN_INVALID_ARGUMENT;
  *port = MACH_PORT_NULL;
  if (bp != kHostBootstrapPort) return KERN_INVALID_NAME;
  if (name == nullptr) return KERN_INVALID_ARGUMENT;
  // A name that cannot be registered has no owner.
  if (!IsServiceName(name)) return BOOTSTRAP_UNKNOWN_SERVICE;
  return HostGuard(kern_return_t{BOOTSTRAP_NO_MEMORY}, [&] { return LookUp(name, port); });
}
