#include "fuzz/plist_check.h"
#include "platform/host/plist/text_read.h"

// Property lists in the old text form. Strings may have NULs and halves of pairs by their escapes,
// so not all that is accepted can be written as XML.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckList(data, size, HostReadPlistText);
  return 0;
}
