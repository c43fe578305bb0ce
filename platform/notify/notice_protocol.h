#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// The messages between a process and its notice helper, over a pair of sequenced-packet sockets.
// Each packet is one message. When either side ends, the other reads end of file. The functions
// below are pure: any thread.
//
// | Byte | Contents |
// |---|---|
// | 0 | kind |
// | 1-4 | notice: a number that its process uses once, most significant byte first |
// | 5-8 | slot, of kShow only: a notice replaces an earlier one in the same slot |
// | 9 | length of the text, of kShow only |
// | 10- | the text, Mac Roman |
//
// To the helper: kShow; kRemove, which withdraws the notice without a reply. From the helper, for
// each notice: kOnScreen, at most once; at the end kGone, when the notice was dismissed or
// replaced, or was logged because it could not be shown.

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

// The greatest number of a process's notices that are under way or on screen.
inline constexpr size_t kNoticeLimit = 64;

inline void PutNoticeNumber(uint32_t number, unsigned char* out) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(number >> (24 - 8 * i));
}

inline uint32_t GetNoticeNumber(const unsigned char* in) {
  return uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | in[3];
}

// Returns the packet's size. `packet` has room for kNoticePacketSize bytes.
inline size_t WriteNoticeMessage(const NoticeMessage& message, unsigned char* packet) {
  packet[0] = static_cast<unsigned char>(message.kind);
  PutNoticeNumber(message.notice, packet + 1);
  if (message.kind != NoticeMessageKind::kShow) return kNoticeHeadSize;
  PutNoticeNumber(message.place, packet + 5);
  packet[9] = message.length;
  std::memcpy(packet + kNoticeShowSize, message.text, message.length);
  return kNoticeShowSize + message.length;
}

// Returns false if the packet is not a valid message.
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
