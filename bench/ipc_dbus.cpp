#include <systemd/sd-bus.h>

#include <cstring>

#include "bench/ipc_dbus_daemon.h"
#include "bench/ipc_transport.h"

// The alternative: method calls through a message bus. The data is an array of
// bytes, which the library lends to its reader without a copy.

namespace {

constexpr char kPath[] = "/bench";
constexpr char kInterface[] = "com.veltrane.Bench";
constexpr uint64_t kTimeoutUs = 60'000'000;

// Owns one reference each.
struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, BusCloser>;

Bus ConnectTo(const std::string& address) {
  sd_bus* raw = nullptr;
  if (sd_bus_new(&raw) < 0) return nullptr;
  Bus bus(raw);
  int err = sd_bus_set_address(raw, address.c_str());
  if (err >= 0) err = sd_bus_set_bus_client(raw, 1);
  if (err >= 0) err = sd_bus_start(raw);
  const char* name = nullptr;
  if (err >= 0) err = sd_bus_get_unique_name(raw, &name);  // waits for the greeting of the bus
  return err >= 0 ? std::move(bus) : nullptr;
}

class DBusServer {
 public:
  explicit DBusServer(const IpcWork& theWork) : work(theWork) {}

  static int Dispatch(sd_bus_message* call, void* server, sd_bus_error*) {
    return static_cast<DBusServer*>(server)->Handle(call);
  }
  bool IsStopped() const { return stopped; }

 private:
  int Handle(sd_bus_message* call) {
    const char* member = sd_bus_message_get_member(call);
    if (strcmp(member, "Ping") == 0) return Ping(call);
    if (strcmp(member, "Count") == 0) return sd_bus_reply_method_return(call, "t", count);
    const void* bytes = nullptr;
    size_t size = 0;
    if (strcmp(member, "Post") == 0) {
      ++count;
      const int err = sd_bus_message_read_array(call, 'y', &bytes, &size);
      return err < 0 ? err : 1;
    }
    stopped = strcmp(member, "Stop") == 0;
    return stopped ? 1 : 0;
  }

  int Ping(sd_bus_message* call) const {
    const void* bytes = nullptr;
    size_t size = 0;
    int err = sd_bus_message_read_array(call, 'y', &bytes, &size);
    if (err < 0) return err;
    if (work.kind != IpcKind::kEcho) {
      return sd_bus_reply_method_return(call, "u", static_cast<uint32_t>(size));
    }
    sd_bus_message* raw = nullptr;
    err = sd_bus_message_new_method_return(call, &raw);
    Message reply(raw);
    if (err >= 0) err = sd_bus_message_append_array(raw, 'y', bytes, size);
    return err >= 0 ? sd_bus_send(nullptr, raw, nullptr) : err;
  }

  const IpcWork work;
  uint64_t count = 0;
  bool stopped = false;
};

class DBusClient : public IpcClient {
 public:
  DBusClient(const IpcWork& theWork, const std::string& theAddress, const std::string& theName)
      : work(theWork), address(theAddress), name(theName) {}

  bool Connect() override {
    bus = ConnectTo(address);
    return bus != nullptr;
  }

  bool Request(const Bytes& payload, Bytes* answer) override {
    const Message reply = Call("Ping", &payload);
    if (reply == nullptr) return false;
    if (work.kind != IpcKind::kEcho) {
      uint32_t size = 0;
      return sd_bus_message_read(reply.get(), "u", &size) > 0 && size == payload.size();
    }
    const void* bytes = nullptr;
    size_t size = 0;
    if (sd_bus_message_read_array(reply.get(), 'y', &bytes, &size) < 0) return false;
    if (size != answer->size()) return false;
    memcpy(answer->data(), bytes, size);
    return true;
  }

  bool Post(const Bytes& payload) override {
    const Message call = NewCall("Post", &payload);
    return call != nullptr && sd_bus_message_set_expect_reply(call.get(), 0) >= 0 &&
           sd_bus_send(bus.get(), call.get(), nullptr) >= 0;
  }

  bool Counted(uint64_t* count) override {
    const Message reply = Call("Count", nullptr);
    return reply != nullptr && sd_bus_message_read(reply.get(), "t", count) > 0;
  }

  bool LookUp() override {
    sd_bus_message* raw = nullptr;
    const int err = sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", "GetNameOwner", nullptr, &raw, "s",
                                       name.c_str());
    const Message reply(raw);
    const char* owner = nullptr;
    return err >= 0 && sd_bus_message_read(raw, "s", &owner) > 0 && owner[0] == ':';
  }

  void StopServer() override {
    const Message call = NewCall("Stop", nullptr);
    if (call == nullptr || sd_bus_message_set_expect_reply(call.get(), 0) < 0) return;
    sd_bus_send(bus.get(), call.get(), nullptr);
  }

 private:
  Message NewCall(const char* member, const Bytes* payload) {
    sd_bus_message* raw = nullptr;
    int err =
        sd_bus_message_new_method_call(bus.get(), &raw, name.c_str(), kPath, kInterface, member);
    Message call(raw);
    if (err >= 0 && payload != nullptr) {
      err = sd_bus_message_append_array(raw, 'y', payload->data(), payload->size());
    }
    return err >= 0 ? std::move(call) : nullptr;
  }

  Message Call(const char* member, const Bytes* payload) {
    const Message call = NewCall(member, payload);
    sd_bus_message* reply = nullptr;
    if (call == nullptr || sd_bus_call(bus.get(), call.get(), kTimeoutUs, nullptr, &reply) < 0) {
      return nullptr;
    }
    return Message(reply);
  }

  const IpcWork work;
  const std::string address;
  const std::string name;
  Bus bus;
};

class DBusTransport : public IpcTransport {
 public:
  explicit DBusTransport(const std::string& folder) : daemon(folder) {}
  const char* Name() const override { return "sd-bus"; }

  bool Prepare() override { return daemon.Start(); }
  pid_t BrokerPid() const override { return daemon.Pid(); }

  bool Serve(const IpcWork& work, const std::string& place,
             const std::function<void()>& ready) override {
    DBusServer server(work);
    const Bus bus = ConnectTo(daemon.Address());
    if (bus == nullptr) return false;
    if (sd_bus_add_object(bus.get(), nullptr, kPath, DBusServer::Dispatch, &server) < 0) {
      return false;
    }
    if (sd_bus_request_name(bus.get(), BusName(place).c_str(), 0) < 0) return false;
    ready();
    while (!server.IsStopped()) {
      const int handled = sd_bus_process(bus.get(), nullptr);
      if (handled < 0) return false;
      if (handled == 0 && sd_bus_wait(bus.get(), UINT64_MAX) < 0) return false;
    }
    return true;
  }

  std::unique_ptr<IpcClient> NewClient(const IpcWork& work, const std::string& place) override {
    return std::make_unique<DBusClient>(work, daemon.Address(), BusName(place));
  }

 private:
  static std::string BusName(const std::string& place) { return "com.veltrane.Bench." + place; }

  IpcDBusDaemon daemon;
};

}  // namespace

std::unique_ptr<IpcTransport> NewDBusTransport(const std::string& folder) {
  return std::make_unique<DBusTransport>(folder);
}
