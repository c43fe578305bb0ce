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

// HostEndpoint is what a port looks like from outside: a listening socket and the names that lead
// to it. The socket is opened with the first name and lives until Close.
//
// Guarded by its receiver's lock, all but PortID, which never changes.
class HostEndpoint {
 public:
  HostEndpoint();

  uint64_t PortID() const { return portID; }
  int Listener() const { return listener; }  // -1 without a name

  // Claims `service`, with the socket open before the name is seen. Results of bootstrap_register;
  // a first name that is not got leaves no socket.
  kern_return_t Register(const char* service);
  bool IsRegisteredAs(const char* service) const;
  bool Unregister(const char* service);  // false when it is not registered so

  enum class Outcome {
    kAccepted,
    kRefused,   // somebody who may not connect, or whose credentials cannot be had: closed again
    kNobody,    // nobody waits to be accepted
    kAgain,     // the call is to be repeated
    kShortage,  // somebody waits, but there is no descriptor
    kFailure,   // somebody may wait, and cannot be accepted now
  };
  // Accepts one connection. On kAccepted `*fd` is the caller's.
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
