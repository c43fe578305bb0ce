#include "aeport/port_name.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "util/file_utils.h"

OSStatus VLTAEMakePortName(char* outName, UInt32 outSize, const char* baseName, bool perProcess,
                           const char* suffix, int instance) {
  if (outName == nullptr || baseName == nullptr || baseName[0] == 0) return paramErr;

  char process[sizeof ".0123456789abcdef"] = "";
  if (perProcess) {
    ProcessSerialNumber psn = {};
    if (const OSErr err = GetCurrentPSN(&psn); err != 0) return err;
    // Meant: the low word first, because other processes compose the same name.
    std::snprintf(process, sizeof process, ".%08" PRIx32 "%08" PRIx32, psn.lowLongOfPSN,
                  psn.highLongOfPSN);
  }
  char number[sizeof ".2147483647"] = "";
  if (instance >= 0) std::snprintf(number, sizeof number, ".%d", instance);
  const bool hasSuffix = suffix != nullptr && suffix[0] != 0;

  char name[256];
  const int length = std::snprintf(name, sizeof name, "%s%s%s%s%s", baseName, hasSuffix ? "." : "",
                                   hasSuffix ? suffix : "", process, number);
  if (length < 0 || static_cast<size_t>(length) >= sizeof name) return paramErr;
  if (static_cast<UInt32>(length) >= outSize) return paramErr;
  std::memcpy(outName, name, length + 1);
  return 0;
}
