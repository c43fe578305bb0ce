#include "platform/host/preferences/watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include <utility>

// How a change is noticed.
//
// inotify reports changes in a folder, by name. Arm goes down each path from the root and watches
// every folder on the way for the next name; at a symbolic link it goes on at its target. Each
// folder is watched before its entry is looked at, so an entry that appears in between is reported.
// A report that concerns none of these names is skipped. After any other the caller arms again,
// which follows the path as it is now, and reads the files: so a change is noticed wherever on the
// way it happens, and reports that the kernel dropped (IN_Q_OVERFLOW) lose nothing but time.

namespace {

constexpr int kMaxLinks = 40;
constexpr uint32_t kChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                              IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

}  // namespace

HostPreferencesWatch::HostPreferencesWatch(std::vector<std::string> paths)
    : paths(std::move(paths)) {}

bool HostPreferencesWatch::Arm() {
  if (!queue.IsOpen()) queue = HostOpenFile(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!queue.IsOpen()) return false;
  const auto before = std::exchange(watched, {});
  for (const std::string& path : paths) {
    if (!WatchPath(path, 0)) return false;
  }
  for (const auto& [watch, names] : before) {
    if (!watched.contains(watch)) inotify_rm_watch(queue.Get(), watch);
  }
  return true;
}

// Watches the folders from the root to the file, and to where links on the way lead.
bool HostPreferencesWatch::WatchPath(const std::string& path, int links) {
  for (size_t at = 0; at != std::string::npos;) {
    const size_t end = path.find('/', at + 1);
    const std::string name = path.substr(at + 1, end - at - 1);
    const std::string entry = path.substr(0, end);
    if (!name.empty() &&
        !WatchFolder(at == 0 ? "/" : path.substr(0, at), name, end == std::string::npos)) {
      return false;
    }
    char next[4096];
    const ssize_t length = readlink(entry.c_str(), next, sizeof next);
    if (length > 0 && length < static_cast<ssize_t>(sizeof next) && links < kMaxLinks) {
      const std::string link(next, static_cast<size_t>(length));
      const std::string rest = end == std::string::npos ? "" : path.substr(end);
      std::string target = link[0] == '/' ? "" : path.substr(0, at) + "/";
      target.append(link).append(rest);
      return WatchPath(target, links + 1);
    }
    at = end;
  }
  return true;
}

// A folder on the way that is missing is reported by the folder above it when it appears; one that
// may not be read, only by what happens below it.
bool HostPreferencesWatch::WatchFolder(const std::string& folder, const std::string& name,
                                       bool isLast) {
  const int watch = inotify_add_watch(queue.Get(), folder.c_str(), kChanges);
  if (watch < 0) {
    const bool isAbsent = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
    return isAbsent || (errno == EACCES && !isLast);
  }
  watched[watch].insert(name);
  return true;
}

HostPreferencesWatch::Result HostPreferencesWatch::Wait(int output) {
  for (;;) {
    pollfd entries[] = {{queue.Get(), POLLIN, 0}, {output, 0, 0}};
    if (poll(entries, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return Result::kFailed;
    }
    if ((entries[1].revents & (POLLERR | POLLHUP)) != 0) return Result::kNoReader;
    bool isRelevant = false, isSightLost = false;
    if (!TakeReports(&isRelevant, &isSightLost)) return Result::kFailed;
    if (isSightLost) return Result::kLostSight;
    if (isRelevant) return Result::kChanged;
  }
}

// Empties the kernel's queue.
bool HostPreferencesWatch::TakeReports(bool* isRelevant, bool* isSightLost) {
  char bytes[16384];
  for (;;) {
    const ssize_t count = read(queue.Get(), bytes, sizeof bytes);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count == 0 || errno == EAGAIN;
    for (ssize_t at = 0; at < count;) {
      inotify_event report;
      std::memcpy(&report, bytes + at, sizeof report);
      const char* const name = bytes + at + sizeof report;
      at += static_cast<ssize_t>(sizeof report + report.len);
      if ((report.mask & IN_Q_OVERFLOW) != 0) *isSightLost = true;
      const auto folder = watched.find(report.wd);
      if (folder == watched.end()) continue;
      // Without a name it concerns the folder itself.
      if (report.len == 0 || folder->second.contains(name)) *isRelevant = true;
    }
  }
}
