#pragma once

// What the service manager that started this program is told: it gave the program a socket in the
// variable NOTIFY_SOCKET and waits for the program to be ready before it starts others.

// While it lives, the program is ready: tells the service manager "READY=1" when it is made and
// "STOPPING=1" at its end. Without a service manager does nothing, and so in programs that run with
// raised privileges. Never waits: what the socket does not take at once is lost. Any thread.
class HostServiceState {
 public:
  HostServiceState();
  ~HostServiceState();
  HostServiceState(const HostServiceState&) = delete;
  HostServiceState& operator=(const HostServiceState&) = delete;
};
