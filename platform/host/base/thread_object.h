#pragma once

#include <utility>

#include "platform/host/base/thread_end.h"

// HostThreadObject<T>() is the calling thread's own T, made on first use (std::bad_alloc without
// memory) and destroyed when the thread ends. Unlike a plain thread_local it may still be used by
// destructors that run later (a program's static objects, another library's thread objects): they
// get a new one, which then stays.
template <class T>
struct HostThreadPlace {
  static void Destroy() { delete std::exchange(object, nullptr); }

  static constinit inline thread_local T* object = nullptr;
  static constinit inline thread_local HostThreadEnd end{Destroy};
};

template <class T>
T& HostThreadObject() {
  using Place = HostThreadPlace<T>;
  if (Place::object == nullptr) [[unlikely]] {
    Place::object = new T;
    HostAtThreadEnd(Place::end);
  }
  return *Place::object;
}
