#pragma once

#include <new>
#include <type_traits>
#include <utility>

// HostGuard is used at the edge of a platform call. Inside the host layer std::bad_alloc may pass
// through any function, which leaves its own state as it was. The call catches it and returns its
// memory error instead:
//
//   kern_return_t bootstrap_register(...) {
//     return HostGuard(BOOTSTRAP_NO_MEMORY, [&] { return Register(name, port); });
//   }
//
// Any thread. Callouts are made outside of it, because a callout's own exceptions pass through a
// run loop.
template <class Result, class Work>
Result HostGuard(Result withoutMemory, Work&& work) {
  try {
    return std::forward<Work>(work)();
  } catch (const std::bad_alloc&) {
    return withoutMemory;
  }
}

// For a call without a result. Returns false if there was no memory.
template <class Work>
requires std::is_void_v<std::invoke_result_t<Work>>
bool HostGuard(Work&& work) {
  try {
    std::forward<Work>(work)();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}
