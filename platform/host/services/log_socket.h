#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

// HostLogSocket writes to the system log: one datagram for each entry, to the socket at a path. It
// never waits, allocates nothing and keeps no file descriptor. An entry that the log does not take
// at once is lost; the next one that it takes is preceded by an entry with the number of lost ones.
// Any thread, and a forked child.
class HostLogSocket {
 public:
  // `path` is borrowed.
  explicit constexpr HostLogSocket(const char* path) : path(path) {}
  HostLogSocket(const HostLogSocket&) = delete;
  HostLogSocket& operator=(const HostLogSocket&) = delete;

  // `priority`: level and facility; without a facility LOG_USER. `text` has at most kMaxText
  // bytes; control bytes become spaces, so that an entry is one line. The entry bears the program's
  // short name and the process id.
  void Write(int priority, std::string_view text);

  static constexpr size_t kMaxText = 2047;

 private:
  bool Send(int priority, std::string_view text);
  bool SendToLog(const char* bytes, size_t size) const;

  const char* const path;
  std::atomic<uint32_t> lost{0};
};
