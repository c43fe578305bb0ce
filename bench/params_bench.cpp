#include <CoreServices/CoreServices.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "aeport/params.h"
#include "bench/ipc_report.h"
#include "platform/host/ae_codec.h"

// What ten scalar parameters cost, in one thread and without a socket, beside appending the same
// ten values to a message of sd-bus and reading them there. The rows take turns within each round.
//
//   sd-bus   makes a message, appends, seals, reads.
//   put-get  makes an event, puts, gets.
//   wire     flattens an event that holds them, moves the frame's bytes, decodes.
//   whole    makes an event, puts, flattens, moves, decodes, gets: both ends of a request.

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

 private:
  static constexpr size_t kBlockSize = size_t{64} << 10;

  // As between two processes, with a copy in place of the kernel's; frames lie one behind the other
  // in the receiver's block.
  AppleEvent Transfer(const AppleEvent& event) {
    frame.Clear();
    if (HostFlattenEvent(&event, frame) != 0) Fail("not flattened");
    const size_t size = frame.TotalSize();
    if (!block || used + size > block->Capacity()) {
      block = HostFrameRef(HostFrameBuffer::Create(kBlockSize));
      used = 0;
    }
    uint8_t* const start = block->Bytes() + used;
    for (const iovec& piece : frame.Pieces()) {
      std::memcpy(block->Bytes() + used, piece.iov_base, piece.iov_len);
      used += piece.iov_len;
    }
    AppleEvent received = {typeNull, nullptr};
    const HostFrameSlice body = {block, start + kHostFrameHeaderSize, size - kHostFrameHeaderSize};
    if (HostDecodeEvent(body, &received) != 0) Fail("not decoded");
    return received;
  }

  AEDesc address = {typeNull, nullptr};
  AppleEvent ready = {typeNull, nullptr};
  HostGather frame;
  HostFrameRef block;
  size_t used = 0;
};

// The peer.

class SdBusRow {
 public:
  // A bus that is never talked to: a message can only be made for one that has been started.
  SdBusRow() {
    const bool isMade = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0 &&
                        sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, ends[0], ends[0]) >= 0 &&
                        sd_bus_start(bus) >= 0;
    if (!isMade) Fail("no bus");
  }
  ~SdBusRow() {
    sd_bus_close(bus);
    sd_bus_unref(bus);
    close(ends[1]);  // the other one is the bus's
  }
  SdBusRow(const SdBusRow&) = delete;
  SdBusRow& operator=(const SdBusRow&) = delete;

  void AppendRead() {
    sd_bus_message* message = nullptr;
    int err = sd_bus_message_new_method_call(bus, &message, "com.veltrane.Bench", "/bench",
                                             "com.veltrane.Bench", "Put");
    const Ten ten;
    if (err >= 0) {
      err = sd_bus_message_append(message, "bniixtduid", int{ten.flag}, ten.small, ten.first,
                                  ten.second, ten.large, ten.huge, ten.ratio, ten.code, ten.third,
                                  ten.time);
    }
    if (err >= 0) err = sd_bus_message_seal(message, ++serial | 1, 0);
    if (err >= 0) err = sd_bus_message_rewind(message, true);
    Ten got;
    std::memset(static_cast<void*>(&got), 0, sizeof got);
    int flag = 0;
    if (err >= 0) {
      err =
          sd_bus_message_read(message, "bniixtduid", &flag, &got.small, &got.first, &got.second,
                              &got.large, &got.huge, &got.ratio, &got.code, &got.third, &got.time);
    }
    if (err < 0) Fail(std::strerror(-err));
    got.flag = flag != 0;
    Check(got);
    sd_bus_message_unref(message);
  }

 private:
  int ends[2] = {-1, -1};
  sd_bus* bus = nullptr;
  uint32_t serial = 0;
};

double NanosecondsEach(const std::function<void()>& body, int count) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  for (int i = 0; i < count; ++i) body();
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / count;
}

}  // namespace

int main(int argc, char** argv) {
  const bool isQuick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  if (argc > 2 || (argc == 2 && !isQuick)) {
    std::fputs("usage: params_bench [--quick]\n", stderr);
    return 2;
  }
  const int rounds = isQuick ? 3 : 51;
  const int count = isQuick ? 1000 : 20000;

  OurRows ours;
  SdBusRow sdBus;
  const struct {
    const char* name;
    std::function<void()> body;
  } rows[] = {
      {"sd-bus", [&] { sdBus.AppendRead(); }},  // the first one is what the others compare with
      {"put-get", [&] { ours.PutGet(); }},
      {"wire", [&] { ours.Wire(); }},
      {"whole", [&] { ours.Whole(); }},
  };
  IpcReport report;
  for (const auto& row : rows) NanosecondsEach(row.body, count);  // warm
  for (int round = 0; round < rounds; ++round) {
    for (const auto& row : rows) {
      report.Add(row.name, "ten-scalars-ns", NanosecondsEach(row.body, count));
    }
  }
  report.PrintTable();
}
