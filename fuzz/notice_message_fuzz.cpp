#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/notify/notice_protocol.h"
#include "platform/notify/titled_notice.h"

// Arbitrary packets between a process and its notice helper: a packet that can be read is written
// with the same bytes.
static void TryTitled(const char* data, size_t size) {
  TitledNotice notice;
  std::vector<std::string> texts;
  const std::string packet(data, size);
  if (ReadTitledNotice(data, size, notice) && WriteTitledNotice(notice) != packet) abort();
  for (const auto kind : {TitledNoticeKind::kOnScreen, TitledNoticeKind::kEnd}) {
    if (ReadTitledTexts(data, size, kind, texts) && WriteTitledTexts(kind, texts) != packet)
      abort();
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  TryTitled(reinterpret_cast<const char*>(data), size);
  NoticeMessage message;
  if (!ReadNoticeMessage(data, size, &message)) return 0;
  unsigned char packet[kNoticePacketSize];
  if (WriteNoticeMessage(message, packet) != size || std::memcmp(packet, data, size) != 0) abort();
  return 0;
}
