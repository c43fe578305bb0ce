#include "fuzz/plist_check.h"
#include "platform/host/plist/text_read.h"

// Property lists in the old text form. Escapes in strings can give NULs and halves of surrogate
// pairs, so some lists that are accepted cannot be written as XML.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckList(data, size, HostReadPlistText);
  return 0;
}
