#include "tests/support/scratch_folder.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "tests/support/test_process.h"

namespace {

void MakeFolderOf(const std::string& path) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
}

}  // namespace

ScratchFolder::ScratchFolder() {
  std::string pattern = std::filesystem::canonical(std::filesystem::temp_directory_path());
  pattern += "/vlt-scratch-XXXXXX";
  if (mkdtemp(pattern.data()) != nullptr) path = pattern;
}

ScratchFolder::~ScratchFolder() {
  std::error_code ignored;
  if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

std::string ScratchFolder::Folder(const std::string& name) const {
  std::filesystem::create_directories(Path(name));
  return Path(name);
}

std::string ScratchFolder::File(const std::string& name, const std::string& text) const {
  MakeFolderOf(Path(name));
  std::ofstream(Path(name), std::ios::binary) << text;
  return Path(name);
}

std::string ScratchFolder::Link(const std::string& name, const std::string& target) const {
  MakeFolderOf(Path(name));
  std::filesystem::create_symlink(target, Path(name));
  return Path(name);
}

std::string ScratchFolder::Program(const std::string& name, const std::string& original) const {
  MakeFolderOf(Path(name));
  std::filesystem::copy_file(original, Path(name));
  std::filesystem::permissions(Path(name), std::filesystem::perms(0755));
  return Path(name);
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

unsigned ModeOf(const std::string& path) {
  std::error_code ignored;
  return static_cast<unsigned>(std::filesystem::status(path, ignored).permissions());
}

bool WaitUntilTimesTell(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return false;
  const timespec& changed = info.st_ctim;
  return WaitUntil(
      [&changed] {
        timespec now;
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        return std::pair(now.tv_sec, now.tv_nsec) > std::pair(changed.tv_sec, changed.tv_nsec);
      },
      10s);
}

size_t EntriesOf(const std::string& folder) {
  std::error_code gone;
  size_t count = 0;
  for (std::filesystem::directory_iterator entry(folder, gone), end; !gone && entry != end;
       entry.increment(gone)) {
    count++;
  }
  return count;
}

std::string MakeTestBundle(const ScratchFolder& folder, const std::string& name,
                           const TestBundle& bundle) {
  const std::tuple<const char*, const std::string&> rows[] = {
      {"CFBundleIdentifier", bundle.identifier},
      {"CFBundleSignature", bundle.signature},
      {"CFBundlePackageType", bundle.packageType},
      {"CFBundleExecutable", bundle.executable},
      {"CFBundleVersion", bundle.version}};
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
  for (const auto& [key, value] : rows) {
    if (value.empty()) continue;
    text += std::string("<key>") + key + "</key><string>" + value + "</string>\n";
  }
  folder.File(name + "/Contents/Info.plist", text + "</dict>\n</plist>\n");
  return folder.Path(name);
}

ScopedVariable::ScopedVariable(const char* variable, const char* value) : name(variable) {
  const char* old = getenv(name);
  wasSet = old != nullptr;
  if (wasSet) before = old;
  if (value != nullptr) {
    setenv(name, value, 1);
  } else {
    unsetenv(name);
  }
}

ScopedVariable::~ScopedVariable() {
  if (wasSet) {
    setenv(name, before.c_str(), 1);
  } else {
    unsetenv(name);
  }
}
