#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// A transport is one way for two processes to communicate, and one row of the results.

enum class IpcKind {
  kRequest,  // the payload goes there, a small number comes back
  kEcho,     // the payload goes both ways
  kOneWay,   // the payload goes there, nothing comes back; the receiver counts
  kLookUp,   // a name is looked up, nobody is spoken to
};

struct IpcWork {
  IpcKind kind = IpcKind::kRequest;
  size_t size = 0;  // bytes of payload
  int clients = 1;
};

// The client's end. Used by one thread of one process.
class IpcClient {
 public:
  using Bytes = std::vector<uint8_t>;

  virtual ~IpcClient() = default;
  virtual bool Connect() = 0;

  // Sends the payload and waits. kRequest: returns true if the server reports that it read as many
  // bytes. kEcho: `answer` (as large as the payload) gets the reply.
  virtual bool Request(const Bytes& payload, Bytes* answer) = 0;

  virtual bool Post(const Bytes& payload) = 0;
  // How many posts the server has handled, once it has handled all of this client's.
  virtual bool Counted(uint64_t* count) = 0;

  virtual bool LookUp() = 0;  // true when the server was found

  // Makes Serve return, if it does not by itself when the last client leaves.
  virtual void StopServer() {}
};

class IpcTransport {
 public:
  virtual ~IpcTransport() = default;
  virtual const char* Name() const = 0;

  // In the program that starts the rest, once. False when this transport cannot be had here.
  virtual bool Prepare() { return true; }
  virtual pid_t BrokerPid() const { return 0; }  // a third process that all messages go through

  // The two ends, each in a process of its own. `place` is the same for both and no other
  // measurement's.
  virtual bool Serve(const IpcWork& work, const std::string& place,
                     const std::function<void()>& ready) = 0;
  virtual std::unique_ptr<IpcClient> NewClient(const IpcWork& work, const std::string& place) = 0;
};

// All of them, the bare socket first: the others are compared with it. `folder` is a temporary
// folder for their sockets.
std::vector<std::unique_ptr<IpcTransport>> IpcAllTransports(const std::string& folder);

std::unique_ptr<IpcTransport> NewRawTransport(const std::string& folder);
std::unique_ptr<IpcTransport> NewOursTransport();
// Null where the build found no sd-bus.
std::unique_ptr<IpcTransport> NewDBusTransport(const std::string& folder);
