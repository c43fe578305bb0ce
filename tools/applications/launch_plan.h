#pragma once

#include <string>
#include <vector>

#include "launch/launch_spec.h"
#include "tools/applications/search.h"
#include "tools/table.h"

// The launcher's information about one of the package's daemons, and the steps that it would take
// to start it. One thread.

struct LaunchPlan {
  OSStatus err = 0;  // of reading the launch preferences
  std::string portName;
  bool findByPortName = false;
  bool findBySignature = false;
  bool launchIfNotFound = false;
  SInt32 retries = 0;
  SInt32 interval = 0;          // seconds
  std::string preferencesFile;  // of the launch preferences, whether it exists or not
  bool hasPreferences = false;
  std::string problem;    // of the launch preferences: file, key and what is wrong; else ""
  Search search;          // path, identifier and signature, as far as they are turned on
  std::string opensNext;  // what is opened if the daemon does not run; "" if nothing
};

// Reads the launch preferences and looks for the application, with the launcher's own code. Starts
// nothing.
LaunchPlan PlanLaunch(const VLTLaunchSpec& specification);

// A sentence on what the launcher does if it does not find the daemon.
std::string NextStep(const LaunchPlan& plan);

// Rows for people: the switches, the launch preferences and the next step.
std::vector<TableRow> PlanRows(const LaunchPlan& plan);
JsonValue PlanModel(const LaunchPlan& plan);

// Finds the launch specification of a daemon by its port name, bundle identifier or signature.
// Returns null if `word` matches no daemon.
const VLTLaunchSpec* LaunchSpecificationOf(const std::string& word);
