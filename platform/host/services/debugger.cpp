#include <CoreServices/Debugging.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <mutex>
#include <string_view>

#include "platform/host/base/open_file.h"
#include "platform/host/base/sink_file.h"

namespace {

bool IsTraced() {
  const HostOpenFile file(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) return false;
  char text[4096];
  const ssize_t size = read(file.Get(), text, sizeof text - 1);
  if (size <= 0) return false;
  text[size] = 0;
  constexpr char kField[] = "\nTracerPid:";
  const char* found = strstr(text, kField);
  return found != nullptr && strtol(found + sizeof kField - 1, nullptr, 10) > 0;
}

// The signal is ignored while it is raised. A traced process reports it to its tracer all the same;
// a tracer that is not a debugger passes the signal on, and that does not end the process then.
void StopInTracer() {
  static constinit std::mutex sDispositionLock;
  const std::lock_guard<std::mutex> held(sDispositionLock);
  struct sigaction ignore = {};
  struct sigaction before;
  ignore.sa_handler = SIG_IGN;
  if (sigaction(SIGTRAP, &ignore, &before) != 0) return;
  raise(SIGTRAP);
  sigaction(SIGTRAP, &before, nullptr);
}

void Break(std::string_view text) {
  HostAppendToSink("VLTHOST_DEBUGGER", text);
  if (IsTraced()) StopInTracer();
}

}  // namespace

void Debugger(void) { Break("Debugger"); }

void DebugStr(ConstStr255Param text) {
  if (text == nullptr) return Break("");
  Break({reinterpret_cast<const char*>(text + 1), text[0]});
}
