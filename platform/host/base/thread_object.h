#pragma once

#include <utility>

// HostThreadObject<T>() is the calling thread's own T, made on first use and destroyed when the
// thread ends. Unlike a plain thread_local it may still be used by destructors that run later (a
// program's static objects, another library's thread objects): they get a new one, which then
// stays.
template <class T>
T& HostThreadObject() {
  constinit thread_local T* object = nullptr;
  struct End {
    T** place;
    ~End() { delete std::exchange(*place, nullptr); }
  };
  if (object == nullptr) [[unlikely]] {
    object = new T;
    thread_local const End end{&object};
    (void)end;
  }
  return *object;
}
