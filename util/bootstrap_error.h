#pragma once

#include <CoreServices/CoreServices.h>
#include <servers/bootstrap.h>

// Returns true for the bootstrap server's own errors: not privileged, name in use, unknown service,
// service active, bad count, no memory. Any thread.
constexpr bool IsBootstrapError(OSStatus status) {
  return status >= BOOTSTRAP_NOT_PRIVILEGED && status <= BOOTSTRAP_NO_MEMORY;
}
