#include "tools/verbs/prefs_request.h"

#include "platform/host/preferences/introspect.h"
#include "tools/plist/leaf.h"
#include "tools/preferences/domains.h"
#include "tools/verbs/verb.h"

std::string PrefsRequest::Option(const char* name) const {
  const auto found = line->options.find(name);
  return found != line->options.end() ? found->second : "";
}

int PrefsFail(ExitStatus exit, const std::string& text) { return Say("prefs: " + text), exit; }

int TellPrefs(const PrefsRequest& request, const char* outcome, ExitStatus exit,
              const std::string& problem) {
  if (!problem.empty()) Say("prefs: " + problem);
  if (!request.isJson) return exit;
  JsonValue model = JsonValue::Object();
  model.AddBytes("domain", request.domain);
  model.Add("outcome", outcome);
  model.Add("problem", problem.empty() ? JsonValue() : JsonValue(problem));
  PrintJson(model);
  return exit;
}

ExitStatus RefusalExit(const PrefsRequest& request) {
  const bool isMemoryShort =
      HostPreferencesLackMemory(request.application, request.user, request.host);
  return isMemoryShort ? kExitGeneral : kExitRefused;
}

bool IsReadable(const PrefsRequest& request) {
  const std::string problem =
      HostPreferencesProblem(request.application, request.user, request.host);
  if (!problem.empty()) Say("prefs: " + problem);
  return problem.empty();
}

bool IsUnread(const PrefsRequest& request, CFStringRef key) {
  return HostPreferencesIsUnread(key, request.application, request.user, request.host);
}

int Unreadable(const PrefsRequest& request) {
  const ExitStatus exit = RefusalExit(request);
  const std::string problem =
      HostPreferencesProblem(request.application, request.user, request.host);
  if (!problem.empty()) return PrefsFail(exit, problem);
  return PrefsFail(exit, "the preferences of " + Quoted(request.domain) + " could not be read");
}

bool HasFiles(const PrefsRequest& request) {
  const bool isEffective = request.Has("--effective");
  for (const HostPreferencesSource& source : HostPreferencesSources(request.application, nullptr)) {
    const PrefsPlace place = PlaceOf(source, request.application);
    const bool isMeant =
        !source.isForAnyApplication || request.domain == TextOf(kCFPreferencesAnyApplication);
    const bool isSelected = isEffective || (place.user == request.user &&
                                            (source.isForAnyUser || place.host == request.host));
    if (source.exists && isMeant && isSelected) return true;
  }
  return false;
}

int NoSuchDomain(const PrefsRequest& request) {
  std::vector<std::string> ignored;
  const std::vector<PrefsDomain> domains = ListPrefsDomains(ignored);
  std::vector<std::string_view> names;
  bool isElsewhere = false;
  for (const PrefsDomain& domain : domains) {
    names.push_back(domain.name);
    isElsewhere = isElsewhere || domain.name == request.domain;
  }
  const std::string near = isElsewhere ? "" : NearestWord(request.domain, names);
  return PrefsFail(kExitNotFound,
                   Quoted(request.domain) + " has no preferences" +
                       (isElsewhere    ? " of this kind; vltctl prefs where lists its files"
                        : near.empty() ? "; vltctl prefs domains lists the domains that have some"
                                       : "; did you mean " + near + "?"));
}

int NoSuchKey(const PrefsRequest& request) {
  SayIfKeyIsAPath(request, "reads");
  std::vector<std::string> names;
  const OwnedRef<CFArrayRef> keys(
      CFPreferencesCopyKeyList(request.application, request.user, request.host));
  for (CFIndex i = 0; keys != nullptr && i < CFArrayGetCount(keys); ++i) {
    names.push_back(TextOf(static_cast<CFStringRef>(CFArrayGetValueAtIndex(keys, i))));
  }
  const std::string near = NearestWord(request.key, {names.begin(), names.end()});
  return PrefsFail(kExitNotFound, Quoted(request.domain) + " has no key " + Quoted(request.key) +
                                      " in these preferences" +
                                      (near.empty() ? "" : "; did you mean " + near + "?"));
}

int NoSuchPath(const PrefsRequest& request, const std::string& why) {
  return PrefsFail(kExitNotFound, Quoted(request.domain) + ": " + why);
}

void SayIfKeyIsAPath(const PrefsRequest& request, const char* action) {
  PlistPath path;
  if (request.HasPath() || !ParsePlistPath(request.key, path) || path.size() < 2) return;
  const OwnedString first(CreateString(path[0]));
  const OwnedObject beside(first != nullptr ? request.Copy(first) : nullptr);
  if (!IsContainer(KindOf(beside))) return;
  Say("prefs: " + Quoted(request.key) + " is taken for one key, beside " + Quoted(path[0]) +
      "; --path " + request.key + " " + action + " what is inside");
}
