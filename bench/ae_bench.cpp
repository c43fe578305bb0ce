#include <CoreServices/CoreServices.h>
#include <benchmark/benchmark.h>

#include <cstring>
#include <utility>
#include <vector>

#include "platform/host/events/codec.h"
#include "platform/host/events/event.h"
#include "platform/host/events/storage.h"

// Measures a request and its reply apart from the kernel: building, flattening, decoding and
// reading, in one thread.

namespace {

constexpr AEKeyword kDataKey = FourCC('d', 'a', 't', 'a');
constexpr size_t kBlockSize = size_t{64} << 10;

// Receives frames like a connection: many one after another in one block.
class Receiver {
 public:
  AppleEvent Decode(HostGather& frame) {
    const size_t size = frame.TotalSize();
    if (!block || used + size > block->Capacity()) {
      block = HostFrameRef(HostFrameBuffer::Create(size > kBlockSize ? size : kBlockSize));
      used = 0;
    }
    uint8_t* start = block->Bytes() + used;
    for (const iovec& piece : frame.Pieces()) {
      memcpy(block->Bytes() + used, piece.iov_base, piece.iov_len);
      used += piece.iov_len;
    }
    AppleEvent event = {typeNull, nullptr};
    HostFrameSlice body = {block, start + kHostFrameHeaderSize, size - kHostFrameHeaderSize};
    HostDecodeEvent(std::move(body), &event);
    return event;
  }

 private:
  HostFrameRef block;
  size_t used = 0;
};

AppleEvent MakeRequest(UInt32 port, const std::vector<UInt8>& data) {
  AEDesc address = {typeNull, nullptr};
  AppleEvent event = {typeNull, nullptr};
  AECreateDesc(typeMachPort, &port, sizeof port, &address);
  AECreateAppleEvent(FourCC('v', 's', 'm', 'd'), FourCC('p', 'i', 'n', 'g'), &address,
                     kAutoGenerateReturnID, kAnyTransactionID, &event);
  AEPutParamPtr(&event, kDataKey, typeChar, data.data(), static_cast<Size>(data.size()));
  AEDisposeDesc(&address);
  return event;
}

// The server's part: reads three attributes and the data, and replies with a number.
AppleEvent Answer(AppleEvent& request, std::vector<UInt8>& buffer) {
  UInt32 eventClass = 0;
  UInt32 eventID = 0;
  Boolean replyWanted = 0;
  HostAEEvent* found = nullptr;
  if (HostFindEvent(&request, &found) != 0) return {typeNull, nullptr};
  HostSetArrival(found, {true, kAELocalProcess, 0});
  AEGetAttributePtr(&request, keyEventClassAttr, typeType, nullptr, &eventClass, 4, nullptr);
  AEGetAttributePtr(&request, keyEventIDAttr, typeType, nullptr, &eventID, 4, nullptr);
  AEGetAttributePtr(&request, keyReplyRequestedAttr, typeBoolean, nullptr, &replyWanted, 1,
                    nullptr);
  Size size = 0;
  AEGetParamPtr(&request, kDataKey, typeChar, nullptr, buffer.data(),
                static_cast<Size>(buffer.size()), &size);

  AppleEvent reply = {typeNull, nullptr};
  AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, found->fields.returnID,
                     found->fields.transactionID, &reply);
  AEPutParamPtr(&reply, keyErrorNumber, typeSInt32, &size, sizeof size);
  return reply;
}

void RequestReply(benchmark::State& state) {
  const std::vector<UInt8> data(static_cast<size_t>(state.range(0)), 0x55);
  std::vector<UInt8> buffer(data.size());
  HostGather frame;
  Receiver server;
  Receiver client;
  for (auto _ : state) {
    AppleEvent request = MakeRequest(77, data);
    frame.Clear();
    HostFlattenEvent(&request, frame);
    AppleEvent received = server.Decode(frame);

    AppleEvent reply = Answer(received, buffer);
    frame.Clear();
    HostFlattenEvent(&reply, frame);
    AppleEvent answer = client.Decode(frame);

    SInt32 result = 0;
    AEGetParamPtr(&answer, keyErrorNumber, typeSInt32, nullptr, &result, sizeof result, nullptr);
    if (result != state.range(0)) state.SkipWithError("a wrong answer");
    for (AppleEvent* event : {&request, &received, &reply, &answer}) AEDisposeDesc(event);
  }
}
BENCHMARK(RequestReply)->Arg(8)->Arg(100)->Arg(64 << 10)->Arg(1 << 20);

void TenScalars(benchmark::State& state) {
  HostGather frame;
  Receiver receiver;
  for (auto _ : state) {
    AppleEvent event = {typeNull, nullptr};
    AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, 1, 0, &event);
    for (SInt32 n = 0; n < 10; ++n) {
      AEPutParamPtr(&event, static_cast<AEKeyword>(n), typeSInt32, &n, sizeof n);
    }
    frame.Clear();
    HostFlattenEvent(&event, frame);
    AppleEvent received = receiver.Decode(frame);
    SInt32 sum = 0;
    for (SInt32 n = 0; n < 10; ++n) {
      SInt32 value = 0;
      AEGetParamPtr(&received, static_cast<AEKeyword>(n), typeSInt32, nullptr, &value, sizeof value,
                    nullptr);
      sum += value;
    }
    if (sum != 45) state.SkipWithError("a wrong sum");
    AEDisposeDesc(&event);
    AEDisposeDesc(&received);
  }
}
BENCHMARK(TenScalars);

void CreateAndDispose(benchmark::State& state) {
  for (auto _ : state) {
    const SInt32 value = 1;
    AEDesc desc = {typeNull, nullptr};
    AECreateDesc(typeSInt32, &value, sizeof value, &desc);
    AEDisposeDesc(&desc);
  }
}
BENCHMARK(CreateAndDispose)->Threads(1)->Threads(2);

void CoerceTextToNumber(benchmark::State& state) {
  for (auto _ : state) {
    AEDesc number = {typeNull, nullptr};
    AECoercePtr(typeChar, "-1708", 5, typeSInt32, &number);
    AEDisposeDesc(&number);
  }
}
BENCHMARK(CoerceTextToNumber);

}  // namespace

BENCHMARK_MAIN();
