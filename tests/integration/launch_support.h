#pragma once

#include <unistd.h>

#include <string>
#include <vector>

#include <CoreServices/CoreServices.h>

#include "platform/host/applications/introspect.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"

// Applications for the launch tests: bundles and single programs that follow a plan (see
// launched_program.cpp), in a folder of the test's own in which applications are searched for. The
// destructor ends their processes and counts what a test must give back. One thread.
class LaunchedApplications {
 public:
  LaunchedApplications();
  ~LaunchedApplications();

  // A bundle below the application folder; returns its path.
  std::string AddBundle(const std::string& name, const TestBundle& bundle, const std::string& plan);
  std::string AddProgram(const std::string& name, const std::string& plan);

  // The step of a plan by which the starts of `name` are counted, and their pids in order.
  std::string NoteStep(const std::string& name) const { return "note " + NotePath(name) + "\n"; }
  std::vector<pid_t> Starts(const std::string& name) const;
  void ForgetStarts(const std::string& name) const { unlink(NotePath(name).c_str()); }
  bool WaitForStart(const std::string& name, size_t count = 1) const;

  // A step that waits until the test lets it go on.
  std::string WaitStep(const std::string& name);
  bool LetGoOn(const std::string& name);

  const ScratchFolder& Folder() const { return folder; }

 private:
  std::string NotePath(const std::string& name) const { return folder.Path(name + ".starts"); }

  const OpenDescriptorCheck noLeaks;
  ScratchFolder folder;
  ScopedVariable data;
  ScopedVariable shared;
};

FSRef RefOf(const std::string& path);

// Waits for the end of a process that is not a child of this one.
bool WaitForEnd(pid_t pid);

// Sends the quit event and waits until nobody owns the port.
bool QuitAndWait(const std::string& port);
