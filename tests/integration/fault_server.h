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

// The server that the fault tests talk to, and how they ask it. Every event has a number and data.
//
// It runs as the role "FaultServer", and as "NarrowFaultServer" with no more descriptors than its
// first argument says. The role "Waiter" asks it what is never answered, and tells how that ended
// and then how new requests fare: with the port that it knew, and with the name. The role "Holder"
// asks it the same on as many connections as its argument says, and keeps them until it ends.

inline constexpr AEEventClass kFaultClass = FourCC('f', 'a', 'u', 'l');
inline constexpr AEKeyword kNumberKey = FourCC('n', 'u', 'm', 'b');
inline constexpr AEKeyword kDataKey = FourCC('d', 'a', 't', 'a');

enum : AEEventID {
  kEchoID = FourCC('e', 'c', 'h', 'o'),  // answered with its number and data
  kMarkID = FourCC('m', 'a', 'r', 'k'),  // remembered, and answered with its number
  kTellID = FourCC('t', 'e', 'l', 'l'),  // answered with what was remembered
  kFillID = FourCC('f', 'i', 'l', 'l'),  // answered with as many bytes as its number says
  kHoldID = FourCC('h', 'o', 'l', 'd'),  // never answered; the role tells its test "held"
  kDropID = FourCC('d', 'r', 'o', 'p'),  // counted only: for those who want no answer
  kSelfID = FourCC('s', 'e', 'l', 'f'),  // answered with HostCountPorts() of the server
};

// What the server holds for its ports, as it counts itself while it answers. The connection that
// asks, and its reply right, are not counted.
struct ServerCounts {
  size_t portNames = 0;
  size_t connections = 0;
  size_t queuedBytes = 0;
  size_t partialBytes = 0;
  friend bool operator==(const ServerCounts&, const ServerCounts&) = default;
};
ServerCounts CountsOf(const char* name);  // asks over a new connection

// Lets this process have no more descriptors than `most`. False when that cannot be.
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

// Listens on this thread's run loop, with nothing to say.
OSStatus ListenUnder(VLTPortAEMachPortListener& listener, const char* name);

// Serves one message after the other, until `Serve` of a subclass does otherwise.
class FaultListener : public VLTPortAEMachPortListener {
 public:
  explicit FaultListener(TestRole* owner) : role(owner) {}
  OSStatus Listen();   // under the role's name, on this thread's run loop
  int ServeForEver();  // the role's whole life; the test kills it

 protected:
  // Fills `reply`. False when the request is not to be answered.
  virtual bool Serve(AEEventID eventID, SInt32 number, const AppleEvent& event, AppleEvent* reply);

  TestRole* role;

 private:
  void PortCallback(CFMachPortRef from, void* message, CFIndex size) override;

  std::vector<SInt32> marks;
};

// A new event to `address` (null: to nobody). The caller disposes of it.
OSStatus MakeFaultEvent(const AEDesc* address, AEEventID eventID, SInt32 number,
                        const std::string& data, AppleEvent* event);
SInt32 NumberOf(const AppleEvent& event);  // -1 without one
std::string DataOf(const AppleEvent& event);

// One finished request.
struct FaultAnswer {
  OSStatus status = 0;  // of looking up and sending; the answer's content only when it is 0
  SInt32 number = -1;
  std::string data;
  int64_t elapsed = 0;  // nanoseconds from before the look-up

  // What was remembered, of an answer to kTellID.
  std::vector<SInt32> Marks() const;
};

// Sends ('faul', id) and waits at most `ticks` for the answer.
FaultAnswer AskServer(const char* name, AEEventID eventID = kEchoID, SInt32 number = 0,
                      const std::string& data = "", SInt32 ticks = 20 * 60);
FaultAnswer AskPort(mach_port_t port, AEEventID eventID, SInt32 number = 0,
                    const std::string& data = "", SInt32 ticks = 20 * 60);
OSStatus SendOneWay(mach_port_t port, AEEventID eventID, SInt32 number, SInt32 ticks = 20 * 60);

OSStatus LookUpPort(const char* name, mach_port_t* port = nullptr);

// Bytes without a pattern that a shifted or repeated part would hide in.
std::string PatternBytes(size_t size);
