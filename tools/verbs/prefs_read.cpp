#include <string>
#include <vector>

#include "platform/host/preferences/introspect.h"
#include "tools/output.h"
#include "tools/plist/json.h"
#include "tools/plist/leaf.h"
#include "tools/plist/losses.h"
#include "tools/plist/text.h"
#include "tools/preferences/domains.h"
#include "tools/table.h"
#include "tools/verbs/prefs_request.h"
#include "tools/verbs/verb.h"

// The actions of `vltctl prefs` that only look.

namespace {

int PrintValue(const PrefsRequest& request, CFTypeRef value) {
  if (request.isJson) {
    PrintPlistJson(value);
    Print("\n");
  } else if (IsContainer(KindOf(value))) {
    PrintPlistText(value);
  } else {
    Print(LeafText(value) + "\n");
  }
  return kExitOk;
}

// Returns all values, or null after a message, with the exit status.
OwnedRef<CFDictionaryRef> CopyValues(const PrefsRequest& request, int& exit) {
  if (request.Has("--effective")) {
    std::vector<std::string> problems;
    OwnedRef<CFMutableDictionaryRef> merged = CopyEffectivePrefs(request.application, problems);
    // A file that is not used is not one that the application sees, either.
    for (const std::string& problem : problems) Say("prefs: " + problem);
    if (CFDictionaryGetCount(merged) == 0 && !HasFiles(request)) exit = NoSuchDomain(request);
    if (exit != kExitOk) return nullptr;
    return static_cast<CFDictionaryRef>(CFRetain(merged));
  }
  if (!IsReadable(request)) return exit = RefusalExit(request), nullptr;
  OwnedRef<CFDictionaryRef> all = request.CopyAll();
  if (all == nullptr) return exit = Unreadable(request), nullptr;
  if (CFDictionaryGetCount(all) == 0 && !HasFiles(request)) {
    return exit = NoSuchDomain(request), nullptr;
  }
  return all;
}

// Returns the value of the request's key, or null after a message, with the exit status.
OwnedObject CopyKey(const PrefsRequest& request, int& exit) {
  const OwnedString name = Made(CreateString(request.key));
  if (request.Has("--effective")) {
    OwnedObject value = CFPreferencesCopyAppValue(name, request.application);
    if (value == nullptr) exit = NoSuchKey(request);
    return value;
  }
  if (!IsReadable(request)) return exit = RefusalExit(request), nullptr;
  OwnedObject value = request.Copy(name);
  if (value == nullptr) {
    exit = IsUnread(request, name) ? Unreadable(request) : NoSuchKey(request);
  }
  return value;
}

const char* StateOf(const HostPreferencesSource& source) {
  if (!source.problem.empty()) return "refused";
  if (!source.exists) return "absent";
  return source.hasValue ? "value" : "used";
}

JsonValue SourceModel(const HostPreferencesSource& source, bool isWinner) {
  JsonValue model = JsonValue::Object();
  model.AddBytes("path", source.path);
  model.Add("state", StateOf(source));
  model.Add("winner", JsonValue::Bool(isWinner));
  model.Add("anyUser", JsonValue::Bool(source.isForAnyUser));
  model.Add("currentHost", JsonValue::Bool(source.isForThisHost));
  model.Add("anyApplication", JsonValue::Bool(source.isForAnyApplication));
  model.Add("problem", source.problem.empty() ? JsonValue() : JsonValue(source.problem));
  return model;
}

// Returns whether the options select this file. Without options all files are selected.
bool IsAskedFor(const PrefsRequest& request, const HostPreferencesSource& source) {
  const bool anyUser = request.Has("--any-user");
  const bool currentHost = request.Has("--current-host");
  if (!anyUser && !currentHost) return true;
  if (source.isForAnyApplication || source.isForAnyUser != anyUser) return false;
  return anyUser || source.isForThisHost;
}

// A file decides by its whole value: a path that is missing in it is not looked for in others.
int FollowPath(const PrefsRequest& request, const HostPreferencesSource& source) {
  const PrefsPlace place = PlaceOf(source, request.application);
  const OwnedString name = Made(CreateString(request.key));
  const OwnedRef<CFMutableDictionaryRef> top(Made(CFDictionaryCreateMutable(
      kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks)));
  const OwnedObject value(CFPreferencesCopyValue(name, place.application, place.user, place.host));
  if (value == nullptr) return NoSuchKey(request);
  SetInDictionary(top, name, value);
  std::string absent;
  if (FindInPlist(top, request.path, absent) != nullptr) return kExitOk;
  return NoSuchPath(request, source.path + ": " + absent);
}

// The form of an export without --format: XML, unless that would lose something.
CFPropertyListFormat FittingFormat(CFTypeRef list) {
  const std::string loss = PlistLoss(list, kCFPropertyListXMLFormat_v1_0);
  if (loss.empty()) return kCFPropertyListXMLFormat_v1_0;
  Say("prefs: written in binary form, because " + loss);
  return kCFPropertyListBinaryFormat_v1_0;
}

}  // namespace

int ReadPrefs(const PrefsRequest& request) {
  int exit = kExitOk;
  if (!request.hasKey) {
    const OwnedRef<CFDictionaryRef> all = CopyValues(request, exit);
    return all != nullptr ? PrintValue(request, static_cast<CFDictionaryRef>(all)) : exit;
  }
  const OwnedObject value = CopyKey(request, exit);
  if (value == nullptr) return exit;
  if (!request.HasPath()) return PrintValue(request, value);
  std::string absent;
  CFTypeRef inner = FindInPlist(value, {request.path.begin() + 1, request.path.end()}, absent);
  if (inner == nullptr) return NoSuchPath(request, "in key " + request.key + ", " + absent);
  return PrintValue(request, inner);
}

int ExportPrefs(const PrefsRequest& request) {
  CFPropertyListFormat format = request.isJson ? kJsonFormat : 0;
  const std::string named = request.Option("--format");
  if (request.Has("--format") && !FormatNamed(named, format)) {
    return PrefsFail(kExitUsage, UnknownFormat(named));
  }
  int exit = kExitOk;
  const OwnedRef<CFDictionaryRef> all = CopyValues(request, exit);
  if (all == nullptr) return exit;
  const CFTypeRef list = static_cast<CFDictionaryRef>(all);
  const std::string loss = format != 0 ? PlistLoss(list, format) : "";
  if (format == 0) format = FittingFormat(list);
  std::string bytes;
  PlistProblem problem;
  if (!PlistBytes(list, format, bytes, problem)) {
    return PrefsFail(problem.exit, problem.text + "; --format binary keeps everything");
  }
  if (!loss.empty()) Say("prefs: " + loss);
  if (WritePlistFile(request.File(), bytes, problem)) return kExitOk;
  return Say((request.File() == "-" ? "" : "prefs: ") + problem.Sentence()), problem.exit;
}

int WherePrefs(const PrefsRequest& request) {
  const OwnedString name = Made(CreateString(request.key));
  const CFStringRef key = request.hasKey ? static_cast<CFStringRef>(name) : nullptr;
  int exit = request.hasKey ? kExitNotFound : kExitOk;
  bool isFound = false;
  std::vector<TableRow> rows;
  for (const HostPreferencesSource& source : HostPreferencesSources(request.application, key)) {
    if (!IsAskedFor(request, source)) continue;
    if (!source.problem.empty()) Say("prefs: " + source.problem);
    const bool isWinner = source.hasValue && !isFound;
    isFound = isFound || source.hasValue;
    if (isWinner) exit = request.HasPath() ? FollowPath(request, source) : kExitOk;
    if (request.isJson) {
      PrintJson(SourceModel(source, isWinner));
    } else if (!request.hasKey) {
      rows.push_back({StateOf(source), source.path});
    } else if (isWinner && exit == kExitOk) {
      rows.push_back({source.path});
    }
  }
  PrintTable(rows);
  return request.hasKey && !isFound ? NoSuchKey(request) : exit;
}

int ListPrefs(const PrefsRequest& request) {
  std::vector<std::string> problems;
  std::vector<TableRow> rows;
  for (const PrefsDomain& domain : ListPrefsDomains(problems)) {
    std::string scopes;
    JsonValue files = JsonValue::Array(), names = JsonValue::Array();
    for (size_t i = 0; i < domain.files.size(); ++i) {
      scopes += (scopes.empty() ? "" : "; ") + domain.scopes[i];
      files.AsArray()->emplace_back(domain.files[i]);
      names.AsArray()->emplace_back(domain.scopes[i]);
    }
    if (!request.isJson) {
      rows.push_back({domain.name, scopes});
      continue;
    }
    JsonValue model = JsonValue::Object();
    model.AddBytes("domain", domain.name);
    model.Add("files", files);
    model.Add("scopes", names);
    PrintJson(model);
  }
  PrintTable({"DOMAIN", "SCOPES"}, rows);
  for (const std::string& problem : problems) Say("prefs: " + problem);
  return problems.empty() ? kExitOk : kExitRefused;
}
