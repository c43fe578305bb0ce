#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/preferences/introspect.h"
#include "tools/output.h"
#include "tools/plist/diff.h"
#include "tools/plist/leaf.h"
#include "tools/preferences/domains.h"
#include "tools/verbs/plist_request.h"
#include "tools/verbs/prefs_request.h"
#include "tools/verbs/verb.h"

namespace {

// The files whose values the request is about.
std::vector<std::string> FilesToWatch(const PrefsRequest& request) {
  std::vector<std::string> files;
  for (const HostPreferencesSource& source : HostPreferencesSources(request.application, nullptr)) {
    const PrefsPlace place = PlaceOf(source, request.application);
    const bool isSelected = !source.isForAnyApplication && place.user == request.user &&
                            (source.isForAnyUser || place.host == request.host);
    if (!request.HasScope() || isSelected) files.push_back(source.path);
  }
  return files;
}

class Watcher {
 public:
  explicit Watcher(const PrefsRequest& request)
      : request(request), watch(FilesToWatch(request)), left(0) {}

  int Run() {
    if (!TakeCount()) return kExitUsage;
    if (!watch.Arm()) return Failed();
    OwnedRef<CFDictionaryRef> before = Values();
    Say("prefs: watching " + request.domain + "; a signal ends it");
    for (;;) {
      const Result result = watch.Wait(STDOUT_FILENO);
      if (result == Result::kNoReader) return PrefsFail(kExitGeneral, "nobody reads the output");
      if (result == Result::kFailed || !watch.Arm()) return Failed();
      OwnedRef<CFDictionaryRef> after = Values();
      DiffPlists(before, after, [&](const PlistDifference& difference) { Show(difference); });
      before = std::move(after);
      if (!FlushOutput()) return kExitGeneral;  // its reason is printed at the end
      if (isDone) return kExitOk;
    }
  }

 private:
  using Result = HostPreferencesWatch::Result;

  bool TakeCount() {
    if (!request.Has("--count")) return true;
    const std::string text = request.Option("--count");
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, left);
    if (parsed.ec == std::errc() && parsed.ptr == end && left > 0) return true;
    PrefsFail(kExitUsage, "--count: " + Quoted(text) + " is not a number above 0");
    return false;
  }

  int Failed() {
    const int error = errno;
    return PrefsFail(error == EACCES ? kExitRefused : kExitGeneral,
                     Quoted(request.domain) + " cannot be watched: " + ErrnoText(error));
  }

  // What the files say now. A file that is not used counts as empty; why is said once.
  OwnedRef<CFDictionaryRef> Values() {
    std::vector<std::string> problems;
    OwnedRef<CFDictionaryRef> values;
    if (request.HasScope()) {
      const std::string problem =
          HostPreferencesProblem(request.application, request.user, request.host);
      if (!problem.empty()) problems.push_back(problem);
      values = request.CopyAll();
      if (values == nullptr) {  // it cannot be read now
        values = Made(CFDictionaryCreate(kCFAllocatorDefault, nullptr, nullptr, 0,
                                         &kCFTypeDictionaryKeyCallBacks,
                                         &kCFTypeDictionaryValueCallBacks));
      }
    } else {
      const OwnedRef<CFMutableDictionaryRef> merged =
          CopyEffectivePrefs(request.application, problems);
      values = static_cast<CFDictionaryRef>(CFRetain(merged));
    }
    if (problems != said) {
      for (const std::string& problem : problems) Say("prefs: " + problem);
    }
    said = std::move(problems);
    return values;
  }

  void Show(const PlistDifference& difference) {
    if (isDone) return;
    if (request.isJson)
      PrintJson(DifferenceModel(difference));
    else
      Print(DifferenceLines(difference));
    if (left > 0) isDone = --left == 0;
  }

  const PrefsRequest& request;
  HostPreferencesWatch watch;
  uint64_t left;  // differences to print; 0: any number
  bool isDone = false;
  std::vector<std::string> said;
};

}  // namespace

int WatchPrefs(const PrefsRequest& request) { return Watcher(request).Run(); }
