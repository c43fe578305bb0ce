#include "tools/applications/launch_plan.h"

#include "launch/launch.h"
#include "platform/host/preferences/introspect.h"
#include "plist/dictionary.h"
#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "tools/values/value_types.h"
#include "util/cf_strings.h"

namespace {

// Shows what the launcher has after it has read its preferences.
class VisibleLaunch : public VLTLaunch {
 public:
  using VLTLaunch::VLTLaunch;

  void Fill(LaunchPlan& plan) {
    plan.err = prepare();
    plan.portName = portName != nullptr ? portName : "";
    plan.findByPortName = findByPortName;
    plan.findBySignature = findBySignature;
    plan.launchIfNotFound = launchIfNotFound;
    plan.retries = launchRetries;
    plan.interval = launchRetrySleepInterval;
    AddWays(plan.search);
    DescribePreferences(plan);
  }

 private:
  void AddWays(Search& search);
  void DescribePreferences(LaunchPlan& plan);
  std::string WrongKey(VLTDictionary& dict);
};

// In the launcher's order: its own path, the bundle identifier, the signature.
void VisibleLaunch::AddWays(Search& search) {
  FileSpecType app;
  if (getAppFromSpecified(app) == 0) {
    search.application = app;
    search.ways.push_back({"path", true, PathOf(search.application)});
  } else {
    search.ways.push_back({"path", false, "no usable executablePath is set"});
  }
  if (!search.Found()) {
    const bool isOn = launchByBundleID && bundleID != nullptr && bundleID[0] != 0;
    search.ways.push_back(isOn ? FindByIdentifier(bundleID, search)
                               : Way{"identifier", false, "it is turned off"});
    if (isOn) search.ways.back().text = bundleID + (": " + search.ways.back().text);
  }
  if (!search.Found()) {
    const bool isOn = launchBySignature && signature != 0;
    search.ways.push_back(isOn ? FindBySignature(signature, search)
                               : Way{"signature", false, "it is turned off"});
    if (isOn) search.ways.back().text = CodeText(signature) + (": " + search.ways.back().text);
  }
  if (search.Found()) search.path = PathOf(search.application);
  for (const HostApplicationInfo& each : HostDescribeAllBundles()) {
    if (!each.problem.empty()) search.broken.push_back(each.path + ": " + each.problem);
  }
}

void VisibleLaunch::DescribePreferences(LaunchPlan& plan) {
  if (prefsDomain == nullptr || prefsKey == nullptr) return;
  const CFStringRef domain = CStringToCFString(prefsDomain);
  const CFStringRef key = CStringToCFString(prefsKey);
  std::string fileProblem;
  if (domain != nullptr && key != nullptr) {
    for (const HostPreferencesSource& source : HostPreferencesSources(domain, key)) {
      if (!source.isForAnyUser || source.isForAnyApplication) continue;
      plan.preferencesFile = source.path;
      plan.hasPreferences = source.hasValue;
      fileProblem = source.problem;
    }
  }
  if (domain != nullptr) CFRelease(domain);
  if (key != nullptr) CFRelease(key);
  if (!fileProblem.empty()) plan.problem = fileProblem;
  if (plan.err == 0) return;
  VLTDictionary dict;
  const std::string where = plan.preferencesFile + ": " + prefsKey;
  const OSStatus err = getLaunchPrefsDict(dict);
  const std::string wrong = err == 0 ? WrongKey(dict) : "";
  plan.problem = where + (err != 0 && err != errAEDescNotFound ? " is not a dictionary"
                          : !wrong.empty()                     ? "." + wrong
                                                               : ": " + ErrorSentence(plan.err));
}

// Returns the first key that the launcher refuses, and the type that its value has to have.
std::string VisibleLaunch::WrongKey(VLTDictionary& dict) {
  const auto isWrong = [](OSStatus err) { return err != 0 && err != errAEDescNotFound; };
  for (const char* key :
       {"launchIfNotFound", "launchBySignature", "findByPortName", "findBySignature"}) {
    bool value = false;
    if (isWrong(dict.getBoolean(key, value))) return key + std::string(" has to be true or false");
  }
  for (const char* key : {"launchRetries", "launchRetrySleepInterval"}) {
    SInt32 value = 0;
    if (isWrong(dict.getLong(key, value))) return key + std::string(" has to be a number");
  }
  OSType code = 0;
  if (isWrong(readOSTypeFromDict(dict, "signature", code))) {
    return "signature has to be a string of four characters";
  }
  return "";
}

std::string OnOff(bool isOn) { return isOn ? "on" : "off"; }

}  // namespace

LaunchPlan PlanLaunch(const VLTLaunchSpec& specification) {
  LaunchPlan plan;
  VisibleLaunch launch(specification);
  launch.Fill(plan);
  if (plan.err == 0 && plan.launchIfNotFound && plan.search.Found()) {
    plan.opensNext = plan.search.path;
  }
  return plan;
}

std::string NextStep(const LaunchPlan& plan) {
  if (plan.err != 0) return "the launcher gives up: " + ErrorSentence(plan.err);
  if (!plan.findByPortName && !plan.findBySignature) {
    return "the launcher gives up: no way of finding the daemon is turned on";
  }
  if (!plan.launchIfNotFound) return "the launcher starts nothing: launchIfNotFound is off";
  if (plan.opensNext.empty()) return "the launcher finds nothing to open";
  return "the launcher opens " + plan.opensNext + " and looks for the daemon up to " +
         std::to_string(plan.retries) + " times, every " + std::to_string(plan.interval) + " s";
}

std::vector<TableRow> PlanRows(const LaunchPlan& plan) {
  std::vector<TableRow> rows;
  rows.push_back(
      {"preferences", OneLine(plan.preferencesFile) + (plan.hasPreferences ? "" : " (none set)")});
  if (!plan.problem.empty()) rows.push_back({"problem", OneLine(plan.problem)});
  rows.push_back({"find", "by port name " + OnOff(plan.findByPortName) + ", by signature " +
                              OnOff(plan.findBySignature)});
  rows.push_back({"launch", "if not found " + OnOff(plan.launchIfNotFound)});
  rows.push_back({"next", OneLine(NextStep(plan))});
  return rows;
}

JsonValue PlanModel(const LaunchPlan& plan) {
  JsonValue model = JsonValue::Object();
  AddBytesOrNull(model, "preferences", plan.preferencesFile);
  model.Add("hasPreferences", JsonValue::Bool(plan.hasPreferences));
  model.Add("problem", plan.problem.empty() ? JsonValue() : JsonValue(plan.problem));
  model.Add("findByPortName", JsonValue::Bool(plan.findByPortName));
  model.Add("findBySignature", JsonValue::Bool(plan.findBySignature));
  model.Add("launchIfNotFound", JsonValue::Bool(plan.launchIfNotFound));
  model.Add("retries", JsonValue::Integer(plan.retries));
  model.Add("interval", JsonValue::Integer(plan.interval));
  AddBytesOrNull(model, "opensNext", plan.opensNext);
  model.Add("next", NextStep(plan));
  model.Add("ways", SearchModel(plan.search));
  model.Add("broken", BrokenModel(plan.search));
  return model;
}

const VLTLaunchSpec* LaunchSpecificationOf(const std::string& word) {
  for (const VLTLaunchSpec* each : {&gSessionMonitorLaunchSpec, &gDeviceMonitorLaunchSpec}) {
    const std::string signature = CodeText(each->signature);
    if (word == each->portName || word == each->bundleID || word == signature ||
        word == "'" + signature + "'") {
      return each;
    }
  }
  return nullptr;
}
