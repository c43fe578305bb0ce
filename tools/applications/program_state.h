#pragma once

#include <string>
#include <vector>

#include "platform/host/applications/introspect.h"
#include "tools/table.h"
#include "tools/values/json_value.h"

// Whether a program runs, which resources it uses, and how it ended. One thread.

struct ProgramState {
  HostProcessInfo process;             // pid 0: it does not run
  HostProcessUse use;                  // of that process
  HostApplicationInfo application;     // an empty path: it is not known
  std::vector<std::string> ports;      // that the process owns, but for hidden ones
  int connections = -1;                // to those ports
  std::string log;                     // path of its log, "" if it has none
  std::string lastEnd;                 // the line that the last opener wrote about its end, or ""
  std::vector<std::string> lastLines;  // of the log
};

// The state of the process that owns a port name. The pid is 0 if no process does.
ProgramState StateOfPort(const std::string& name);

// The state of an application: of the first process that runs its program.
ProgramState StateOfApplication(const HostApplicationInfo& application);

// Returns the path of a bundle: of the application that the owner of a port belongs to, or of an
// application as for FindApplication. "" if there is none.
std::string BundleOf(const std::string& word);

// Rows for people; a program that does not run has those about its installation and its end.
std::vector<TableRow> StateRows(const ProgramState& state);

// Adds the members application, identifier, program, pid, since, ageSeconds, memoryBytes,
// descriptors, connections, ports, log, lastEnd, lastLines and problem.
void AddState(JsonValue& model, const ProgramState& state);

// "1.5 MiB".
std::string SizeText(long long bytes);
