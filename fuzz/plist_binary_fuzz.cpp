#include "fuzz/plist_check.h"

// Binary property lists.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckList(data, size, HostReadPlistBinary);
  return 0;
}
