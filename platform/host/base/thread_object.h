#pragma once

#include <utility>

#include "platform/host/base/thread_end.h"

// HostThreadObject<T>() returns the calling thread's own T. The first call makes it, or throws
// std::bad_alloc; it is destroyed when the thread ends. Unlike a plain thread_local, it can still
// be used by destructors that run later, such as those of a program's static objects: they get a
// new one, which is never destroyed.
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
