#include "tools/preferences/domains.h"

#include <filesystem>
#include <map>
#include <new>
#include <system_error>

#include "tools/plist/file.h"
#include "tools/plist/leaf.h"

namespace {

constexpr char kEnding[] = ".plist";
constexpr char kGlobalFile[] = ".GlobalPreferences";
constexpr char kGlobalName[] = "kCFPreferencesAnyApplication";

const char* ScopeOf(const HostPreferencesSource& source) {
  if (source.isForAnyUser) return "all users";
  return source.isForThisHost ? "user, this host" : "user";
}

// The domain that a file of a preferences folder belongs to; "" if it is another kind of file.
std::string DomainOf(const std::filesystem::path& file) {
  const std::string name = file.filename().string();
  if (!name.ends_with(kEnding)) return "";
  const std::string stem = name.substr(0, name.size() - (sizeof kEnding - 1));
  if (stem == kGlobalFile) return kGlobalName;
  const OwnedRef<CFStringRef> application(CreateString(stem));
  // Of others no application can be named so.
  const bool isDomain = !stem.starts_with('.') && application != nullptr &&
                        !HostPreferencesSources(application, nullptr).empty();
  return isDomain ? stem : "";
}

}  // namespace

std::vector<PrefsDomain> ListPrefsDomains(std::vector<std::string>& problems) {
  std::map<std::string, PrefsDomain> domains;
  for (const HostPreferencesSource& source : HostPreferencesSources(CFSTR("any"), nullptr)) {
    if (source.isForAnyApplication) continue;  // in the same folders
    const auto folder = std::filesystem::path(source.path).parent_path();
    std::error_code error;
    std::filesystem::directory_iterator file(folder, error);
    for (const std::filesystem::directory_iterator end; !error && file != end;
         file.increment(error)) {
      const std::string name = DomainOf(file->path());
      if (name.empty()) continue;
      PrefsDomain& domain = domains[name];
      domain.name = name;
      domain.files.push_back(file->path().string());
      domain.scopes.emplace_back(ScopeOf(source));
    }
    if (error && error != std::errc::no_such_file_or_directory) {
      problems.push_back(folder.string() + ": cannot be read: " + ErrnoText(error.value()));
    }
  }
  std::vector<PrefsDomain> all;
  for (auto& [name, domain] : domains) all.push_back(std::move(domain));
  return all;
}

PrefsPlace PlaceOf(const HostPreferencesSource& source, CFStringRef application) {
  return {source.isForAnyApplication ? kCFPreferencesAnyApplication : application,
          source.isForAnyUser ? kCFPreferencesAnyUser : kCFPreferencesCurrentUser,
          source.isForThisHost ? kCFPreferencesCurrentHost : kCFPreferencesAnyHost};
}

OwnedRef<CFMutableDictionaryRef> CopyEffectivePrefs(CFStringRef application,
                                                    std::vector<std::string>& problems) {
  OwnedRef<CFMutableDictionaryRef> merged(Made(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks)));
  for (const HostPreferencesSource& source : HostPreferencesSources(application, nullptr)) {
    if (!source.problem.empty()) problems.push_back(source.problem);
    const PrefsPlace place = PlaceOf(source, application);
    const OwnedRef<CFDictionaryRef> values(
        CFPreferencesCopyMultiple(nullptr, place.application, place.user, place.host));
    if (values == nullptr && source.problem.empty()) throw std::bad_alloc();
    if (values == nullptr) continue;
    std::vector<const void*> keys(static_cast<size_t>(CFDictionaryGetCount(values)));
    CFDictionaryGetKeysAndValues(values, keys.data(), nullptr);
    for (const void* key : keys) {
      const auto* name = static_cast<CFStringRef>(key);
      if (CFDictionaryContainsKey(merged, name)) continue;
      SetInDictionary(merged, name, CFDictionaryGetValue(values, name));
    }
  }
  return merged;
}
