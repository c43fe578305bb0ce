#include <cstring>
#include <string_view>

#include "fuzz/plist_check.h"

#ifdef VLT_HAS_EXPAT
#include <expat.h>
#endif

// XML property lists. Where expat is installed, a text that this reader accepts must be well-formed
// for expat as well. Exceptions, accepted on purpose: control characters and "]]>" in text, white
// space before the declaration, other names of UTF-8.

namespace {

#ifdef VLT_HAS_EXPAT
bool IsTakenOnPurpose(std::string_view text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 && std::strchr("\t\n\r", c) == nullptr) return true;
  }
  for (const char* part : {"]]>", "&#", "encoding", "\xEF\xBF\xBE", "\xEF\xBF\xBF"}) {
    if (text.find(part) != text.npos) return true;
  }
  return text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF") ||
         (!text.empty() && std::strchr(" \t\n\r", text[0]) != nullptr) ||
         (text.starts_with("\xEF\xBB\xBF") && text.find("<?xml") != text.npos);
}

bool IsWellFormed(const uint8_t* data, size_t size) {
  XML_Parser parser = XML_ParserCreate(nullptr);
  const auto* text = reinterpret_cast<const char*>(data);
  const bool isGood = XML_Parse(parser, text, static_cast<int>(size), 1) == XML_STATUS_OK;
  XML_ParserFree(parser);
  return isGood;
}
#endif

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  [[maybe_unused]] const bool isAccepted = CheckList(data, size, HostReadPlistXML);
#ifdef VLT_HAS_EXPAT
  if (isAccepted && !IsTakenOnPurpose({reinterpret_cast<const char*>(data), size})) {
    RequireThat(IsWellFormed(data, size));
  }
#endif
  return 0;
}
