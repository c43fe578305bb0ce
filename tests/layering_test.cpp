#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

// Compares every include of the tree with the table of which folder may use which: root-relative
// includes let any file name any other, so only this test keeps the direction. The upper folders
// may include the platform interfaces only and have no host-dependent #if.

namespace {

using Folders = std::set<std::string>;

const std::string kHost = "platform/host/";

// The rooms of the host layer, bottom first, each with the rooms that it may use, which must be
// above it here (EachRoomUsesOnlyRoomsAboveIt).
const std::vector<std::pair<std::string, Folders>>& RoomsOfTheHost() {
  static const std::vector<std::pair<std::string, Folders>> rooms = {
      {"base", {}},
      {"services", {"base"}},
      {"processes", {"base"}},
      {"objects", {"base"}},
      {"plist", {"base", "objects"}},
      {"wire", {"base"}},
      {"events", {"base", "services", "wire"}},
      {"session", {"base", "services", "processes"}},
      {"ports", {"base", "processes", "wire", "events", "session"}},
      {"loop", {"base", "processes", "objects", "events", "session", "ports"}},
      {"tasks", {"base"}},
      {"files", {"base", "services", "objects"}},
      {"applications", {"base", "services", "processes", "objects", "plist", "session", "files"}},
      {"preferences", {"base", "services", "processes", "objects", "plist", "applications"}},
      {"notices", {"base", "services", "processes", "objects", "loop"}},
  };
  return rooms;
}

Folders InHost(const Folders& rooms) {
  Folders folders;
  for (const std::string& room : rooms) folders.insert(kHost + room);
  return folders;
}

// The folders that each folder may include besides itself. Others may include nothing.
const std::map<std::string, Folders>& AllowedIncludes() {
  static const std::map<std::string, Folders> allowed = [] {
    std::map<std::string, Folders> rows = {
        {"util", {}},
        {"plist", {"util"}},
        {"threads", {"util"}},
        {"aeport", {"util"}},
        {"launch", {"plist", "util"}},
        {"clients", {"launch", "aeport", "plist", "util"}},
        {"daemon", {"clients", "launch", "aeport", "plist", "util"}},
        {"tools", {"clients", "launch", "aeport", "plist", "util"}},
        {"examples", {"clients", "launch", "aeport", "plist", "util"}},
        {"platform/include", {}},
        {"platform/notify", {}},
    };
    // Tests and benchmarks may use everything.
    Folders everything = {"util",   "plist",    "threads", "aeport",          "launch", "clients",
                          "daemon", "examples", "tools",   "platform/notify", "tests"};
    for (const auto& [room, uses] : RoomsOfTheHost()) {
      rows[kHost + room] = InHost(uses);
      everything.insert(kHost + room);
    }
    // The notice helper shares a protocol with the room that starts it.
    rows[kHost + "notices"].insert("platform/notify");
    for (const char* folder : {"tests", "bench", "fuzz"}) rows[folder] = everything;
    return rows;
  }();
  return allowed;
}

const Folders kUpperFolders = {"daemon", "examples", "clients", "launch",
                               "aeport", "plist",    "threads", "util"};

// The rooms' private headers for information that no platform interface provides, and the folders
// above the host layer that may include them.
constexpr char kIntrospection[] = "/introspect.h";
const Folders kMayIntrospect = {"tools", "bench", "tests"};

// The umbrella headers of the platform interfaces, for the upper folders.
const Folders kPlatformHeaders = {"CoreFoundation/CoreFoundation.h",
                                  "CoreServices/CoreServices.h",
                                  "Carbon/Carbon.h",
                                  "Security/Security.h",
                                  "mach/mach.h",
                                  "servers/bootstrap.h",
                                  "syslog.h"};

// C headers for the upper folders, beside those of the language: POSIX calls that documented
// behaviour names (identity, folders, file modes and locks, waiting, threads).
const Folders kPlainHeaders = {"dirent.h",   "fcntl.h",    "pthread.h",   "pwd.h",   "stdint.h",
                               "sys/file.h", "sys/stat.h", "sys/types.h", "unistd.h"};

// The example device monitor watches the machine's devices, which no documented interface does.
const Folders kHostHeadersOfExamples = {"sys/inotify.h"};

std::string FolderOf(const std::string& path) {
  const size_t first = path.find('/');
  if (first == std::string::npos) return "";
  const std::string top = path.substr(0, first);
  if (top != "platform") return top;
  const size_t second = path.find('/', first + 1);
  if (!path.starts_with(kHost)) return path.substr(0, second);
  return path.substr(0, path.find('/', second + 1));  // of a room
}

// Returns what is wrong with a line of a file of `folder`, or "".
std::string Complaint(const std::string& folder, const std::string& line) {
  size_t hash = line.find_first_not_of(" \t");
  if (hash == std::string::npos || line[hash] != '#') return "";
  const size_t word = line.find_first_not_of(" \t", hash + 1);
  if (word == std::string::npos) return "";
  const bool isUpper = kUpperFolders.contains(folder);
  const std::string rest = line.substr(word);
  if (isUpper && rest.starts_with("if")) {
    const bool isBuildSwitch = rest.starts_with("ifndef VLT_");
    return isBuildSwitch ? "" : "a condition on the host or compiler";
  }
  if (!rest.starts_with("include")) return "";
  const size_t open = rest.find_first_of("<\"");
  if (open == std::string::npos) return "an include that cannot be read";
  const size_t close = rest.find_first_of(">\"", open + 1);
  if (close == std::string::npos) return "an include that cannot be read";
  const std::string name = rest.substr(open + 1, close - open - 1);

  if (rest[open] == '"') {
    const std::string target = FolderOf(name);
    if (name == target + kIntrospection && target.starts_with(kHost) &&
        kMayIntrospect.contains(folder)) {
      return "";
    }
    const auto allowed = AllowedIncludes().find(folder);
    if (allowed == AllowedIncludes().end()) return "a folder that is not in the table";
    if (target == folder || allowed->second.contains(target)) return "";
    return "includes upward, sideways, or not from the root";
  }
  if (!isUpper) return "";
  if (kPlatformHeaders.contains(name) || kPlainHeaders.contains(name)) return "";
  if (name.find_first_of("./") == std::string::npos) return "";  // of the language
  if (folder == "examples" && kHostHeadersOfExamples.contains(name)) return "";
  return "a header that the upper folders may not see";
}

TEST(Layering, ComplaintsComeForForbiddenIncludesAndConditionsOnly) {
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"aeport", "#include \"util/strings.h\"", true},
      {"aeport", "#include \"plist/dictionary.h\"", false},
      {"util", "#include \"aeport/event.h\"", false},
      {"daemon", "#include \"aeport/event.h\"", true},
      {"daemon", "#include \"platform/host/ports/introspect.h\"", false},
      {"tools", "#include \"platform/host/ports/introspect.h\"", true},
      {"tools", "#include \"platform/host/wire/frame.h\"", false},
      {"examples", "#include \"platform/host/ports/introspect.h\"", false},
      {"platform/host/ports", "#include \"platform/host/wire/frame.h\"", true},
      {"platform/host/ports", "#include \"platform/host/session/introspect.h\"", true},
      {"platform/host/wire", "#include \"platform/host/ports/introspect.h\"", false},
      {"platform/host/wire", "#include \"platform/host/events/codec.h\"", false},
      {"platform/host/base", "#include \"util/strings.h\"", false},
      {"platform/host", "#include \"platform/host/base/clock.h\"", false},
      {"platform/include", "#include \"platform/host/wire/frame.h\"", false},
      {"threads", "#include \"event.h\"", false},
      {"aeport", "  #  include <sys/epoll.h>", false},
      {"aeport", "#include <linux/limits.h>", false},
      {"examples", "#include <sys/inotify.h>", true},
      {"daemon", "#include <sys/inotify.h>", false},
      {"examples", "#include <sys/epoll.h>", false},
      {"aeport", "#include <CoreServices/CoreServices.h>", true},
      {"aeport", "#include <CoreServices/AEMach.h>", false},
      {"aeport", "#include <cstring>", true},
      {"util", "#ifdef __linux__", false},
      {"platform/host/base", "#ifdef __linux__", true},
      {"elsewhere", "#include \"util/strings.h\"", false},
      {"util", "int x;  // #include \"aeport/event.h\"", true},
  };
  for (const auto& [folder, line, isFine] : rows) {
    EXPECT_EQ(isFine, Complaint(folder, line).empty()) << folder << ": " << line;
  }
}

TEST(Layering, EachRoomUsesOnlyRoomsAboveIt) {
  Folders above;
  for (const auto& [room, uses] : RoomsOfTheHost()) {
    for (const std::string& used : uses) {
      EXPECT_TRUE(above.contains(used)) << room << " may use " << used;
    }
    above.insert(room);
  }
}

std::vector<std::filesystem::path> SourceFiles(const std::filesystem::path& root) {
  std::vector<std::filesystem::path> files;
  for (auto it = std::filesystem::recursive_directory_iterator(root);
       it != std::filesystem::recursive_directory_iterator(); ++it) {
    const std::string name = it->path().filename();
    // examples/consumer is compiled against an installation, which has no private headers.
    const bool isElsewhere = name == "build" || name == "consumer" || name.starts_with(".");
    if (it->is_directory() && isElsewhere) {
      it.disable_recursion_pending();
    } else if (it->path().extension() == ".h" || it->path().extension() == ".cpp") {
      files.push_back(it->path());
    }
  }
  return files;
}

TEST(Layering, EveryIncludeOfTheTreeIsPermitted) {
  const std::filesystem::path root = VLT_SOURCE_DIR;
  Folders seen;
  for (const auto& path : SourceFiles(root)) {
    const std::string relative = path.lexically_relative(root);
    const std::string folder = FolderOf(relative);
    seen.insert(folder);
    std::ifstream file(path);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
      const std::string complaint = Complaint(folder, line);
      EXPECT_EQ("", complaint) << relative << ":" << number << ": " << line;
    }
  }
  for (const char* folder : {"util", "aeport", "clients", "daemon", "examples",
                             "platform/host/base", "platform/host/notices", "platform/include"}) {
    EXPECT_TRUE(seen.contains(folder)) << folder << " was not looked at";
  }
}

}  // namespace
