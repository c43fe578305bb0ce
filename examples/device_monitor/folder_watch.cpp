#include "examples/device_monitor/folder_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace {

constexpr uint32_t kNames = IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF;
// A new file is read once it has been written. What is written into the files of a folder that is
// watched as a whole does not matter: /dev would have an event for each use of /dev/null.
constexpr uint32_t kOfOneFile = kNames | IN_CLOSE_WRITE;
constexpr uint32_t kOfAllFiles = kNames | IN_CREATE;

}  // namespace

FolderWatch::FolderWatch(CFRunLoopRef theLoop, std::function<void()> toCall)
    : loop(theLoop), changed(std::move(toCall)) {
  CFRunLoopSourceContext context = {};
  context.info = this;
  context.perform = [](void* watch) { static_cast<FolderWatch*>(watch)->changed(); };
  source = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &context);
  if (source != nullptr) CFRunLoopAddSource(loop, source, kCFRunLoopDefaultMode);
}

FolderWatch::~FolderWatch() {
  isEnding = true;
  if (reader.joinable()) {
    inotify_rm_watch(queue, wake);  // is an event itself
    reader.join();
  }
  if (queue >= 0) close(queue);
  if (source != nullptr) {
    CFRunLoopSourceInvalidate(source);
    CFRelease(source);
  }
}

bool FolderWatch::Start() {
  queue = inotify_init1(IN_CLOEXEC);
  if (queue < 0 || source == nullptr) return false;
  wake = inotify_add_watch(queue, "/", IN_DELETE_SELF);
  if (wake < 0) return false;
  try {
    reader = std::thread([this] { Read(); });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

bool FolderWatch::Add(const std::string& folder, const std::string& name) {
  const std::lock_guard<std::mutex> lock(mutex);
  const uint32_t changes = name.empty() ? kOfAllFiles : kOfOneFile;
  const int watch = inotify_add_watch(queue, folder.c_str(), changes | IN_ONLYDIR | IN_MASK_ADD);
  if (watch < 0) return false;
  // A folder that is watched for all files stays so.
  const auto [entry, isNew] = names.try_emplace(watch, name);
  if (!isNew && entry->second != name) entry->second.clear();
  return true;
}

// An overflow and the end of a watched folder have no name.
bool FolderWatch::Concerns(int watch, const std::string& name) {
  const std::lock_guard<std::mutex> lock(mutex);
  const auto wanted = names.find(watch);
  return name.empty() || wanted == names.end() || wanted->second.empty() || wanted->second == name;
}

void FolderWatch::Read() {
  alignas(inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t size = read(queue, buffer, sizeof buffer);
    if (isEnding || (size < 0 && errno != EINTR)) return;
    bool hasChanged = false;
    for (ssize_t at = 0; at < size;) {
      inotify_event event;
      std::memcpy(&event, buffer + at, sizeof event);
      const char* const name = event.len > 0 ? buffer + at + sizeof event : "";
      hasChanged = hasChanged || Concerns(event.wd, name);
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
    if (!hasChanged) continue;
    CFRunLoopSourceSignal(source);
    CFRunLoopWakeUp(loop);
  }
}
