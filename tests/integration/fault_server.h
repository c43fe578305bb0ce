#pragma once

#include <CoreServices/CoreServices.h>
#include <gtest/gtest.h>
#include <mach/mach.h>

#include <cstdint>
#include <string>
#include <vector>

#include "aeport/port_listener.h"
#include "tests/integration/process_use.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// The server of the fault tests and the requests to it. Every event has a number and data.
//
// It runs as the role "FaultServer", and as "NarrowFaultServer" with the number of file descriptors
// in its first argument. The role "Waiter" sends a request that gets no reply; it reports the
// status of that, then of a request to the same right, then of one to the port name. The role
// "Holder" sends such requests on as many connections as its argument says, and keeps them until it
// ends.

inline constexpr AEEventClass kFaultClass = FourCC('f', 'a', 'u', 'l');
inline constexpr AEKeyword kNumberKey = FourCC('n', 'u', 'm', 'b');
inline constexpr AEKeyword kDataKey = FourCC('d', 'a', 't', 'a');

enum : AEEventID {
  kEchoID = FourCC('e', 'c', 'h', 'o'),  // reply: its number and data
  kMarkID = FourCC('m', 'a', 'r', 'k'),  // stored; reply: its number
  kTellID = FourCC('t', 'e', 'l', 'l'),  // reply: the stored numbers
  kFillID = FourCC('f', 'i', 'l', 'l'),  // reply: so many bytes
  kHoldID = FourCC('h', 'o', 'l', 'd'),  // no reply; the role tells its test "held"
  kDropID = FourCC('d', 'r', 'o', 'p'),  // no reply; for one-way events
  kSelfID = FourCC('s', 'e', 'l', 'f'),  // reply: HostCountPorts() of the server
};

// The server's own counts for its ports, without the connection and the reply right of the request.
struct ServerCounts {
  size_t portNames = 0;
  size_t connections = 0;
  size_t queuedBytes = 0;
  size_t partialBytes = 0;
  friend bool operator==(const ServerCounts&, const ServerCounts&) = default;
};
ServerCounts CountsOf(const char* name);  // asks over a new connection

// Limits this process to `most` file descriptors. Returns false if that fails.
bool HaveFewDescriptors(int most);

// A server of a test's own. ExpectUnchanged fails unless the server still runs and soon holds no
// more than it held when it had started: file descriptors and threads as the kernel counts them,
// rights, connections and bytes as the server counts them.
class ServerProcess : public TestProcess {
 public:
  explicit ServerProcess(const std::string& role, std::vector<std::string> arguments = {});
  void ExpectUnchanged();

  ProcessUse before;

 private:
  ServerCounts counts;
};

// A test with a server of its own, which must be unchanged afterwards.
class FaultTest : public testing::Test {
 protected:
  void TearDown() override { server.ExpectUnchanged(); }

  OpenDescriptorCheck noLeaks;
  ServerProcess server{"FaultServer"};
  ProcessUse& before = server.before;
};

// Listens on this thread's run loop with an empty handler.
OSStatus ListenUnder(VLTPortAEMachPortListener& listener, const char* name);

// Serves one message after the other, unless a subclass overrides `Serve`.
class FaultListener : public VLTPortAEMachPortListener {
 public:
  explicit FaultListener(TestRole* owner) : role(owner) {}
  OSStatus Listen();   // under the role's name, on this thread's run loop
  int ServeForEver();  // the role's whole life; the test kills it

 protected:
  // Fills `reply`. Returns false if the request gets no reply.
  virtual bool Serve(AEEventID eventID, SInt32 number, const AppleEvent& event, AppleEvent* reply);

  TestRole* role;

 private:
  void PortCallback(CFMachPortRef from, void* message, CFIndex size) override;

  std::vector<SInt32> marks;
};

// Makes an event to `address` (null: without one). The caller disposes of it.
OSStatus MakeFaultEvent(const AEDesc* address, AEEventID eventID, SInt32 number,
                        const std::string& data, AppleEvent* event);
SInt32 NumberOf(const AppleEvent& event);  // -1 without one
std::string DataOf(const AppleEvent& event);

// One finished request.
struct FaultAnswer {
  OSStatus status = 0;  // of looking up and sending; the rest is valid if it is 0
  SInt32 number = -1;
  std::string data;
  int64_t elapsed = 0;  // nanoseconds from before the look-up

  // The stored numbers, from a reply to kTellID.
  std::vector<SInt32> Marks() const;
};

// Sends ('faul', id) and waits at most `ticks` for the reply.
FaultAnswer AskServer(const char* name, AEEventID eventID = kEchoID, SInt32 number = 0,
                      const std::string& data = "", SInt32 ticks = 20 * 60);
FaultAnswer AskPort(mach_port_t port, AEEventID eventID, SInt32 number = 0,
                    const std::string& data = "", SInt32 ticks = 20 * 60);
OSStatus SendOneWay(mach_port_t port, AEEventID eventID, SInt32 number, SInt32 ticks = 20 * 60);

OSStatus LookUpPort(const char* name, mach_port_t* port = nullptr);

// Bytes without a pattern that a shifted or repeated part would hide in.
std::string PatternBytes(size_t size);
