#include "platform/host/base/thread_end.h"

#include <pthread.h>

#include <cstdlib>
#include <utility>

namespace {

constinit thread_local HostThreadEnd* sEnds = nullptr;

void RunEnds() {
  while (HostThreadEnd* const end = sEnds) {
    sEnds = std::exchange(end->next, nullptr);
    end->isWaiting = false;
    end->run();
  }
}

// The key's value only has to be set; the C library keeps those of the first 32 keys in the thread
// itself. At the process's end keys do not count, so an exit handler stands beside it; the C
// library has room for the first 32 of those as well.
pthread_key_t MakeKey() {
  pthread_key_t key = 0;
  if (pthread_key_create(&key, [](void*) { RunEnds(); }) != 0) std::abort();
  std::atexit(RunEnds);
  return key;
}

}  // namespace

void HostRegisterThreadEnd(HostThreadEnd& end) {
  static const pthread_key_t sKey = MakeKey();
  pthread_setspecific(sKey, &end);
  end.next = std::exchange(sEnds, &end);
  end.isWaiting = true;
}
