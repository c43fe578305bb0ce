#pragma once

// Functions that run at a thread's end. They are what destructors of thread_local objects would be,
// without their fault: the C library aborts the process if it has no memory to register such a
// destructor. Registering one of these needs no memory.

// One registration: a thread_local object, constinit, that lives as long as its thread.
struct HostThreadEnd {
  void (*run)();
  HostThreadEnd* next = nullptr;
  bool isWaiting = false;  // registered, and not yet run
};

// Runs `end.run` when the calling thread ends, or when it is the one that ends the process. What
// was registered last runs first, and all of it after the destructors of thread_local objects. It
// may be registered anew while it runs or later; what is registered after the end stays.
void HostRegisterThreadEnd(HostThreadEnd& end);
inline void HostAtThreadEnd(HostThreadEnd& end) {
  if (!end.isWaiting) HostRegisterThreadEnd(end);
}
