#include "platform/host/preferences/store.h"

#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/host/base/guard.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/plist/error.h"

// How values are found and kept.
//
// A file has two layers: `content`, what it said when it was last read, and `changes`, what was set
// here and not yet written. A change hides the file's value until Synchronize has written it.
//
// Refresh keeps `content` while the file's stamp is the same and the content is settled (see
// read.h), else the file is read again:
//   read or absent     the new content replaces the old one
//   refused            no values: the file is not trusted, or is malformed
//   passing refusal    the old values stay, and the next read tries again
//
// Callers may keep a reference to every value that they read, for ever. Each value is therefore one
// object for as long as a caller has a reference to it: Adopt keeps the old object of a value that
// has not changed, and `former` keeps the objects that left the file while callers had references
// to them.
//
// A key that was read while the file was refused, for whatever reason, is unread until it is read
// again. A change of it is written only if the file has no value for it: see unread.h.
//
// Synchronize copies the changes, writes them without `mutex`, and removes from `changes` only what
// still is as it was copied: a value that was set meanwhile waits for the next call. Order of
// locks: `committing`, the file's lock on disk, `mutex`; sFilesMutex is never held together with
// them.

namespace {

using State = HostPreferencesContent::State;

constexpr CFPropertyListFormat kBinary = kCFPropertyListBinaryFormat_v1_0;

constinit std::mutex sFilesMutex;
constinit std::atomic<uint32_t> sLostReads{0};

HostRetained<HostCFDictionary> NewTable() {
  return HostRetained<HostCFDictionary>(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

// Whether callers see no difference: the stored width of a number counts, too.
bool IsInterchangeable(CFTypeRef a, CFTypeRef b) {
  if (!HostIsSamePreference(a, b)) return false;
  const auto* number = HostCast<HostCFNumber>(a);
  return number == nullptr ||
         CFNumberGetType(number) == CFNumberGetType(static_cast<CFNumberRef>(b));
}

// A table in which values that are equal as numbers, such as both zeros or 1 and 1.0, are apart.
HostRetained<HostCFDictionary> NewFormerTable() {
  CFDictionaryKeyCallBacks keys = kCFTypeDictionaryKeyCallBacks;
  keys.equal = [](const void* a, const void* b) -> Boolean { return IsInterchangeable(a, b); };
  return HostRetained<HostCFDictionary>(
      CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &keys, &kCFTypeDictionaryValueCallBacks));
}

// Returns an immutable copy, or null if no file can hold the value under this key.
CFPropertyListRef CopyForFile(CFStringRef key, CFPropertyListRef value) {
  const CFPropertyListRef copy =
      CFPropertyListCreateDeepCopy(kCFAllocatorDefault, value, kCFPropertyListImmutable);
  if (copy == nullptr) return nullptr;
  const HostRetained<HostCFDictionary> root = NewTable();
  if (root && root->Set(key, copy) && CFPropertyListIsValid(root.Get(), kBinary)) {
    return copy;
  }
  CFRelease(copy);
  return nullptr;
}

}  // namespace

CFTypeRef HostFormerPreferences::Find(CFTypeRef value) const {
  const HostPair* const found = values ? values->Find(value) : nullptr;
  return found != nullptr ? found->value : value;
}

void HostFormerPreferences::Keep(CFTypeRef value) {
  const CFIndex references = CFGetRetainCount(value);
  if (references <= 1 || references == INT32_MAX) return;  // its holder's only, or a constant
  if (!values) values = NewFormerTable();
  if (values && values->Count() >= limit) Prune();
  if (values) values->Set(value, value);
}

void HostFormerPreferences::Prune() {
  constexpr CFIndex kOurs = 2;  // as key and as value
  std::vector<CFTypeRef> unused;
  for (const HostPair& pair : values->Pairs()) {
    const bool isUnused = pair.key != nullptr && CFGetRetainCount(pair.key) <= kOurs;
    if (isUnused) unused.push_back(pair.key);
  }
  for (const CFTypeRef value : unused) values->Remove(value);
  limit = std::max(kFewest, 2 * values->Count());
}

HostPreferencesFile& HostPreferencesFile::At(const HostPreferencesPlace& place) {
  static auto* const files = new std::unordered_map<std::string, HostPreferencesFile*>;
  const std::lock_guard<std::mutex> lock(sFilesMutex);
  HostPreferencesFile*& file = (*files)[place.path];
  if (file == nullptr) file = new HostPreferencesFile(place);
  return *file;
}

void HostPreferencesFile::LogOnce(const std::string& problem, std::string* last) {
  if (problem == *last) return;
  *last = problem;
  if (!problem.empty()) syslog(LOG_ERR, "%s", problem.c_str());
}

void HostPreferencesFile::Refresh() {
  if (wasRead && content.isSettled && HostStampOfFile(place.path) == content.stamp) return;
  // Without memory for it, what was read before stays the answer, and the next read tries again.
  if (!HostGuard([this] { Adopt(HostReadPreferences(place.path, place.path)); })) {
    isStale = true;
    content.isSettled = false;
    content.isMemoryShort = true;
  }
}

// Whether a value that was not found may be in the file all the same.
bool HostPreferencesFile::IsRefused() const { return isStale || content.state == State::kRefused; }

// Takes over what was read. Values that have not changed stay the same objects.
void HostPreferencesFile::Adopt(HostPreferencesContent fresh) {
  isStale = fresh.isPassing;
  if (fresh.isPassing && content.stamp.reader == fresh.stamp.reader) {
    // Keeps the values that were read before, which are better than none: a program that finds no
    // value may commit a default over the user's value.
    if (content.state == State::kAbsent) content.state = State::kRefused;
    content.problem = std::move(fresh.problem);
    content.isMemoryShort = fresh.isMemoryShort;
    content.isSettled = false;
    LogOnce(content.problem, &lastRefusal);
    return;
  }
  std::vector<std::pair<CFTypeRef, CFTypeRef>> known;
  if (fresh.values) {
    for (const HostPair& pair : fresh.values->Pairs()) {
      if (pair.key == nullptr) continue;
      const CFTypeRef value = KnownValue(static_cast<CFStringRef>(pair.key), pair.value);
      if (value != pair.value) known.emplace_back(pair.key, value);
    }
    for (const auto& [key, value] : known) fresh.values->Set(key, value);
  }
  if (content.values && content.values.Get() != fresh.values.Get()) {
    for (const HostPair& pair : content.values->Pairs()) {
      if (pair.key == nullptr) continue;
      const HostPair* const now = fresh.values ? fresh.values->Find(pair.key) : nullptr;
      if (now == nullptr || now->value != pair.value) former.Keep(pair.value);
    }
  }
  content = std::move(fresh);
  wasRead = true;
  LogOnce(content.problem, &lastRefusal);
}

// Returns the object to keep for `value` under `key`: the present or a former one with that value,
// or `value` itself. Borrowed.
CFTypeRef HostPreferencesFile::KnownValue(CFStringRef key, CFTypeRef value) const {
  const HostPair* const found = content.values ? content.values->Find(key) : nullptr;
  if (found != nullptr && IsInterchangeable(found->value, value)) return found->value;
  return former.Find(value);
}

CFTypeRef HostPreferencesFile::CopyValue(CFStringRef key) {
  const std::lock_guard<std::mutex> lock(mutex);
  NoteLostReads();
  const HostPair* found = changes ? changes->Find(key) : nullptr;
  if (found == nullptr) {
    Refresh();
    found = content.values ? content.values->Find(key) : nullptr;
    const bool isUnread = found == nullptr && IsRefused();
    isUnreadForMemory |= isUnread && content.isMemoryShort;
    if (isUnread || !unread.IsEmpty()) unread.Note(key, isUnread);
  }
  if (found == nullptr || found->value == &gHostRemovedPreference) return nullptr;
  return CFRetain(found->value);
}

HostRetained<HostCFDictionary> HostPreferencesFile::CopyAll() {
  const std::lock_guard<std::mutex> lock(mutex);
  NoteLostReads();
  Refresh();
  unread.NoteAll(IsRefused());
  isUnreadForMemory |= IsRefused() && content.isMemoryShort;
  if (isStale && !content.values) return {};
  for (const HostPair& pair :
       content.values ? content.values->Pairs() : HostCFDictionary::PairList()) {
    if (isStale && pair.key != nullptr) unread.Note(static_cast<CFStringRef>(pair.key), false);
  }
  HostRetained<HostCFDictionary> all =
      content.values ? HostRetained<HostCFDictionary>(CFDictionaryCreateMutableCopy(
                           kCFAllocatorDefault, 0, content.values.Get()))
                     : NewTable();
  if (!all) throw std::bad_alloc();
  if (!changes) return all;
  for (const HostPair& change : changes->Pairs()) {
    if (change.key == nullptr) continue;
    if (change.value == &gHostRemovedPreference) {
      all->Remove(change.key);
    } else if (!all->Set(change.key, change.value)) {
      throw std::bad_alloc();
    }
  }
  return all;
}

void HostPreferencesFile::Set(CFStringRef key, CFPropertyListRef value) {
  const bool isKey = HostCast<HostCFString>(key) != nullptr;
  HostRetained<const HostCFObject> made;
  if (isKey && value != nullptr) {
    HostGuard([&] {
      made = HostRetained<const HostCFObject>(
          static_cast<const HostCFObject*>(CopyForFile(key, value)));
    });
  }
  const CFPropertyListRef copy = made.Get();
  const std::lock_guard<std::mutex> lock(mutex);
  if (!changes) changes = NewTable();
  if (!isKey || !changes || (value != nullptr && copy == nullptr)) {
    wasValueRefused = true;
    wasMemoryShort |= isKey && (value == nullptr || CFPropertyListIsValid(value, kBinary));
  } else {
    const bool isSet = HostGuard(false, [&] {
      const CFTypeRef kept = copy != nullptr ? KnownValue(key, copy) : &gHostRemovedPreference;
      const HostPair* const old = changes->Find(key);
      if (old != nullptr && old->value != kept) former.Keep(old->value);
      return changes->Set(key, kept);
    });
    if (!isSet) wasValueRefused = wasMemoryShort = true;
  }
}

void HostPreferencesFile::NoteLostRead() { sLostReads.fetch_add(1); }

void HostPreferencesFile::NoteLostReads() {
  const uint32_t all = sLostReads.load();
  if (std::exchange(lostReads, all) == all) return;
  unread.NoteAll(true);
  isUnreadForMemory = true;
}

bool HostPreferencesFile::IsUnread(CFStringRef key) {
  const std::lock_guard<std::mutex> lock(mutex);
  NoteLostReads();
  return unread.Has(key);
}

// Stores a copy of the changes, or null if there are none. Returns false without memory.
bool HostPreferencesFile::TakeChanges(HostPreferencesChanges* taken, bool* wasRefused) {
  const std::lock_guard<std::mutex> lock(mutex);
  NoteLostReads();
  *wasRefused = std::exchange(wasValueRefused, false);
  isFailureOfMemory = std::exchange(wasMemoryShort, false);
  if (!changes || changes->Count() == 0) return true;
  const bool isTaken = HostGuard(false, [&] {
    taken->values = HostRetained<HostCFDictionary>(
        CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, changes.Get()));
    if (!taken->values || unread.IsEmpty()) return static_cast<bool>(taken->values);
    taken->unread = NewTable();
    if (!taken->unread) return false;
    for (const HostPair& change : changes->Pairs()) {
      if (change.key == nullptr || !unread.Has(static_cast<CFStringRef>(change.key))) continue;
      if (!taken->unread->Set(change.key, change.key)) return false;
    }
    return true;
  });
  if (!isTaken) isFailureOfMemory = true;
  return isTaken;
}

// A value that was set while the file was written stays in `changes`.
void HostPreferencesFile::Finish(const HostCFDictionary& written, HostPreferencesContent fresh) {
  assert(changes && fresh.state != State::kRefused);
  for (const HostPair& pair : written.Pairs()) {
    if (pair.key == nullptr) continue;
    const HostPair* const change = changes->Find(pair.key);
    if (change != nullptr && change->value == pair.value) changes->Remove(pair.key);
    if (!unread.IsEmpty()) unread.Note(static_cast<CFStringRef>(pair.key), false);
  }
  Adopt(std::move(fresh));
  lastFailure.clear();
}

bool HostPreferencesFile::Synchronize() {
  const std::lock_guard<std::mutex> commitLock(committing);
  HostPreferencesChanges taken;
  bool wasRefused = false;
  if (!TakeChanges(&taken, &wasRefused)) return false;
  if (!taken.values) return !wasRefused;
  HostPreferencesContent fresh;
  std::string problem;
  const bool isWritten =
      HostGuard(false, [&] { return HostCommitPreferences(place, taken, &fresh, &problem); });
  const bool isAllWritten = isWritten && problem.empty();
  const std::lock_guard<std::mutex> lock(mutex);
  if (!isWritten && problem.empty()) {
    problem = kHostPlistNoMemory;
    isFailureOfMemory = true;
  }
  if (isWritten && !isAllWritten) isFailureOfMemory |= std::exchange(isUnreadForMemory, false);
  // If there is no memory to note that the changes are on the disk, they stay set, and the next
  // commit finds nothing to change.
  HostGuard([&] {
    const bool isRefusal = problem == fresh.problem;
    if (isWritten) Finish(*taken.values.Get(), std::move(fresh));
    if (isAllWritten) return;
    LogOnce(problem, isRefusal ? &lastRefusal : &lastFailure);
    lastFailure = problem;
  });
  return isAllWritten && !wasRefused;
}

std::string HostPreferencesFile::Problem(bool* isThere) {
  const std::lock_guard<std::mutex> lock(mutex);
  Refresh();
  *isThere = content.state != State::kAbsent;
  return content.problem;
}

std::string HostPreferencesFile::Failure() {
  const std::lock_guard<std::mutex> lock(mutex);
  return lastFailure;
}

bool HostPreferencesFile::IsMemoryShort() {
  const std::lock_guard<std::mutex> lock(mutex);
  return isFailureOfMemory || isUnreadForMemory || content.isMemoryShort;
}
