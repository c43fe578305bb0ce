#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// What a process and its notice helper tell each other, over a pair of sequenced-packet sockets.
// One packet, one message; the end of either side is the end of the other's input.
//
// | Byte | What |
// |---|---|
// | 0 | kind |
// | 1-4 | notice: a number that its process gives once, most significant byte first |
// | 5-8 | place, of kShow only: a notice replaces an earlier one in the same place |
// | 9 | length of the text, of kShow only |
// | 10- | the text, Mac Roman |
//
// To the helper: kShow; kRemove (withdraw it, nothing is told of it any more). From the helper, of
// each notice: kOnScreen, at most once; kGone at last, when it has been dismissed or replaced, or
// when it could not be shown and went to the log instead.

enum class NoticeMessageKind : uint8_t { kShow = 1, kRemove = 2, kOnScreen = 3, kGone = 4 };

struct NoticeMessage {
  NoticeMessageKind kind = NoticeMessageKind::kShow;
  uint32_t notice = 0;
  uint32_t place = 0;
  uint8_t length = 0;
  unsigned char text[255] = {};
};

inline constexpr size_t kNoticeHeadSize = 5;
inline constexpr size_t kNoticeShowSize = 10;  // without the text
inline constexpr size_t kNoticePacketSize = kNoticeShowSize + 255;

// At most so many notices of one process are under way or on screen.
inline constexpr size_t kNoticeLimit = 64;

inline void PutNoticeNumber(uint32_t number, unsigned char* out) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(number >> (24 - 8 * i));
}

inline uint32_t GetNoticeNumber(const unsigned char* in) {
  return uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | in[3];
}

// The packet's size; `packet` has room for kNoticePacketSize bytes.
inline size_t WriteNoticeMessage(const NoticeMessage& message, unsigned char* packet) {
  packet[0] = static_cast<unsigned char>(message.kind);
  PutNoticeNumber(message.notice, packet + 1);
  if (message.kind != NoticeMessageKind::kShow) return kNoticeHeadSize;
  PutNoticeNumber(message.place, packet + 5);
  packet[9] = message.length;
  std::memcpy(packet + kNoticeShowSize, message.text, message.length);
  return kNoticeShowSize + message.length;
}

// False for a packet that is none.
inline bool ReadNoticeMessage(const unsigned char* packet, size_t size, NoticeMessage* message) {
  if (size < kNoticeHeadSize || packet[0] < static_cast<uint8_t>(NoticeMessageKind::kShow) ||
      packet[0] > static_cast<uint8_t>(NoticeMessageKind::kGone)) {
    return false;
  }
  message->kind = static_cast<NoticeMessageKind>(packet[0]);
  message->notice = GetNoticeNumber(packet + 1);
  if (message->kind != NoticeMessageKind::kShow) return size == kNoticeHeadSize;
  if (size < kNoticeShowSize || size != kNoticeShowSize + packet[9]) return false;
  message->place = GetNoticeNumber(packet + 5);
  message->length = packet[9];
  std::memcpy(message->text, packet + kNoticeShowSize, message->length);
  return true;
}
