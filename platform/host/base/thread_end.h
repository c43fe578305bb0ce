#pragma once

// Functions that run at a thread's end. They replace destructors of thread_local objects, for which
// the C library needs memory: without it, the library aborts the process. Registering one of these
// functions needs no memory.

// One registration: a thread_local object, constinit, that lives as long as its thread.
struct HostThreadEnd {
  void (*run)();
  HostThreadEnd* next = nullptr;
  bool isWaiting = false;  // registered, and not yet run
};

// Makes `end.run` run when the calling thread ends, or when this thread ends the process. The last
// one registered runs first; all run after the destructors of thread_local objects. A function may
// be registered again while it runs or later. One that is registered after the thread's last
// function has run is never called.
void HostRegisterThreadEnd(HostThreadEnd& end);
inline void HostAtThreadEnd(HostThreadEnd& end) {
  if (!end.isWaiting) HostRegisterThreadEnd(end);
}
