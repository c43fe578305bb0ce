#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/ipc_process.h"
#include "bench/ipc_transport.h"

// Where the processes of a measurement run.
struct IpcPlacement {
  std::string name;
  IpcProcessors server;
  IpcProcessors clients;
  IpcProcessors broker;

  bool IsFree() const { return server.size() > 1; }
};
// "pin0": everything on one processor. "split": the server on that one, the clients on another, a
// broker on either. "free": everybody anywhere. The last two only where there are two processors.
std::vector<IpcPlacement> IpcPlacements();

// How long one measurement takes.
struct IpcBudget {
  int warmUpMs = 30;
  int measureMs = 150;
};

// A server and its clients, for one measurement. Lives in the program that starts them; the
// destructor ends every process, also after a failure.
class IpcMeeting {
 public:
  IpcMeeting(IpcTransport& transport, const IpcWork& work, const IpcPlacement& placement);

  // Starts all; each client has tried once whether what it sends arrives as it was.
  bool Start();

  // The first client works; `*nanoseconds` is the time for each request, post or look-up. For posts
  // it counts until the server has handled them all.
  bool Measure(const IpcBudget& budget, double* nanoseconds);
  bool MeasureCount(uint64_t count, double* nanoseconds);

  // All clients send requests. Gives each client's number of replies within `windowMs`.
  bool MeasureAll(int windowMs, std::vector<double>* answers);

  // All clients but the first send a request every few milliseconds; the median of their 99th
  // percentiles. Meanwhile the first one posts without a pause, if `floods`, or does nothing.
  bool MeasureLatency(int windowMs, bool floods, double* nanoseconds);

  // From before the first client connected until it had its first reply.
  double FirstNanoseconds() const { return firstNanoseconds; }

  // Tells everybody to leave. False when somebody does not, or failed.
  bool End();

  // The processes apart from the clients: the server, and a broker where there is one.
  std::vector<pid_t> ServingPids() const;
  pid_t ClientPid() const { return clients.front()->Pid(); }

 private:
  bool StartServer();
  bool StartClient();
  bool Ask(const std::vector<double>& command, int patienceMs, double* answer);

  IpcTransport& transport;
  const IpcWork work;
  const IpcPlacement placement;
  const std::string place;
  IpcProcess server;
  std::vector<std::unique_ptr<IpcProcess>> clients;
  double firstNanoseconds = 0;
};
