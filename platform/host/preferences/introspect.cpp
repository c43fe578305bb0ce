#include "platform/host/preferences/introspect.h"

#include <new>

#include "platform/host/base/user_folders.h"
#include "platform/host/preferences/commit.h"
#include "platform/host/preferences/search.h"

namespace {

HostRetained<HostCFDictionary> NewTable() {
  HostRetained<HostCFDictionary> table(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
  if (!table) throw std::bad_alloc();
  return table;
}

void SetOrRemoved(HostCFDictionary& table, CFStringRef key, CFTypeRef value) {
  const CFTypeRef stored = value != nullptr ? value : &gHostRemovedPreference;
  if (!table.Set(key, stored)) throw std::bad_alloc();
}

}  // namespace

std::vector<HostPreferencesSource> HostPreferencesSources(CFStringRef application,
                                                          CFStringRef key) {
  std::vector<HostPreferencesSource> sources;
  const HostPreferencesPlace own =
      HostFindPreferencesPlace(application, kCFPreferencesAnyUser, kCFPreferencesAnyHost);
  if (own.path.empty()) return sources;
  HostVisitPreferencesDomains(application, [&](CFStringRef of, CFStringRef user, CFStringRef host) {
    HostPreferencesSource source;
    const HostPreferencesPlace place = HostFindPreferencesPlace(of, user, host);
    // It is the last one again, under another name.
    if (place.path.empty() || (!sources.empty() && sources.back().path == place.path)) return false;
    HostPreferencesFile& file = HostPreferencesFile::At(place);
    source.path = place.path;
    source.isForAnyUser = place.isShared;
    source.isForThisHost = host == kCFPreferencesCurrentHost && !place.isShared;
    source.isForAnyApplication = of == kCFPreferencesAnyApplication;
    source.problem = file.Problem(&source.exists);
    const CFTypeRef value = key != nullptr ? file.CopyValue(key) : nullptr;
    source.hasValue = value != nullptr;
    if (value != nullptr) CFRelease(value);
    sources.push_back(source);
    return false;
  });
  return sources;
}

std::string HostPreferencesProblem(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  if (file == nullptr) return "there can be no preferences file of this name";
  bool exists = false;
  const std::string refusal = file->Problem(&exists);
  return refusal.empty() ? file->Failure() : refusal;
}

bool HostPreferencesIsUnread(CFStringRef key, CFStringRef application, CFStringRef user,
                             CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  return file != nullptr && file->IsUnread(key);
}

bool HostPreferencesLackMemory(CFStringRef application, CFStringRef user, CFStringRef host) {
  HostPreferencesFile* const file = HostFindPreferencesFile(application, user, host);
  return file != nullptr && file->IsMemoryShort();
}

HostPreferencesCommit HostReplacePreferences(const std::vector<HostPreferencesChange>& changes,
                                             CFStringRef application, CFStringRef user,
                                             CFStringRef host, std::string* problem) {
  const HostPreferencesPlace place = HostFindPreferencesPlace(application, user, host);
  if (place.path.empty()) {
    *problem = "there can be no preferences file of this name";
    return HostPreferencesCommit::kFailed;
  }
  HostPreferencesChanges wanted;
  wanted.values = NewTable();
  wanted.expected = NewTable();
  for (const HostPreferencesChange& change : changes) {
    SetOrRemoved(*wanted.values.Get(), change.key, change.after);
    SetOrRemoved(*wanted.expected.Get(), change.key, change.before);
  }
  HostPreferencesContent content;
  if (!HostCommitPreferences(place, wanted, &content, problem)) {
    return HostPreferencesCommit::kFailed;
  }
  return problem->empty() ? HostPreferencesCommit::kWritten : HostPreferencesCommit::kOutdated;
}

std::string HostPreferencesStateFolder() {
  const std::string folder = HostStateFolder();
  return folder.empty() ? "" : folder + "/veltrane";
}
