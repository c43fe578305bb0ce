#include "tools/preferences/journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>

#include "platform/host/preferences/introspect.h"
#include "tools/plist/file.h"

namespace {

constexpr CFIndex kMaxWrites = 64;
constexpr size_t kMaxBytes = size_t{4} << 20;
constexpr auto kMaxWait = std::chrono::seconds(10);
constexpr auto kPause = std::chrono::milliseconds(2);

OwnedRef<CFMutableDictionaryRef> NewDictionary() {
  return Made(CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                        &kCFTypeDictionaryValueCallBacks));
}

OwnedRef<CFMutableArrayRef> NewArray() {
  return Made(CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks));
}

// A member of a dictionary that may have been edited by hand; null if it has another kind.
CFTypeRef Member(CFTypeRef dictionary, CFStringRef key, PlistKind kind) {
  if (KindOf(dictionary) != PlistKind::kDictionary) return nullptr;
  CFTypeRef value = CFDictionaryGetValue(static_cast<CFDictionaryRef>(dictionary), key);
  return KindOf(value) == kind ? value : nullptr;
}

std::string TextMember(CFTypeRef dictionary, CFStringRef key) {
  CFTypeRef text = Member(dictionary, key, PlistKind::kString);
  return text != nullptr ? TextOf(static_cast<CFStringRef>(text)) : "";
}

bool FlagMember(CFTypeRef dictionary, CFStringRef key) {
  return Member(dictionary, key, PlistKind::kBoolean) == kCFBooleanTrue;
}

// Borrowed, or null.
CFTypeRef ValueMember(CFTypeRef dictionary, CFStringRef key) {
  if (KindOf(dictionary) != PlistKind::kDictionary) return nullptr;
  return CFDictionaryGetValue(static_cast<CFDictionaryRef>(dictionary), key);
}

OwnedRef<CFMutableDictionaryRef> ModelOf(const PrefsWrite& write) {
  OwnedRef<CFMutableDictionaryRef> model = NewDictionary();
  const OwnedRef<CFMutableArrayRef> changes = NewArray();
  SetInDictionary(model, CFSTR("domain"), OwnedRef<CFStringRef>(Made(CreateString(write.domain))));
  SetInDictionary(model, CFSTR("file"), OwnedRef<CFStringRef>(Made(CreateString(write.file))));
  SetInDictionary(model, CFSTR("anyUser"), write.isForAnyUser ? kCFBooleanTrue : kCFBooleanFalse);
  SetInDictionary(model, CFSTR("currentHost"),
                  write.isForThisHost ? kCFBooleanTrue : kCFBooleanFalse);
  for (const PrefsKeyChange& change : write.changes) {
    const OwnedRef<CFMutableDictionaryRef> entry = NewDictionary();
    SetInDictionary(entry, CFSTR("key"), change.key);
    if (change.before != nullptr) SetInDictionary(entry, CFSTR("before"), change.before);
    if (change.after != nullptr) SetInDictionary(entry, CFSTR("after"), change.after);
    InsertInArray(changes, CFArrayGetCount(changes), entry);
  }
  SetInDictionary(model, CFSTR("changes"), changes);
  return model;
}

// Returns false if the entry is not one that ModelOf makes.
bool ReadModel(CFTypeRef model, PrefsWrite& write) {
  write = {};
  write.domain = TextMember(model, CFSTR("domain"));
  write.file = TextMember(model, CFSTR("file"));
  write.isForAnyUser = FlagMember(model, CFSTR("anyUser"));
  write.isForThisHost = FlagMember(model, CFSTR("currentHost"));
  const auto* changes = static_cast<CFArrayRef>(Member(model, CFSTR("changes"), PlistKind::kArray));
  for (CFIndex i = 0; changes != nullptr && i < CFArrayGetCount(changes); ++i) {
    CFTypeRef entry = CFArrayGetValueAtIndex(changes, i);
    CFTypeRef key = Member(entry, CFSTR("key"), PlistKind::kString);
    if (key == nullptr) return false;
    write.changes.push_back({static_cast<CFStringRef>(CFRetain(key)),
                             CFRetain(ValueMember(entry, CFSTR("before"))),
                             CFRetain(ValueMember(entry, CFSTR("after")))});
  }
  return !write.domain.empty() && !write.changes.empty();
}

}  // namespace

PrefsJournal::~PrefsJournal() {
  if (lock >= 0) close(lock);
}

bool PrefsJournal::Lock(const std::string& folder, std::string& problem) {
  const std::string name = folder + "/lock";
  const auto fail = [&] {
    return problem = name + ": cannot be locked: " + ErrnoText(errno), false;
  };
  do {
    lock = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  } while (lock < 0 && errno == EINTR);
  if (lock < 0) return fail();
  // Waiting in the kernel would never end if the owner is stopped.
  const auto end = std::chrono::steady_clock::now() + kMaxWait;
  while (flock(lock, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return fail();
    if (std::chrono::steady_clock::now() >= end) return errno = ETIMEDOUT, fail();
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

bool PrefsJournal::Open(bool forReading, std::string& problem) {
  const std::string state = HostPreferencesStateFolder();
  if (state.empty()) return problem = "neither XDG_STATE_HOME nor HOME names a folder", false;
  const std::string folder = state + "/undo";
  file = folder + "/writes.plist";
  std::error_code error;
  if (!std::filesystem::exists(folder, error)) {
    if (forReading && !error) return writes = NewArray(), true;
    std::filesystem::create_directories(folder, error);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
  }
  if (error) {
    return problem = folder + ": cannot be made: " + ErrnoText(error.value()), false;
  }
  if (!Lock(folder, problem)) return false;
  PlistFile read;
  PlistProblem unread;
  const bool isRead = ReadPlistFile(file, false, read, unread);
  const bool isList = isRead && KindOf(read.list) == PlistKind::kArray;
  const bool isBroken = !isList && (isRead || unread.exit != kExitNotFound);
  if (isBroken && forReading) {
    problem = isRead ? file + ": not an array" : unread.Sentence();
    problem += "; remove it to begin another one";
    return false;
  }
  if (isList) {
    writes = static_cast<CFMutableArrayRef>(const_cast<void*>(CFRetain(read.list)));
  } else {
    writes = NewArray();
  }
  return true;
}

bool PrefsJournal::Save(std::string& problem) {
  PlistProblem unwritten;
  std::string bytes;
  for (;;) {
    if (!PlistBytes(writes, kCFPropertyListBinaryFormat_v1_0, bytes, unwritten)) {
      return problem = unwritten.text, false;
    }
    const CFIndex count = CFArrayGetCount(writes);
    if (bytes.size() <= kMaxBytes && count <= kMaxWrites) break;
    CFArrayRemoveValueAtIndex(writes, 0);
  }
  if (WritePlistFile(file, bytes, unwritten)) return true;
  return problem = unwritten.Sentence(), false;
}

bool PrefsJournal::Add(const PrefsWrite& write, std::string& problem) {
  const OwnedRef<CFMutableDictionaryRef> model = ModelOf(write);
  PlistProblem unwritten;
  std::string bytes;
  if (!PlistBytes(model, kCFPropertyListBinaryFormat_v1_0, bytes, unwritten)) {
    return problem = unwritten.text, false;
  }
  if (bytes.size() > kMaxBytes / 2) return problem = "its values have more than 2 MiB", false;
  InsertInArray(writes, CFArrayGetCount(writes), model);
  return Save(problem);
}

CFIndex PrefsJournal::FindLast(const std::function<bool(const PrefsWrite&)>& isWanted,
                               PrefsWrite& found) const {
  for (CFIndex i = CFArrayGetCount(writes) - 1; i >= 0; --i) {
    if (ReadModel(CFArrayGetValueAtIndex(writes, i), found) && isWanted(found)) return i;
  }
  return -1;
}

bool PrefsJournal::Remove(CFIndex number, std::string& problem) {
  CFArrayRemoveValueAtIndex(writes, number);
  return Save(problem);
}
