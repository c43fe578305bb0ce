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

// The key's value only has to be set. The C library stores the values of the first 32 keys in the
// thread itself, so setting one needs no memory. Keys have no effect at the end of the process, so
// there is an exit handler as well; the C library has room for the first 32 handlers.
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
