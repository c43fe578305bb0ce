#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/ports/introspect.h"
#include "tests/integration/raw_peer.h"

int FaultListener::ServeForEver() {
  if (Listen() != 0) return RoleFailed();
  role->SignalReady();
  CFRunLoopRun();
  return RoleFailed();  // the test kills this process first
}

TEST_ROLE(FaultServer) {
  FaultListener listener(&role);
  return listener.ServeForEver();
}

TEST_ROLE(NarrowFaultServer) {
  FaultListener listener(&role);
  return HaveFewDescriptors(role.NumberArgument(0)) ? listener.ServeForEver() : RoleFailed();
}

TEST_ROLE(Holder) {
  std::vector<RawPeer> peers;
  for (int i = 0; i < role.NumberArgument(0); i++) {
    peers.emplace_back(role.PortName());
    if (!peers.back().Write(RawFrame(RawRequest(1), kHoldID, i))) return RoleFailed();
  }
  role.SignalReady();
  role.Hear(120s);
  return kRoleDone;
}

TEST_ROLE(Waiter) {
  mach_port_t port = MACH_PORT_NULL;
  if (LookUpPort(role.PortName(), &port) != 0) return RoleFailed();
  role.Tell(std::to_string(AskPort(port, kHoldID, 0, "", kNoTimeOut).status));
  role.Tell(std::to_string(AskPort(port, kEchoID).status));
  role.Tell(std::to_string(AskServer(role.PortName()).status));
  return kRoleDone;
}

bool HaveFewDescriptors(int most) {
  const rlimit limit = {static_cast<rlim_t>(most), static_cast<rlim_t>(most)};
  // An inherited descriptor above the limit would not count.
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 &&
         close_range(static_cast<unsigned>(most), ~0u, 0) == 0;
}

ServerCounts CountsOf(const char* name) {
  RawPeer asker(name);
  size_t counts[5] = {};
  const std::string data =
      asker.Ask(RawFrame(RawRequest(1), kSelfID, 0)).value_or(FaultAnswer()).data;
  EXPECT_EQ(sizeof counts, data.size());
  std::memcpy(counts, data.data(), std::min(sizeof counts, data.size()));
  return {counts[0] - 1, counts[1] - 1, counts[2], counts[3]};
}

ServerProcess::ServerProcess(const std::string& role, std::vector<std::string> arguments)
    : TestProcess(role, std::move(arguments)) {
  EXPECT_TRUE(WaitReady(20s));
  before = UseOf(Pid());
  counts = CountsOf(PortName());
}

void ServerProcess::ExpectUnchanged() {
  ASSERT_EQ(std::nullopt, Wait(0ms));
  ServerCounts now;
  WaitUntil([&] { return (now = CountsOf(PortName())) == counts; }, 10s);
  EXPECT_EQ(counts.portNames, now.portNames);
  EXPECT_EQ(counts.connections, now.connections);
  EXPECT_EQ(counts.queuedBytes, now.queuedBytes);
  EXPECT_EQ(counts.partialBytes, now.partialBytes);
  ExpectBackAt(before, Pid());
}

OSStatus ListenUnder(VLTPortAEMachPortListener& listener, const char* name) {
  const VLTAEDispatchCallback unused = [](UInt32, UInt32, const AEDesc*, AEDesc*, void*) {
    return OSStatus{0};
  };
  return listener.ListenOnPort(name, CFRunLoopGetCurrent(), unused, nullptr);
}

OSStatus FaultListener::Listen() { return ListenUnder(*this, role->PortName()); }

void FaultListener::PortCallback(CFMachPortRef, void* message, CFIndex) {
  AppleEvent event = {typeNull, nullptr}, reply = {typeNull, nullptr};
  UInt32 eventID = 0;
  OSStatus err = AEDecodeMessage(static_cast<mach_msg_header_t*>(message), &event, &reply);
  if (err == 0) err = VLTGetAEDispatchAttributes(event, nullptr, &eventID, nullptr);
  if (err != 0) return;
  // Serve may delete the listener.
  if (!Serve(eventID, NumberOf(event), event, &reply)) return;
  if (reply.descriptorType != typeNull) {
    AESendMessage(&reply, nullptr, kAENoReply, kAEDefaultTimeout);
  }
}

bool FaultListener::Serve(AEEventID eventID, SInt32 number, const AppleEvent& event,
                          AppleEvent* reply) {
  std::string data;
  switch (eventID) {
    case kEchoID:
      data = DataOf(event);
      break;
    case kMarkID:
      marks.push_back(number);
      break;
    case kTellID:
      data.assign(reinterpret_cast<const char*>(marks.data()), marks.size() * sizeof(SInt32));
      break;
    case kFillID:
      data = PatternBytes(static_cast<size_t>(number));
      break;
    case kHoldID:
      role->Tell("held");
      return false;
    case kSelfID: {
      const HostPortCounts self = HostCountPorts();
      const size_t counts[] = {self.portNames, self.connections, self.queuedBytes,
                               self.partialBytes, self.lanes};
      data.assign(reinterpret_cast<const char*>(counts), sizeof counts);
      break;
    }
    default:
      return false;
  }
  AEPutParamPtr(reply, kNumberKey, typeSInt32, &number, sizeof number);
  AEPutParamPtr(reply, kDataKey, typeChar, data.data(), static_cast<Size>(data.size()));
  return true;
}

OSStatus MakeFaultEvent(const AEDesc* address, AEEventID eventID, SInt32 number,
                        const std::string& data, AppleEvent* event) {
  OSStatus err = AECreateAppleEvent(kFaultClass, eventID, address, 1, 0, event);
  if (err == 0) err = AEPutParamPtr(event, kNumberKey, typeSInt32, &number, sizeof number);
  if (err == 0) {
    err = AEPutParamPtr(event, kDataKey, typeChar, data.data(), static_cast<Size>(data.size()));
  }
  return err;
}

SInt32 NumberOf(const AppleEvent& event) {
  SInt32 number = -1;
  AEGetParamPtr(&event, kNumberKey, typeSInt32, nullptr, &number, sizeof number, nullptr);
  return number;
}

std::string DataOf(const AppleEvent& event) {
  Size size = 0;
  if (AESizeOfParam(&event, kDataKey, nullptr, &size) != 0) return "";
  std::string data(static_cast<size_t>(size), '\0');
  AEGetParamPtr(&event, kDataKey, typeChar, nullptr, data.data(), size, nullptr);
  return data;
}

std::vector<SInt32> FaultAnswer::Marks() const {
  std::vector<SInt32> all(data.size() / sizeof(SInt32));
  std::memcpy(all.data(), data.data(), all.size() * sizeof(SInt32));
  return all;
}

namespace {

// Sends one event in the given mode. `reply` is the caller's to dispose.
OSStatus SendEvent(mach_port_t port, AEEventID eventID, SInt32 number, const std::string& data,
                   AESendMode mode, SInt32 ticks, AppleEvent* reply) {
  AEDesc address = {typeNull, nullptr};
  AppleEvent event = {typeNull, nullptr};
  OSStatus err = AECreateDesc(typeMachPort, &port, sizeof port, &address);
  if (err == 0) err = MakeFaultEvent(&address, eventID, number, data, &event);
  if (err == 0) err = AESendMessage(&event, reply, mode, ticks);
  AEDisposeDesc(&address);
  AEDisposeDesc(&event);
  return err;
}

}  // namespace

FaultAnswer AskPort(mach_port_t port, AEEventID eventID, SInt32 number, const std::string& data,
                    SInt32 ticks) {
  FaultAnswer answer;
  const int64_t start = HostNow();
  AppleEvent reply = {typeNull, nullptr};
  answer.status = SendEvent(port, eventID, number, data, kAEWaitReply, ticks, &reply);
  answer.elapsed = HostNow() - start;
  if (answer.status == 0) {
    answer.number = NumberOf(reply);
    answer.data = DataOf(reply);
  }
  AEDisposeDesc(&reply);
  return answer;
}

FaultAnswer AskServer(const char* name, AEEventID eventID, SInt32 number, const std::string& data,
                      SInt32 ticks) {
  const int64_t start = HostNow();
  mach_port_t port = MACH_PORT_NULL;
  FaultAnswer answer;
  const OSStatus err = LookUpPort(name, &port);
  if (err == 0) answer = AskPort(port, eventID, number, data, ticks);
  if (err != 0) answer.status = err;
  answer.elapsed = HostNow() - start;
  return answer;
}

OSStatus SendOneWay(mach_port_t port, AEEventID eventID, SInt32 number, SInt32 ticks) {
  return SendEvent(port, eventID, number, "", kAENoReply, ticks, nullptr);
}

OSStatus LookUpPort(const char* name, mach_port_t* port) {
  mach_port_t found = MACH_PORT_NULL;
  const OSStatus err = VLTPortAEMachPortListener::CheckPortRegistered(name, found);
  if (port != nullptr) *port = found;
  return err;
}

std::string PatternBytes(size_t size) {
  std::string bytes(size, '\0');
  uint32_t state = 2463534242u;
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}
