#include <string>

#include "launch/launch_spec.h"
#include "platform/host/applications/introspect.h"
#include "tools/output.h"
#include "tools/verbs/verb.h"

namespace {

// The session daemon that clients of this program's installation would start.
JsonValue DaemonModel() {
  for (const HostApplicationInfo& application : HostDescribeApplications()) {
    if (application.identifier != gSessionMonitorLaunchSpec.bundleID) continue;
    JsonValue daemon = JsonValue::Object();
    daemon.Add("version", application.version.empty() ? JsonValue() : application.version);
    daemon.AddBytes("bundle", application.path);
    return daemon;
  }
  return {};
}

}  // namespace

static int RunVersion(const CommandLine& line) {
  JsonValue model = JsonValue::Object();
  model.Add("vltctl", VLT_VERSION);
  model.Add("daemon", DaemonModel());
  if (line.Has("--json")) return PrintJson(model), kExitOk;
  Print(std::string("vltctl ") + VLT_VERSION + "\n");
  const JsonValue& daemon = *model.Find("daemon");
  if (daemon.IsNull()) return Print("vltsessiond is not installed\n"), kExitOk;
  const JsonValue& version = *daemon.Find("version");
  Print("vltsessiond " + (version.IsNull() ? "(no version)" : version.Plain()) + " in " +
        daemon.Find("bundle")->Plain() + "\n");
  return kExitOk;
}

Verb VersionVerb() {
  return {"version",
          "[--json]",
          "Prints the versions of vltctl and of the installed session daemon.",
          "The session daemon is the one that vltctl start would find by its bundle\n"
          "identifier. vltctl --version does the same.\n"
          "\n"
          "Example: vltctl version\n"
          "\n"
          "JSON: one object with vltctl (the version) and daemon, an object with version\n"
          "and bundle (its path), or null if it is not installed. If the path is not\n"
          "UTF-8, bundleHex has its bytes.\n",
          {kJsonOption},
          0,
          0,
          RunVersion,
          false};
}
