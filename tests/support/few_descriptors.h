#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <vector>

// While it lives, this process can open exactly `count` more file descriptors.
class FewDescriptors {
 public:
  explicit FewDescriptors(size_t count) {
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit limit = before;
    limit.rlim_cur = 100;
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int taken = dup(0); taken >= 0; taken = dup(0)) held.push_back(taken);
    for (; count > 0 && !held.empty(); count--) {
      close(held.back());
      held.pop_back();
    }
  }
  ~FewDescriptors() {
    for (const int descriptor : held) close(descriptor);
    setrlimit(RLIMIT_NOFILE, &before);
  }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before = {};
  std::vector<int> held;
};
