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

// RawPeer is one end of a connection whose bytes the test writes and reads itself: what a broken or
// hostile program might do to a server, or as a server to its clients. Every wait is bounded. One
// thread at a time; the destructor hangs up.
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

  // False when the other end has hung up, or took nothing for 20 s.
  bool Write(const std::string& bytes);
  // Writes as much as the socket takes without waiting.
  void WriteAtOnce(const std::string& bytes);
  bool HasLane() const { return lane != nullptr; }
  RawLane& Lane() { return *lane; }
  bool TakeLane();  // false when it is not accepted
  int Socket() const { return fd; }
  // The bytes with a descriptor beside them, by the socket.
  bool WriteWithDescriptor(const std::string& bytes, int passed);
  // Waits until the other end has taken all that was written.
  bool WaitTaken(std::chrono::milliseconds limit = 20s);

  struct Frame {
    HostFrameHeader header;
    std::string body;
  };
  // The next frame, offers of lanes passed over; empty at the end of the stream, for what is no
  // frame, and after `limit`.
  std::optional<Frame> ReadFrame(std::chrono::milliseconds limit = 20s);
  // Writes a request and reads its reply: the number and data of that event (see fault_server.h).
  std::optional<FaultAnswer> Ask(const std::string& frame, std::chrono::milliseconds limit = 20s);
  // Writes the answer to a request: kAEAnswer with a number.
  bool Reply(uint64_t requestNumber, SInt32 number);

  // Waits until the other end hangs up; whatever comes before is dropped.
  bool WaitHungUp(std::chrono::milliseconds limit = 20s);
  // Whether the other end has hung up already. Reads nothing.
  bool HasHungUp() const;

 private:
  bool Read(size_t size, std::string* bytes, std::chrono::milliseconds limit);
  bool ReadFromLane(size_t size, std::string* bytes, int64_t end);

  int fd = -1;
  std::unique_ptr<RawLane> lane;
};

// The header of a request whose body claims to have this many bytes.
std::string RawHeader(uint32_t bodySize);

// One whole frame with an event in it: its id, its number and its data (see fault_server.h).
// `header` tells all but the size.
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
  void StopListening();  // the name stays claimed, as an owner's that has not noticed yet
  void Die();

 private:
  const std::string name;
  uint64_t portID;
  int listener;
  int claim = -1;
};
