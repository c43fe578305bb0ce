#include "util/handle_utils.h"

OSStatus NFSetHandleSize(Handle handle, SInt32 size) {
  SetHandleSize(handle, size);
  return MemError();
}
