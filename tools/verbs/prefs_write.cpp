#include <cstdio>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "platform/host/preferences/introspect.h"
#include "tools/output.h"
#include "tools/plist/diff.h"
#include "tools/plist/leaf.h"
#include "tools/plist/text.h"
#include "tools/preferences/domains.h"
#include "tools/preferences/journal.h"
#include "tools/verbs/plist_request.h"
#include "tools/verbs/prefs_request.h"
#include "tools/verbs/verb.h"

// The actions of `vltctl prefs` that change something.
//
// A change is planned from what the file has, committed only if it still has that, and otherwise
// planned again. So what the journal notes as the value before is what was replaced. The journal is
// open from before the first look until the change is noted.

namespace {

constexpr int kMaxAttempts = 1000;  // each lost one is another process's success

using Changes = std::vector<PrefsKeyChange>;
// Stores what to change and returns kExitOk, or another status after a message.
using Plan = std::function<int(Changes& changes)>;

std::string FileOf(const PrefsRequest& request) {
  for (const HostPreferencesSource& source : HostPreferencesSources(request.application, nullptr)) {
    const PrefsPlace place = PlaceOf(source, request.application);
    const bool isMeant = source.isForAnyUser
                             ? request.user == kCFPreferencesAnyUser
                             : place.user == request.user && place.host == request.host;
    if (isMeant) return source.path;
  }
  return "";
}

HostPreferencesCommit Replace(const PrefsRequest& request, const Changes& changes,
                              std::string& problem) {
  std::vector<HostPreferencesChange> all;
  all.reserve(changes.size());
  for (const PrefsKeyChange& change : changes) {
    all.push_back({change.key, change.before, change.after});
  }
  return HostReplacePreferences(all, request.application, request.user, request.host, &problem);
}

// Both return "" or why not. A failure must not make a change that was committed a failed one.
std::string OpenJournal(PrefsJournal& journal) try {
  std::string problem;
  return journal.Open(false, problem) ? "" : problem;
} catch (const std::bad_alloc&) {
  return "out of memory";
}

std::string Note(PrefsJournal& journal, const PrefsRequest& request, Changes changes) try {
  PrefsWrite write;
  write.domain = request.domain;
  write.file = FileOf(request);
  write.isForAnyUser = request.user == kCFPreferencesAnyUser;
  write.isForThisHost = request.host == kCFPreferencesCurrentHost;
  for (PrefsKeyChange& change : changes) {
    if (!IsSamePlist(change.before, change.after)) write.changes.push_back(std::move(change));
  }
  if (write.changes.empty()) return "";
  std::string problem;
  return journal.Add(write, problem) ? "" : problem;
} catch (const std::bad_alloc&) {
  return "out of memory";
}

void SayUnnoted(const std::string& reason) {
  constexpr char kText[] = "prefs: written, but undo will not know it: ";
  try {
    Say(kText + reason);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "vltctl: %sout of memory\n", kText);
  }
}

int Commit(const PrefsRequest& request, const Plan& plan) {
  PrefsJournal journal;
  std::string unnoted = OpenJournal(journal);
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    Changes changes;
    if (const int exit = plan(changes); exit != kExitOk) return exit;
    if (changes.empty()) return TellPrefs(request, "written", kExitOk);
    std::string problem;
    const HostPreferencesCommit result = Replace(request, changes, problem);
    if (result == HostPreferencesCommit::kOutdated) continue;
    if (result == HostPreferencesCommit::kFailed) {
      return TellPrefs(request, "failed", RefusalExit(request), problem);
    }
    if (unnoted.empty()) unnoted = Note(journal, request, std::move(changes));
    if (!unnoted.empty()) SayUnnoted(unnoted);
    return TellPrefs(request, "written", kExitOk);
  }
  return TellPrefs(request, "failed", kExitGeneral,
                   "other processes change the value all the time");
}

// Makes the new value of the request's key by a change inside the present one. Returns null after a
// message, with the exit status.
OwnedObject ChangeInside(const PrefsRequest& request, CFTypeRef present, PlistChange change,
                         int& exit) {
  const OwnedString name = Made(CreateString(request.key));
  const OwnedRef<CFMutableDictionaryRef> top(Made(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks)));
  const OwnedObject copy(Made(CFPropertyListCreateDeepCopy(kCFAllocatorDefault, present,
                                                           kCFPropertyListMutableContainers)));
  SetInDictionary(top, name, copy);
  std::string problem;
  OwnedObject value;
  if (change == PlistChange::kSet) {
    CFTypeRef replaced = FindInPlist(top, request.path, problem);
    value = CreateValueOfType(request.Option("--type"), request.words[1], replaced, problem);
    if (value == nullptr) return exit = PrefsFail(kExitUsage, problem), nullptr;
  }
  if (!ChangePlist(top, request.path, change, value, problem)) {
    return exit = NoSuchPath(request, problem), nullptr;
  }
  return CFRetain(CFDictionaryGetValue(top, name));
}

int PlanWrite(const PrefsRequest& request, Changes& changes) {
  OwnedString name = Made(CreateString(request.key));
  OwnedObject present = request.Copy(name);
  OwnedObject value;
  std::string problem;
  if (request.path.size() > 1) {
    if (present == nullptr) return NoSuchKey(request);
    int exit = kExitOk;
    value = ChangeInside(request, present, PlistChange::kSet, exit);
    if (value == nullptr) return exit;
  } else {
    if (present == nullptr) SayIfKeyIsAPath(request, "changes");
    value = CreateValueOfType(request.Option("--type"), request.words[1], present, problem);
    if (value == nullptr) return PrefsFail(kExitUsage, problem);
  }
  changes.push_back({std::move(name), std::move(present), std::move(value)});
  return kExitOk;
}

int PlanDelete(const PrefsRequest& request, Changes& changes) {
  if (!IsReadable(request)) return RefusalExit(request);
  if (request.hasKey) {
    OwnedString name = Made(CreateString(request.key));
    OwnedObject present = request.Copy(name);
    if (present == nullptr) {
      return IsUnread(request, name) ? Unreadable(request) : NoSuchKey(request);
    }
    OwnedObject rest;
    if (request.path.size() > 1) {
      int exit = kExitOk;
      rest = ChangeInside(request, present, PlistChange::kRemove, exit);
      if (rest == nullptr) return exit;
    }
    changes.push_back({std::move(name), std::move(present), std::move(rest)});
    return kExitOk;
  }
  const OwnedRef<CFDictionaryRef> all = request.CopyAll();
  if (all == nullptr) return Unreadable(request);
  std::vector<const void*> keys(static_cast<size_t>(CFDictionaryGetCount(all)));
  CFDictionaryGetKeysAndValues(all, keys.data(), nullptr);
  for (const void* key : keys) {
    changes.push_back({static_cast<CFStringRef>(CFRetain(key)),
                       CFRetain(CFDictionaryGetValue(all, key)), nullptr});
  }
  return kExitOk;
}

int PlanImport(const PrefsRequest& request, CFDictionaryRef list, Changes& changes) {
  std::vector<const void*> keys(static_cast<size_t>(CFDictionaryGetCount(list)));
  CFDictionaryGetKeysAndValues(list, keys.data(), nullptr);
  for (const void* key : keys) {
    changes.push_back({static_cast<CFStringRef>(CFRetain(key)),
                       request.Copy(static_cast<CFStringRef>(key)),
                       CFRetain(CFDictionaryGetValue(list, key))});
  }
  return kExitOk;
}

std::string ValueLine(CFTypeRef value) { return value != nullptr ? PlistLine(value) : "no value"; }

// Which of the values are not those that were written; "" if all are.
std::string WhatChanged(const PrefsRequest& request, const Changes& changes) {
  std::string lines;
  for (const PrefsKeyChange& change : changes) {
    const OwnedObject now = request.Copy(change.key);
    if (IsSamePlist(now, change.after)) continue;
    lines += (lines.empty() ? "" : "; ") + TextOf(change.key) + " is " + ValueLine(now) +
             ", vltctl wrote " + ValueLine(change.after);
    if (lines.size() > 500) return lines + "; ...";
  }
  return lines;
}

int TellUndo(const PrefsRequest& request, const PrefsWrite& write, const char* outcome,
             ExitStatus exit, const std::string& problem) {
  if (!problem.empty()) Say("prefs: " + problem);
  if (!request.isJson) {
    if (exit != kExitOk) return exit;
    if (request.domain.empty()) Print(write.domain + ":\n");
    for (const PrefsKeyChange& change : write.changes) {
      Print(DifferenceLines({PlistPathText({TextOf(change.key)}), change.after, change.before}));
    }
    return exit;
  }
  JsonValue keys = JsonValue::Array();
  for (const PrefsKeyChange& change : write.changes)
    keys.AsArray()->emplace_back(TextOf(change.key));
  JsonValue model = JsonValue::Object();
  model.Add("domain", write.domain.empty() ? JsonValue() : JsonValue(write.domain));
  model.Add("outcome", outcome);
  model.Add("problem", problem.empty() ? JsonValue() : JsonValue(problem));
  model.Add("file", write.file.empty() ? JsonValue() : JsonValue(write.file));
  model.Add("keys", keys);
  PrintJson(model);
  return exit;
}

// Whether the request's words and options select a noted write, in a file that is still the one.
bool IsSelected(const PrefsRequest& request, const PrefsWrite& write, PrefsRequest& selected) {
  if (!request.domain.empty() && write.domain != request.domain) return false;
  if (request.Has("--any-user") && !write.isForAnyUser) return false;
  if (request.Has("--current-host") && !write.isForThisHost) return false;
  selected.application = Made(CreateString(write.domain));
  selected.user = write.isForAnyUser ? kCFPreferencesAnyUser : kCFPreferencesCurrentUser;
  selected.host = write.isForThisHost ? kCFPreferencesCurrentHost : kCFPreferencesAnyHost;
  selected.domain = write.domain;
  return FileOf(selected) == write.file;
}

}  // namespace

int WritePrefs(const PrefsRequest& request) {
  return Commit(request, [&](Changes& changes) { return PlanWrite(request, changes); });
}

int DeletePrefs(const PrefsRequest& request) {
  return Commit(request, [&](Changes& changes) { return PlanDelete(request, changes); });
}

int ImportPrefs(const PrefsRequest& request) {
  PlistFile read;
  PlistProblem problem;
  if (!ReadPlistFile(request.File(), true, read, problem)) {
    return Say("prefs: " + problem.Sentence()), problem.exit;
  }
  if (KindOf(read.list) != PlistKind::kDictionary) {
    return PrefsFail(kExitBadData, problem.file + ": not a dictionary, so it has no keys to add");
  }
  const auto* list = static_cast<CFDictionaryRef>(static_cast<CFTypeRef>(read.list));
  return Commit(request, [&](Changes& changes) { return PlanImport(request, list, changes); });
}

int UndoPrefs(const PrefsRequest& request) {
  PrefsJournal journal;
  PrefsWrite write;
  std::string problem;
  if (!journal.Open(true, problem)) {
    return TellUndo(request, write, "failed", kExitGeneral, problem);
  }
  PrefsRequest selected;
  const CFIndex number = journal.FindLast(
      [&](const PrefsWrite& one) { return IsSelected(request, one, selected); }, write);
  if (number < 0) {
    write = {};
    write.domain = request.domain;
    return TellUndo(request, write, "failed", kExitNotFound,
                    (request.domain.empty() ? std::string("no change")
                                            : Quoted(request.domain) + ": no change") +
                        " of vltctl is left to take back");
  }
  Changes back;
  for (const PrefsKeyChange& change : write.changes) {
    back.push_back({static_cast<CFStringRef>(CFRetain(change.key)), CFRetain(change.after),
                    CFRetain(change.before)});
  }
  const HostPreferencesCommit result = Replace(selected, back, problem);
  if (result == HostPreferencesCommit::kOutdated) {
    const std::string what = WhatChanged(selected, write.changes);
    return TellUndo(request, write, "changed", kExitRefused,
                    write.domain + ": not taken back: " + (what.empty() ? problem : what) +
                        "; vltctl prefs write sets another value");
  }
  if (result == HostPreferencesCommit::kFailed) {
    return TellUndo(request, write, "failed", RefusalExit(selected), problem);
  }
  if (!journal.Remove(number, problem)) {
    Say("prefs: taken back, but still noted for undo: " + problem);
  }
  return TellUndo(request, write, "undone", kExitOk, "");
}
