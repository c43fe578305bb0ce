#pragma once

#include <mach/mach.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct HostPeer {
  pid_t pid = 0;
  uid_t uid = 0;
};

// HostEndpoint is what other processes see of a port: a listening socket and the port names that
// lead to it. The socket is opened with the first name and lives until Close.
//
// Guarded by its receiver's lock, except PortID, which never changes.
class HostEndpoint {
 public:
  HostEndpoint();

  uint64_t PortID() const { return portID; }
  int Listener() const { return listener; }  // -1 while the port has no name

  // Opens the socket if it is the first name, then claims `service`. Returns the results of
  // bootstrap_register. If the first name cannot be claimed, the socket is closed again.
  kern_return_t Register(const char* service);
  bool IsRegisteredAs(const char* service) const;
  bool Unregister(const char* service);  // false if it is not registered

  enum class Outcome {
    kAccepted,
    kRefused,   // closed again: the peer may not connect, or its credentials cannot be read
    kNobody,    // no peer waits to be accepted
    kAgain,     // the call is to be repeated
    kShortage,  // a peer waits, but there is no free file descriptor
    kFailure,   // a peer may wait, and cannot be accepted now
  };
  // Accepts one connection. On kAccepted the caller owns `*fd`.
  Outcome Accept(int* fd, HostPeer* peer);

  // Gives up the names, then the socket.
  void Close();

 private:
  struct Claim {
    std::string service;
    int descriptor;
  };

  kern_return_t OpenSocket();
  void CloseSocket();

  const uint64_t portID;
  int listener = -1;
  std::vector<Claim> claims;
};
