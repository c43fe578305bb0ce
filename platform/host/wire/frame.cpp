#include "platform/host/wire/frame.h"

#include <cstring>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/guard.h"

namespace {

constexpr uint32_t kMagic = 0x766C7446;  // "vltF"
constexpr uint8_t kVersion = 1;

// Offsets of the fields, in bytes.
constexpr size_t kMagicAt = 0;
constexpr size_t kVersionAt = 4;
constexpr size_t kKindAt = 5;
constexpr size_t kFlagsAt = 6;
constexpr size_t kBodySizeAt = 8;
constexpr size_t kReservedAt = 12;
constexpr size_t kRequestNumberAt = 16;
constexpr size_t kSenderAt = 24;

}  // namespace

void HostEncodeFrameHeader(const HostFrameHeader& header, uint8_t* bytes) {
  HostStoreBig32(bytes + kMagicAt, kMagic);
  bytes[kVersionAt] = kVersion;
  bytes[kKindAt] = static_cast<uint8_t>(header.kind);
  HostStoreBig16(bytes + kFlagsAt, header.flags);
  HostStoreBig32(bytes + kBodySizeAt, header.bodySize);
  HostStoreBig32(bytes + kReservedAt, 0);
  HostStoreBig64(bytes + kRequestNumberAt, header.requestNumber);
  HostStoreBig64(bytes + kSenderAt, header.sender);
}

bool HostDecodeFrameHeader(const uint8_t* bytes, HostFrameHeader* header) {
  const uint8_t kind = bytes[kKindAt];
  if (HostLoadBig32(bytes + kMagicAt) != kMagic || bytes[kVersionAt] != kVersion) return false;
  if (kind < static_cast<uint8_t>(HostFrameKind::kRequest) ||
      kind > static_cast<uint8_t>(HostFrameKind::kLaneDeclined)) {
    return false;
  }
  header->kind = static_cast<HostFrameKind>(kind);
  header->flags = HostLoadBig16(bytes + kFlagsAt);
  header->bodySize = HostLoadBig32(bytes + kBodySizeAt);
  header->requestNumber = HostLoadBig64(bytes + kRequestNumberAt);
  header->sender = HostLoadBig64(bytes + kSenderAt);
  const uint16_t known = header->kind == HostFrameKind::kRequest ? kHostFrameReplyWanted : 0;
  const bool hasBody =
      header->kind == HostFrameKind::kRequest || header->kind == HostFrameKind::kReply;
  const size_t most = hasBody ? kHostFrameLimit - kHostFrameHeaderSize : 0;
  return (header->flags & ~known) == 0 && HostLoadBig32(bytes + kReservedAt) == 0 &&
         header->bodySize <= most;
}

void HostFillFrameHeader(HostFrameHeader header, HostGather* frame) {
  header.bodySize = static_cast<uint32_t>(frame->TotalSize() - kHostFrameHeaderSize);
  HostEncodeFrameHeader(header, frame->Header());
}

HostFrameSlice HostCopyFrameBody(HostGather& frame) {
  HostFrameSlice body;
  const std::vector<iovec>* pieces = nullptr;
  if (!HostGuard([&] { pieces = &frame.Pieces(); })) return body;
  body.owner = HostFrameRef(HostFrameBuffer::Create(frame.TotalSize()));
  if (!body.owner) return body;
  uint8_t* to = body.owner->Bytes();
  for (const iovec& piece : *pieces) {
    memcpy(to, piece.iov_base, piece.iov_len);
    to += piece.iov_len;
  }
  body.bytes = body.owner->Bytes() + kHostFrameHeaderSize;
  body.size = frame.TotalSize() - kHostFrameHeaderSize;
  return body;
}
