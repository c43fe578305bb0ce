#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/notify/notice_protocol.h"

// Arbitrary packets between a process and its notice helper: a packet that can be read is written
// with the same bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NoticeMessage message;
  if (!ReadNoticeMessage(data, size, &message)) return 0;
  unsigned char packet[kNoticePacketSize];
  if (WriteNoticeMessage(message, packet) != size || std::memcmp(packet, data, size) != 0) abort();
  return 0;
}
