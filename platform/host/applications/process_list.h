#pragma once

#include <string>

#include "platform/host/applications/bundle.h"
#include "platform/host/processes/serial_number.h"

// Which application a process is. Any thread.

// Finds the path of a process's program ("" if it cannot be read) and the application bundle whose
// program it is. Returns false for a program without a bundle; the bundle's type and signature are
// then '????'.
bool HostBundleOfProcess(const HostProcess& process, std::string* program, HostBundle* bundle);
