#include "bench/ipc_transport.h"

// For builds without sd-bus.
std::unique_ptr<IpcTransport> NewDBusTransport(const std::string&) { return nullptr; }
