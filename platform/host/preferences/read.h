#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/host/objects/cf_dictionary.h"

// Reading a preferences file, and comparing its values. No state; any thread.

inline constexpr off_t kHostMaxPreferencesBytes = off_t{64} << 20;

// The state of a file and the user who reads it. A read that finds the same stamp as the one before
// gives the same content.
struct HostFileStamp {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  mode_t mode = 0;
  uid_t owner = 0;
  gid_t group = 0;
  int64_t modified = 0;  // nanoseconds of the wall clock
  int64_t changed = 0;   // the same, of the file's inode; 0: there is no file
  uid_t reader = 0;      // the effective user
  // The owner of the folder if a privileged program reads a file of an unprivileged user; else 0.
  uid_t folderOwner = 0;

  bool operator==(const HostFileStamp&) const = default;
};

// The stamp of the file at `path`. A file that does not exist, or whose folder may not be searched,
// has an empty one.
HostFileStamp HostStampOfFile(const std::string& path);

struct HostPreferencesContent {
  enum class State { kAbsent, kRead, kRefused };

  State state = State::kAbsent;
  HostRetained<HostCFDictionary> values;  // immutable; null unless kRead
  std::string problem;                    // of kRefused: one line with path, owner, mode and reason
  HostFileStamp stamp;
  // For kRefused: the reason is neither the file nor its stamp, but for example a lack of file
  // descriptors or memory, or an I/O error. The values that were read before are still the best.
  bool isPassing = false;
  bool isMemoryShort = false;  // of isPassing: that is the reason
  // Any later change shows in the stamp. False right after a change, because the kernel's times of
  // files move in steps, and after a refusal by the system, whose reason the stamp does not have.
  bool isSettled = false;
};

// Returns the content that the file at `path` has now, if it can be trusted. `name` is the path by
// which it is known, perhaps a symbolic link to `path`: it appears in a problem, and its folder's
// owner is the user for whom a privileged program may read the file.
HostPreferencesContent HostReadPreferences(const std::string& path, const std::string& name);

// Returns the reason for which the system refused something, for a message: "Permission denied (13,
// EACCES)".
std::string HostErrorText(int error);

// Returns whether two values have the same content bit for bit, so that a file with one of them
// need not be changed to hold the other: 1 is not 1.0, and 0.0 is not -0.0.
bool HostIsSamePreference(CFTypeRef a, CFTypeRef b);
