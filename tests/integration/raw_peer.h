#pragma once

#include <CoreServices/CoreServices.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/host/wire/frame.h"
#include "tests/integration/fault_server.h"
#include "tests/integration/raw_lane.h"
#include "tests/support/test_process.h"

// RawPeer is one end of a connection whose bytes the test writes and reads itself, like a broken or
// hostile client or server. Every wait is bounded. One thread at a time; the destructor hangs up.
//
// With VLT_TEST_LANES in the environment every peer that connects takes a lane, unless the server
// refuses it or cannot answer because it is stopped or is the test itself. Then all bytes go by the
// lane, and what the tests expect is the same.
class RawPeer {
 public:
  explicit RawPeer(const char* name);  // connects to the port that is published under `name`
  explicit RawPeer(int descriptor) : fd(descriptor) {}  // takes a connection over
  RawPeer(RawPeer&& other) noexcept;
  RawPeer& operator=(RawPeer&& other) noexcept;
  ~RawPeer();

  // Returns false if the peer has hung up, or took nothing for 20 s.
  bool Write(const std::string& bytes);
  // Writes as much as the socket takes without waiting.
  void WriteAtOnce(const std::string& bytes);
  bool HasLane() const { return lane != nullptr; }
  RawLane& Lane() { return *lane; }
  bool TakeLane();  // false if it is declined
  int Socket() const { return fd; }
  // Writes the bytes and passes a file descriptor with them, by the socket.
  bool WriteWithDescriptor(const std::string& bytes, int passed);
  // Waits until the other end has taken all that was written.
  bool WaitTaken(std::chrono::milliseconds limit = 20s);

  struct Frame {
    HostFrameHeader header;
    std::string body;
  };
  // Returns the next frame that is not an offer of a lane; empty at the end of the stream, for
  // bytes that are not a frame, and after `limit`.
  std::optional<Frame> ReadFrame(std::chrono::milliseconds limit = 20s);
  // Writes a request and reads its reply: the number and data of that event (see fault_server.h).
  std::optional<FaultAnswer> Ask(const std::string& frame, std::chrono::milliseconds limit = 20s);
  // Writes the reply to a request: kAEAnswer with a number.
  bool Reply(uint64_t requestNumber, SInt32 number);

  // Waits until the peer hangs up, and drops the bytes before that.
  bool WaitHungUp(std::chrono::milliseconds limit = 20s);
  // Returns whether the peer has hung up. Reads nothing.
  bool HasHungUp() const;

 private:
  bool Read(size_t size, std::string* bytes, std::chrono::milliseconds limit);
  bool ReadFromLane(size_t size, std::string* bytes, int64_t end);

  int fd = -1;
  std::unique_ptr<RawLane> lane;
};

// The header of a request whose body claims to have this many bytes.
std::string RawHeader(uint32_t bodySize);

// Returns one complete frame with an event: its id, number and data (see fault_server.h). `header`
// has all fields but the size.
std::string RawFrame(HostFrameHeader header, AEEventID eventID, SInt32 number,
                     const std::string& data = "");
HostFrameHeader RawRequest(uint64_t requestNumber);
HostFrameHeader RawReply(uint64_t requestNumber);

// A published port whose connections the test, or its role, serves itself.
class RawPort {
 public:
  explicit RawPort(int backlog = 64, const std::string& name = UniquePortName());
  ~RawPort() { Die(); }
  const char* Name() const { return name.c_str(); }
  bool IsListening() const { return listener >= 0; }
  bool HasCaller() const;
  RawPeer Accept();
  void StopListening();  // the name stays claimed
  void Die();

 private:
  const std::string name;
  uint64_t portID;
  int listener;
  int claim = -1;
};
