#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/host/wire/frame_buffer.h"
#include "platform/host/wire/gather.h"

// This room reads and writes frames as bytes, independent of who sends them: headers, buffers, the
// list that gathers an outgoing frame, and both directions of a stream.
//
// A frame begins with a header of 32 bytes. All numbers are big-endian; docs/protocol.md has the
// byte table.

enum class HostFrameKind : uint8_t {
  kRequest = 1,
  kReply = 2,
  // These three set up a lane (ring.h). They have no body. Two file descriptors come with each of
  // the first two.
  kLaneOffer = 3,
  kLaneAccepted = 4,
  kLaneDeclined = 5,
};

// Whether exactly two file descriptors come with a frame of this kind; none comes with any other.
inline bool HostCarriesDescriptors(HostFrameKind kind) {
  return kind == HostFrameKind::kLaneOffer || kind == HostFrameKind::kLaneAccepted;
}

inline constexpr uint16_t kHostFrameReplyWanted = 0x0001;  // requests only

struct HostFrameHeader {
  HostFrameKind kind = HostFrameKind::kRequest;
  uint16_t flags = 0;
  uint32_t bodySize = 0;       // bytes after the header
  uint64_t requestNumber = 0;  // chosen by the sender; a reply repeats it
  uint64_t sender = 0;         // random number of the sending thread; 0 in replies

  bool ReplyWanted() const { return (flags & kHostFrameReplyWanted) != 0; }
  size_t FrameSize() const { return kHostFrameHeaderSize + bodySize; }
};

// Writes kHostFrameHeaderSize bytes.
void HostEncodeFrameHeader(const HostFrameHeader& header, uint8_t* bytes);

// Returns false if the bytes are not a header of this version, or the frame exceeds
// kHostFrameLimit. The bytes that follow on that connection cannot be divided into frames then.
bool HostDecodeFrameHeader(const uint8_t* bytes, HostFrameHeader* header);

// Writes `header`, with the body's size, into the header room of a flattened event.
void HostFillFrameHeader(HostFrameHeader header, HostGather* frame);

// Copies the body of a flattened event into one new piece. Without memory the result has no owner.
HostFrameSlice HostCopyFrameBody(HostGather& frame);
