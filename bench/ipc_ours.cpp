#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <servers/bootstrap.h>

#include "aeport/event.h"
#include "aeport/port_listener.h"
#include "bench/ipc_transport.h"

// Our ports, used as a program of the package uses them: an event object for each request, a
// listener with one dispatch callback, one parameter read on either side.

namespace {

constexpr AEEventClass kBenchClass = FourCC('b', 'n', 'c', 'h');
constexpr AEEventID kPing = FourCC('p', 'i', 'n', 'g');
constexpr AEEventID kPost = FourCC('p', 'o', 's', 't');
constexpr AEEventID kCount = FourCC('c', 'o', 'u', 'n');
constexpr AEEventID kStop = FourCC('s', 't', 'o', 'p');
constexpr AEKeyword kDataKey = FourCC('d', 'a', 't', 'a');
constexpr AEKeyword kNumberKey = FourCC('n', 'u', 'm', 'b');
constexpr SInt32 kTimeoutTicks = 60 * 60;

class OursServer {
 public:
  explicit OursServer(const IpcWork& theWork) : work(theWork), buffer(work.size) {}

  static OSStatus Dispatch(UInt32, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                           void* refcon) {
    return static_cast<OursServer*>(refcon)->Handle(eventID, event, reply);
  }

 private:
  OSStatus Handle(UInt32 eventID, const AEDesc* event, AEDesc* reply) {
    switch (eventID) {
      case kPing:
        return Ping(event, reply);
      case kPost:
        ++count;
        return ReadData(event);
      case kCount:
        return AEPutParamPtr(reply, kNumberKey, typeSInt64, &count, sizeof count);
      case kStop:
        CFRunLoopStop(CFRunLoopGetCurrent());
        return 0;
    }
    return errAEEventNotHandled;
  }

  OSStatus ReadData(const AEDesc* event) {
    return AEGetParamPtr(event, kDataKey, typeChar, nullptr, buffer.data(),
                         static_cast<Size>(buffer.size()), &read);
  }

  OSStatus Ping(const AEDesc* event, AEDesc* reply) {
    OSStatus err = ReadData(event);
    if (err == 0 && work.kind == IpcKind::kEcho) {
      err = AEPutParamPtr(reply, kDataKey, typeChar, buffer.data(), read);
    } else if (err == 0) {
      err = AEPutParamPtr(reply, kNumberKey, typeSInt32, &read, sizeof read);
    }
    return err;
  }

  const IpcWork work;
  std::vector<uint8_t> buffer;
  Size read = 0;
  SInt64 count = 0;
};

class OursClient : public IpcClient {
 public:
  OursClient(const IpcWork& theWork, const std::string& theName)
      : work(theWork), name(theName), address(name.c_str()) {}

  bool Connect() override {
    return address.initialize() == 0 &&
           task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &bootstrap) == 0;
  }

  bool Request(const Bytes& payload, Bytes* answer) override {
    VLTPortAppleEvent request(kBenchClass, kPing, kAEWaitReply, &address, kAutoGenerateReturnID,
                              kAnyTransactionID);
    OSStatus err = Send(request, &payload);
    if (err == 0) err = ReadAnswer(request.reply, payload.size(), answer);
    request.finalizeEvent();
    return err == 0;
  }

  bool Post(const Bytes& payload) override {
    VLTPortAppleEvent post(kBenchClass, kPost, kAENoReply, &address, kAutoGenerateReturnID,
                           kAnyTransactionID);
    const OSStatus err = Send(post, &payload);
    post.finalizeEvent();
    return err == 0;
  }

  bool Counted(uint64_t* count) override {
    VLTPortAppleEvent request(kBenchClass, kCount, kAEWaitReply, &address, kAutoGenerateReturnID,
                              kAnyTransactionID);
    SInt64 number = 0;
    OSStatus err = Send(request, nullptr);
    if (err == 0) err = ReadNumber(request.reply, typeSInt64, &number, sizeof number);
    request.finalizeEvent();
    *count = static_cast<uint64_t>(number);
    return err == 0;
  }

  bool LookUp() override {
    mach_port_t port = MACH_PORT_NULL;
    if (bootstrap_look_up(bootstrap, name.c_str(), &port) != 0) return false;
    return mach_port_deallocate(mach_task_self(), port) == KERN_SUCCESS;
  }

  void StopServer() override {
    VLTPortAppleEvent stop(kBenchClass, kStop, kAENoReply, &address, kAutoGenerateReturnID,
                           kAnyTransactionID);
    Send(stop, nullptr);
    stop.finalizeEvent();
  }

 private:
  static OSStatus Send(VLTPortAppleEvent& event, const Bytes* payload) {
    OSStatus err = event.createEvent();
    if (err == 0 && payload != nullptr) {
      err = AEPutParamPtr(&event.event, kDataKey, typeChar, payload->data(),
                          static_cast<Size>(payload->size()));
    }
    if (err == 0) err = event.sendEvent(0, kTimeoutTicks, kAENormalPriority);
    return err;
  }

  static OSStatus ReadNumber(const AEDesc& reply, DescType type, void* number, Size size) {
    return AEGetParamPtr(&reply, kNumberKey, type, nullptr, number, size, nullptr);
  }

  OSStatus ReadAnswer(const AEDesc& reply, size_t sent, Bytes* answer) const {
    Size size = 0;
    OSStatus err = 0;
    if (work.kind == IpcKind::kEcho) {
      err = AEGetParamPtr(&reply, kDataKey, typeChar, nullptr, answer->data(),
                          static_cast<Size>(answer->size()), &size);
    } else {
      err = ReadNumber(reply, typeSInt32, &size, sizeof size);
    }
    if (err == 0 && static_cast<size_t>(size) != sent) err = errAECorruptData;
    return err;
  }

  const IpcWork work;
  const std::string name;
  VLTPortDestinationAddress address;
  mach_port_t bootstrap = MACH_PORT_NULL;
};

class OursTransport : public IpcTransport {
 public:
  const char* Name() const override { return "ours"; }

  bool Serve(const IpcWork& work, const std::string& place,
             const std::function<void()>& ready) override {
    OursServer server(work);
    VLTPortAEMachPortListener listener;
    const OSStatus err = listener.ListenOnPort(PortName(place).c_str(), CFRunLoopGetCurrent(),
                                               OursServer::Dispatch, &server);
    if (err != 0) return false;
    ready();
    CFRunLoopRun();
    return true;
  }

  std::unique_ptr<IpcClient> NewClient(const IpcWork& work, const std::string& place) override {
    return std::make_unique<OursClient>(work, PortName(place));
  }

 private:
  static std::string PortName(const std::string& place) { return "com.veltrane.bench." + place; }
};

}  // namespace

std::unique_ptr<IpcTransport> NewOursTransport() { return std::make_unique<OursTransport>(); }
