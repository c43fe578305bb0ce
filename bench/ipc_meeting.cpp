#include "bench/ipc_meeting.h"

#include <algorithm>

#include "bench/ipc_report.h"
#include "platform/host/base/clock.h"

namespace {

// The first number of a command to a client.
enum Command { kForTime, kForCount, kForWindow, kLatency, kFlood, kLeave };

constexpr int kWindowLeadMs = 50;              // for all clients to be at work
constexpr int kPaceMs = 5;                     // between two requests whose latency is taken
constexpr int kCountPatienceMs = 3600 * 1000;  // a tracer may look at each request

std::string NextPlace() {
  static int number = 0;
  return "p" + std::to_string(++number);
}

// A client's process: waits for commands and carries them out.
class Worker {
 public:
  Worker(const IpcWork& theWork, IpcClient& theClient)
      : work(theWork), client(theClient), payload(work.size), answer(work.size) {
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 31 + i / 251);
  }

  // One of each kind, looked at closely. What is measured later is checked by size only.
  bool Try() {
    if (!Repeat(1)) return false;
    return work.kind != IpcKind::kEcho || answer == payload;
  }

  bool Obey(IpcChannel& parent) {
    std::vector<double> command;
    while (parent.Hear(&command)) {
      double result = 0;
      bool done = false;
      switch (static_cast<int>(command.at(0))) {
        case kForTime:
          done = MeasureTime(command.at(1), command.at(2), &result);
          break;
        case kForCount:
          done = MeasureCount(static_cast<uint64_t>(command.at(1)), &result);
          break;
        case kForWindow:
          done = CountInWindow(command.at(1), command.at(2), &result);
          break;
        case kLatency:
          done = TakeLatency(command.at(1), command.at(2), &result);
          break;
        case kFlood:
          done = Flood(command.at(2));
          break;
        case kLeave:
          if (command.at(1) != 0) client.StopServer();
          return true;
      }
      if (!done || !parent.Tell({result})) return false;
    }
    return false;
  }

 private:
  bool Repeat(uint64_t count) {
    switch (work.kind) {
      case IpcKind::kOneWay:
        return PostAll(count);
      case IpcKind::kLookUp:
        while (count-- > 0) {
          if (!client.LookUp()) return false;
        }
        return true;
      default:
        while (count-- > 0) {
          if (!client.Request(payload, &answer)) return false;
        }
        return true;
    }
  }

  bool PostAll(uint64_t count) {
    for (uint64_t i = 0; i < count; ++i) {
      if (!client.Post(payload)) return false;
    }
    posted += count;
    uint64_t arrived = 0;
    return client.Counted(&arrived) && arrived == posted;
  }

  bool MeasureCount(uint64_t count, double* nanoseconds) {
    const int64_t begin = HostNow();
    const bool done = Repeat(count);
    *nanoseconds = static_cast<double>(HostNow() - begin) / static_cast<double>(count);
    return done;
  }

  // The warm-up, in growing steps, also gives the number of requests for the time to measure.
  bool MeasureTime(double warmUpMs, double measureMs, double* nanoseconds) {
    double each = 1;
    const double warmUp = warmUpMs * kHostMillisecond;
    for (uint64_t step = 8;; step *= 2) {
      if (!MeasureCount(step, &each)) return false;
      if (each * static_cast<double>(step) > warmUp / 2) break;
    }
    const double count = std::max(measureMs * kHostMillisecond / std::max(each, 1.0), 2.0);
    return MeasureCount(static_cast<uint64_t>(count), nanoseconds);
  }

  bool CountInWindow(double begin, double end, double* answers) {
    for (;;) {
      if (!Repeat(1)) return false;
      const auto now = static_cast<double>(HostNow());
      if (now >= end) return true;
      if (now >= begin) *answers += 1;
    }
  }

  bool TakeLatency(double begin, double end, double* result) {
    std::vector<double> all;
    for (;;) {
      const auto before = static_cast<double>(HostNow());
      if (before >= end) break;
      if (!Repeat(1)) return false;
      if (before >= begin) all.push_back(static_cast<double>(HostNow()) - before);
      IpcPause(kPaceMs);
    }
    if (all.empty()) return false;
    std::sort(all.begin(), all.end());
    *result = all[all.size() * 99 / 100];
    return true;
  }

  bool Flood(double end) {
    while (static_cast<double>(HostNow()) < end) {
      if (!client.Post(payload)) return false;
    }
    uint64_t arrived = 0;
    return client.Counted(&arrived);
  }

  const IpcWork work;
  IpcClient& client;
  IpcClient::Bytes payload;
  IpcClient::Bytes answer;
  uint64_t posted = 0;
};

}  // namespace

std::vector<IpcPlacement> IpcPlacements() {
  const IpcProcessors all = IpcAllowedProcessors();
  std::vector<IpcPlacement> placements;
  if (all.empty()) return placements;
  const IpcProcessors first = {all[0]};
  placements.push_back({"pin0", first, first, first});
  if (all.size() == 1) return placements;
  placements.push_back({"split", first, {all[1]}, {all[0], all[1]}});
  placements.push_back({"free", all, all, all});
  return placements;
}

IpcMeeting::IpcMeeting(IpcTransport& theTransport, const IpcWork& theWork,
                       const IpcPlacement& thePlacement)
    : transport(theTransport), work(theWork), placement(thePlacement), place(NextPlace()) {}

bool IpcMeeting::Start() {
  if (transport.BrokerPid() != 0 && !IpcPin(transport.BrokerPid(), placement.broker)) return false;
  if (!StartServer()) return false;
  for (int i = 0; i < work.clients; ++i) {
    if (!StartClient()) return false;
  }
  // A server may wait for all of them before it serves the first.
  std::vector<double> ready;
  for (const auto& client : clients) {
    if (!client->Channel().Hear(&ready)) return false;
    if (client == clients.front()) firstNanoseconds = ready.at(0);
  }
  return true;
}

bool IpcMeeting::StartServer() {
  std::vector<double> ready;
  return server.Fork(placement.server, [this](IpcChannel& parent) {
    return transport.Serve(work, place, [&parent] { parent.Tell({1}); });
  }) && server.Channel().Hear(&ready);
}

bool IpcMeeting::StartClient() {
  clients.push_back(std::make_unique<IpcProcess>());
  return clients.back()->Fork(placement.clients, [this](IpcChannel& parent) {
    const int64_t begin = HostNow();
    const std::unique_ptr<IpcClient> client = transport.NewClient(work, place);
    Worker worker(work, *client);
    if (!client->Connect() || !worker.Try()) return false;
    return parent.Tell({static_cast<double>(HostNow() - begin)}) && worker.Obey(parent);
  });
}

bool IpcMeeting::Ask(const std::vector<double>& command, int patienceMs, double* answer) {
  IpcChannel& channel = clients.front()->Channel();
  std::vector<double> numbers;
  if (!channel.Tell(command) || !channel.Hear(&numbers, patienceMs)) return false;
  *answer = numbers[0];
  return true;
}

bool IpcMeeting::Measure(const IpcBudget& budget, double* nanoseconds) {
  return Ask({kForTime, double(budget.warmUpMs), double(budget.measureMs)}, IpcChannel::kPatienceMs,
             nanoseconds);
}

bool IpcMeeting::MeasureCount(uint64_t count, double* nanoseconds) {
  return Ask({kForCount, static_cast<double>(count)}, kCountPatienceMs, nanoseconds);
}

bool IpcMeeting::MeasureAll(int windowMs, std::vector<double>* answers) {
  const int64_t begin = HostNow() + kWindowLeadMs * kHostMillisecond;
  const int64_t end = begin + windowMs * kHostMillisecond;
  for (const auto& client : clients) {
    if (!client->Channel().Tell({kForWindow, double(begin), double(end)})) return false;
  }
  std::vector<double> answer;
  for (const auto& client : clients) {
    if (!client->Channel().Hear(&answer)) return false;
    answers->push_back(answer[0]);
  }
  return true;
}

bool IpcMeeting::MeasureLatency(int windowMs, bool floods, double* nanoseconds) {
  const int64_t begin = HostNow() + kWindowLeadMs * kHostMillisecond;
  const int64_t end = begin + windowMs * kHostMillisecond;
  for (const auto& client : clients) {
    const bool isFirst = client == clients.front();
    if (isFirst && !floods) continue;
    const Command command = isFirst ? kFlood : kLatency;
    if (!client->Channel().Tell({double(command), double(begin), double(end)})) return false;
  }
  std::vector<double> all, answer;
  for (const auto& client : clients) {
    const bool isFirst = client == clients.front();
    if (isFirst && !floods) continue;
    if (!client->Channel().Hear(&answer)) return false;
    if (!isFirst) all.push_back(answer[0]);
  }
  *nanoseconds = IpcMedian(all);
  return true;
}

bool IpcMeeting::End() {
  // The first client stops the server, so it is the last to leave.
  bool left = true;
  for (size_t i = clients.size(); i-- > 0;) {
    left = clients[i]->Channel().Tell({kLeave, i == 0 ? 1.0 : 0.0}) && clients[i]->Join() && left;
  }
  return server.Join() && left;
}

std::vector<pid_t> IpcMeeting::ServingPids() const {
  std::vector<pid_t> pids = {server.Pid()};
  if (transport.BrokerPid() != 0) pids.push_back(transport.BrokerPid());
  return pids;
}
