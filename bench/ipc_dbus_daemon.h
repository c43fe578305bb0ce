#pragma once

#include <string>

#include "bench/ipc_process.h"

// A message bus for these measurements alone: the reference implementation with a configuration
// and a socket in a temporary folder, where also descriptions of services that it is to
// start may lie. The object owns the process.
class IpcDBusDaemon {
 public:
  explicit IpcDBusDaemon(const std::string& theFolder) : folder(theFolder) {}

  static bool IsInstalled();

  // Returns once it listens. False when it cannot be started.
  bool Start(const IpcProcessors& processors = {});
  void Stop() { process.Kill(); }

  std::string Address() const { return "unix:path=" + folder + "/bus"; }
  pid_t Pid() const { return process.Pid(); }
  int64_t StartTime() const { return startTime; }  // from exec until it listened, nanoseconds

 private:
  bool WriteConfiguration() const;
  void PrintErrors() const;
  std::string ConfigurationPath() const { return folder + "/bus.conf"; }
  std::string ErrorsPath() const { return folder + "/bus.errors"; }

  const std::string folder;
  IpcProcess process;
  int64_t startTime = 0;
};
