#include <CoreServices/CoreServices.h>

#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include <algorithm>

#include "platform/host/events/codec.h"
#include "platform/host/events/storage.h"
#include "platform/host/wire/frame_stream.h"

// Receives a stream in portions. The first byte of the input selects the portions; the rest is the
// stream. It goes through a socket into the reader, and each frame's body into the decoder. No
// frame may reach beyond the bytes that were sent, and nothing may leak.

namespace {

void Require(bool condition) {
  if (!condition) abort();
}

// Takes the frames that have arrived. Returns false if the stream is broken.
bool TakeFrames(HostFrameReader& reader, size_t received, size_t* taken) {
  for (;;) {
    HostFrameHeader header;
    HostFrameSlice body;
    const HostFrameReader::Next next = reader.Take(&header, &body);
    if (next != HostFrameReader::Next::kFrame) return next == HostFrameReader::Next::kIncomplete;
    Require(body.size == header.bodySize && header.FrameSize() <= kHostFrameLimit);
    *taken += header.FrameSize();
    Require(*taken <= received);
    AppleEvent event = {typeNull, nullptr};
    if (HostDecodeEvent(std::move(body), &event) == 0) AEDisposeDesc(&event);
    Require(event.dataHandle == nullptr);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > (size_t{64} << 10)) return 0;
  int ends[2];
  Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
  const size_t portion = data[0] == 0 ? size : size_t{data[0]} * 7;
  HostFrameReader reader(static_cast<HostFrameReader::Passing>(data[0] % 3));
  size_t sent = 1, taken = 0;
  bool sound = true;
  while (sound && sent < size) {
    const size_t part = std::min(portion, size - sent);
    Require(send(ends[0], data + sent, part, 0) == static_cast<ssize_t>(part));
    sent += part;
    while (sound && reader.Receive(ends[1], MSG_DONTWAIT) > 0) {
      sound = TakeFrames(reader, sent - 1, &taken);
    }
  }
  if (sound) Require(reader.PartialBytes() == size - 1 - taken);
  close(ends[0]);
  close(ends[1]);
  Require(HostCountDescs() == 0);
  return 0;
}
