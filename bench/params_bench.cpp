#include <CoreServices/CoreServices.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <utility>

#include "aeport/params.h"
#include "bench/ipc_report.h"
#include "platform/host/events/codec.h"

// Measures ten scalar parameters, in one thread, beside the same ten values in a message of
// sd-bus. The rows take turns within each round; the time is the processor's.
//
// Within memory:
//   sd-bus   makes a message, appends, seals, reads: nothing is moved, no header is parsed.
//   put-get  makes an event, puts, gets.
//   wire     flattens an event that holds them, moves the frame's bytes, decodes.
//   whole    makes an event, puts, flattens, moves, decodes, gets: both ends of a request.
// Over a socket pair, one-way, both ends' work done by this thread:
//   sd-bus   makes a message, appends, sends; the other bus receives, and it is read there.
//   whole    as above, the frame's bytes going through the socket.

namespace {

struct Ten {
  bool flag = true;
  SInt16 small = -12;
  SInt32 first = 123456;
  int second = -123456;
  SInt64 large = 1234567890123;
  UInt64 huge = 1234567890124;
  double ratio = 0.1;
  OSType code = typeChar;
  SInt32 third = 77;
  double time = 1e9;

  double Sum() const {
    return flag + small + first + second + static_cast<double>(large) + static_cast<double>(huge) +
           ratio + code + third + time;
  }
};

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "params_bench: %s\n", what);
  std::exit(1);
}

void Check(const Ten& got) {
  if (got.Sum() != Ten().Sum()) Fail("the values differ");
}

struct SocketPair {
  SocketPair() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) Fail("no socket pair");
  }
  ~SocketPair() {
    for (const int end : ends) {
      if (end >= 0) close(end);
    }
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;

  int Release(int index) { return std::exchange(ends[index], -1); }

  int ends[2] = {-1, -1};
};

// Ours.

constexpr AEKeyword Key(char number) { return FourCC('p', 'a', 'r', number); }

AppleEvent MakeEvent(const AEDesc& address, const Ten& ten) {
  AppleEvent event = {typeNull, nullptr};
  AECreateAppleEvent(FourCC('b', 'e', 'n', 'c'), FourCC('p', 'u', 't', ' '), &address,
                     kAutoGenerateReturnID, kAnyTransactionID, &event);
  PutAEBoolean(&event, Key('0'), &ten.flag);
  PutAEShort(&event, Key('1'), &ten.small);
  PutAELong(&event, Key('2'), &ten.first);
  PutAEInteger(&event, Key('3'), &ten.second);
  PutAELongLong(&event, Key('4'), &ten.large);
  PutAEUInt64(&event, Key('5'), &ten.huge);
  PutAEDouble(&event, Key('6'), &ten.ratio);
  PutAEOSType(&event, Key('7'), &ten.code);
  PutAELong(&event, Key('8'), &ten.third);
  PutAEDouble(&event, Key('9'), &ten.time);
  return event;
}

Ten GetAll(const AppleEvent& event) {
  Ten ten;
  std::memset(static_cast<void*>(&ten), 0, sizeof ten);
  GetAEBoolean(&event, Key('0'), &ten.flag);
  GetAEShort(&event, Key('1'), &ten.small);
  GetAELong(&event, Key('2'), &ten.first);
  GetAELong(&event, Key('3'), &ten.second);
  GetAELongLong(&event, Key('4'), &ten.large);
  GetAEParam<UInt64, typeSInt64>(&event, Key('5'), &ten.huge);
  GetAEParam<double, typeIEEE64BitFloatingPoint>(&event, Key('6'), &ten.ratio);
  GetAEOSType(&event, Key('7'), &ten.code);
  GetAELong(&event, Key('8'), &ten.third);
  GetAEParam<double, typeIEEE64BitFloatingPoint>(&event, Key('9'), &ten.time);
  return ten;
}

class OurRows {
 public:
  OurRows() {
    const UInt32 port = 77;
    AECreateDesc(typeMachPort, &port, sizeof port, &address);
    ready = MakeEvent(address, Ten());
  }
  ~OurRows() {
    AEDisposeDesc(&ready);
    AEDisposeDesc(&address);
  }
  OurRows(const OurRows&) = delete;
  OurRows& operator=(const OurRows&) = delete;

  void PutGet() {
    AppleEvent event = MakeEvent(address, Ten());
    Check(GetAll(event));
    AEDisposeDesc(&event);
  }

  void Wire() {
    AppleEvent received = Transfer(ready);
    AEDisposeDesc(&received);
  }

  void Whole() {
    AppleEvent event = MakeEvent(address, Ten());
    AppleEvent received = Transfer(event);
    Check(GetAll(received));
    AEDisposeDesc(&received);
    AEDisposeDesc(&event);
  }

  void SendWhole() {
    isSending = true;
    Whole();
    isSending = false;
  }

 private:
  static constexpr size_t kBlockSize = size_t{64} << 10;

  // As between two processes; the receiver's block has frames one after another.
  AppleEvent Transfer(const AppleEvent& event) {
    frame.Clear();
    if (HostFlattenEvent(&event, frame) != 0) Fail("not flattened");
    const size_t size = frame.TotalSize();
    if (!block || used + size > block->Capacity()) {
      block = HostFrameRef(HostFrameBuffer::Create(kBlockSize));
      used = 0;
    }
    uint8_t* const start = block->Bytes() + used;
    isSending ? MoveThroughSocket(start, size) : Copy(start);
    used += size;
    AppleEvent received = {typeNull, nullptr};
    const HostFrameSlice body = {block, start + kHostFrameHeaderSize, size - kHostFrameHeaderSize};
    if (HostDecodeEvent(body, &received) != 0) Fail("not decoded");
    return received;
  }

  void Copy(uint8_t* to) {
    for (const iovec& piece : frame.Pieces()) {
      std::memcpy(to, piece.iov_base, piece.iov_len);
      to += piece.iov_len;
    }
  }

  void MoveThroughSocket(uint8_t* to, size_t size) {
    msghdr message = {};
    message.msg_iov = const_cast<iovec*>(frame.Pieces().data());
    message.msg_iovlen = frame.Pieces().size();
    const auto expected = static_cast<ssize_t>(size);
    if (sendmsg(sockets.ends[0], &message, MSG_NOSIGNAL) != expected) Fail("not sent");
    if (recv(sockets.ends[1], to, size, MSG_WAITALL) != expected) Fail("not received");
  }

  SocketPair sockets;
  bool isSending = false;
  AEDesc address = {typeNull, nullptr};
  AppleEvent ready = {typeNull, nullptr};
  HostGather frame;
  HostFrameRef block;
  size_t used = 0;
};

// The peer.

class SdBusRow {
 public:
  SdBusRow() {
    sd_id128_t id = {};
    id.bytes[0] = 1;
    int err = sd_bus_new(&client);
    if (err >= 0) err = sd_bus_new(&server);
    if (err >= 0) err = sd_bus_set_server(server, 1, id);
    if (err >= 0) err = Start(client, sockets.Release(0));
    if (err >= 0) err = Start(server, sockets.Release(1));
    while (err >= 0 && (sd_bus_is_ready(client) <= 0 || sd_bus_is_ready(server) <= 0)) {
      err = sd_bus_process(client, nullptr);
      if (err >= 0) err = sd_bus_process(server, nullptr);
    }
    if (err < 0) Fail(std::strerror(-err));
  }
  ~SdBusRow() {
    sd_bus_close_unref(client);
    sd_bus_close_unref(server);
  }
  SdBusRow(const SdBusRow&) = delete;
  SdBusRow& operator=(const SdBusRow&) = delete;

  void AppendRead() {
    sd_bus_message* message = MakeMessage();
    int err = sd_bus_message_seal(message, ++serial | 1, 0);
    if (err >= 0) err = sd_bus_message_rewind(message, true);
    if (err < 0) Fail(std::strerror(-err));
    Read(message);
    sd_bus_message_unref(message);
  }

  void SendRead() {
    sd_bus_message* message = MakeMessage();
    sd_bus_message* received = nullptr;
    int err = sd_bus_message_set_expect_reply(message, 0);
    if (err >= 0) err = sd_bus_send(client, message, nullptr);
    while (err >= 0 && received == nullptr) err = sd_bus_process(server, &received);
    if (err < 0) Fail(std::strerror(-err));
    Read(received);
    sd_bus_message_unref(received);
    sd_bus_message_unref(message);
  }

 private:
  static int Start(sd_bus* bus, int end) {
    int err = sd_bus_set_fd(bus, end, end);
    if (err >= 0) err = sd_bus_set_anonymous(bus, 1);
    return err >= 0 ? sd_bus_start(bus) : err;
  }

  sd_bus_message* MakeMessage() {
    const Ten ten;
    sd_bus_message* message = nullptr;
    int err = sd_bus_message_new_method_call(client, &message, "com.veltrane.Bench", "/bench",
                                             "com.veltrane.Bench", "Put");
    if (err >= 0) {
      err = sd_bus_message_append(message, kSignature, int{ten.flag}, ten.small, ten.first,
                                  ten.second, ten.large, ten.huge, ten.ratio, ten.code, ten.third,
                                  ten.time);
    }
    if (err < 0) Fail(std::strerror(-err));
    return message;
  }

  static void Read(sd_bus_message* message) {
    Ten got;
    std::memset(static_cast<void*>(&got), 0, sizeof got);
    int flag = 0;
    const int err =
        sd_bus_message_read(message, kSignature, &flag, &got.small, &got.first, &got.second,
                            &got.large, &got.huge, &got.ratio, &got.code, &got.third, &got.time);
    if (err < 0) Fail(std::strerror(-err));
    got.flag = flag != 0;
    Check(got);
  }

  static constexpr char kSignature[] = "bniixtduid";

  SocketPair sockets;
  sd_bus* client = nullptr;
  sd_bus* server = nullptr;
  uint32_t serial = 0;
};

// This thread's processor time, so that other threads do not count.
double ProcessorNanoseconds() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

double NanosecondsEach(const std::function<void()>& body, int count) {
  const double start = ProcessorNanoseconds();
  for (int i = 0; i < count; ++i) body();
  return (ProcessorNanoseconds() - start) / count;
}

}  // namespace

int main(int argc, char** argv) {
  const bool isQuick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  if (argc > 2 || (argc == 2 && !isQuick)) {
    std::fputs("usage: params_bench [--quick]\n", stderr);
    return 2;
  }
  const int rounds = isQuick ? 3 : 51;
  const int count = isQuick ? 500 : 5000;

  OurRows ours;
  SdBusRow sdBus;
  // The first row of a metric is what its others are compared with.
  const struct {
    const char* name;
    const char* metric;
    std::function<void()> body;
  } rows[] = {
      {"sd-bus", "ten-scalars-ns", [&] { sdBus.AppendRead(); }},
      {"put-get", "ten-scalars-ns", [&] { ours.PutGet(); }},
      {"wire", "ten-scalars-ns", [&] { ours.Wire(); }},
      {"whole", "ten-scalars-ns", [&] { ours.Whole(); }},
      {"sd-bus", "ten-scalars-sent-ns", [&] { sdBus.SendRead(); }},
      {"whole", "ten-scalars-sent-ns", [&] { ours.SendWhole(); }},
  };
  IpcReport report;
  for (const auto& row : rows) NanosecondsEach(row.body, count);  // warm
  for (int round = 0; round < rounds; ++round) {
    for (const auto& row : rows) {
      report.Add(row.name, row.metric, NanosecondsEach(row.body, count));
    }
  }
  report.PrintTable();
}
