#include <CoreServices/Gestalt.h>
#include <CoreServices/MacErrors.h>
#include <stdlib.h>

namespace {

constexpr SInt32 kSystemVersion = 0x1040;

// If the value is not a number, the selector is unknown, as on a system without it.
bool SystemVersion(SInt32* version) {
  const char* text = secure_getenv("VLTHOST_GESTALT_SYSV");
  if (text == nullptr || text[0] == 0) return *version = kSystemVersion, true;
  char* end = nullptr;
  const unsigned long value = strtoul(text, &end, 0);
  if (*end != 0 || value > 0xFFFF) return false;
  *version = static_cast<SInt32>(value);
  return true;
}

}  // namespace

OSErr Gestalt(OSType selector, SInt32* response) {
  if (response == nullptr) return paramErr;
  SInt32 version = 0;
  if (selector != gestaltSystemVersion || !SystemVersion(&version)) return gestaltUndefSelectorErr;
  *response = version;
  return noErr;
}
