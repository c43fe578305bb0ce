#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/host/base/open_file.h"

// HostPreferencesWatch waits for changes of files, by their names: also of files that do not exist
// yet, of the folders and symbolic links on the way, and of what takes the place of any of them.
// One thread.
class HostPreferencesWatch {
 public:
  enum class Result {
    kChanged,    // one of the files may have changed
    kLostSight,  // the same, and the kernel has dropped reports of changes
    kNoReader,   // nobody reads the output any more
    kFailed      // errno has the reason
  };

  explicit HostPreferencesWatch(std::vector<std::string> paths);

  // Watches what is on the way to the files now. To be called before the files are read: Wait then
  // reports every later change. Returns false with errno on failure, also if a file's own folder
  // may not be read.
  bool Arm();

  // Waits for a change since the last Arm, which may be over by now. Reports several changes in
  // quick succession once. Ends also if `output`, a file descriptor, is a pipe or a terminal that
  // nobody reads any more.
  Result Wait(int output);

 private:
  bool WatchPath(const std::string& path, int links);
  bool WatchFolder(const std::string& folder, const std::string& name, bool isLast);
  bool TakeReports(bool* isRelevant, bool* isSightLost);

  const std::vector<std::string> paths;
  HostOpenFile queue;
  std::map<int, std::set<std::string>> watched;  // by watch: the names that matter in its folder
};
