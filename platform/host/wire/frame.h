#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/host/wire/frame_buffer.h"
#include "platform/host/wire/gather.h"

// This room reads and writes frames as bytes, whoever sends them: headers, buffers, the list that
// gathers an outgoing frame, and both directions of a stream.
//
// The 32 bytes in front of every message on a connection. All numbers are big-endian;
// docs/protocol.md has the byte table.

enum class HostFrameKind : uint8_t {
  kRequest = 1,
  kReply = 2,
  // About lanes (ring.h). They have no body; with the first two come two file descriptors.
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
  uint32_t bodySize = 0;       // bytes behind the header
  uint64_t requestNumber = 0;  // the sender's; a reply repeats it
  uint64_t sender = 0;         // random number of the sending thread; 0 in replies

  bool ReplyWanted() const { return (flags & kHostFrameReplyWanted) != 0; }
  size_t FrameSize() const { return kHostFrameHeaderSize + bodySize; }
};

// Writes kHostFrameHeaderSize bytes.
void HostEncodeFrameHeader(const HostFrameHeader& header, uint8_t* bytes);

// False when the bytes are no frame header of this version within kHostFrameLimit: what follows
// on that connection cannot be told apart any more.
bool HostDecodeFrameHeader(const uint8_t* bytes, HostFrameHeader* header);

// Fills the header room of a flattened event: `header` with the body's size.
void HostFillFrameHeader(HostFrameHeader header, HostGather* frame);

// The body of a flattened event in one piece of its own; without owner when there is no memory.
HostFrameSlice HostCopyFrameBody(HostGather& frame);
