#pragma once

// Reports to the service manager that started this program. The manager passes a socket in the
// variable NOTIFY_SOCKET and waits until the program is ready before it starts others.

// Sends "READY=1" to the service manager when it is constructed and "STOPPING=1" when it is
// destroyed. Does nothing without a service manager, or in a program with raised privileges. Never
// waits: a message that the socket does not take at once is lost. Any thread.
class HostServiceState {
 public:
  HostServiceState();
  ~HostServiceState();
  HostServiceState(const HostServiceState&) = delete;
  HostServiceState& operator=(const HostServiceState&) = delete;
};
