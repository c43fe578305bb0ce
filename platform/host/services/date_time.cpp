#include "platform/host/services/date_time.h"

#include <CoreServices/OSUtils.h>

#include <algorithm>
#include <cstdint>

namespace {

constexpr int64_t kSecondsTo1970 = 2082844800;  // from the start of 1904
constexpr UInt32 kDaylightBit = 0x80000000;     // of the daylight byte, in the whole word
constexpr UInt32 kOffsetMask = 0x00FFFFFF;

}  // namespace

UInt32 HostLocalDate(time_t time) {
  tm local = {};
  if (localtime_r(&time, &local) == nullptr) return 0;
  const int64_t seconds = int64_t{time} + local.tm_gmtoff + kSecondsTo1970;
  return static_cast<UInt32>(std::clamp<int64_t>(seconds, 0, UINT32_MAX));
}

void GetDateTime(UInt32* seconds) {
  if (seconds != nullptr) *seconds = HostLocalDate(time(nullptr));
}

void ReadLocation(MachineLocation* location) {
  if (location == nullptr) return;
  const time_t now = time(nullptr);
  tm local = {};
  localtime_r(&now, &local);
  const UInt32 daylight = local.tm_isdst > 0 ? kDaylightBit : 0;
  *location = {};
  location->u.gmtDelta =
      static_cast<SInt32>(daylight | (static_cast<UInt32>(local.tm_gmtoff) & kOffsetMask));
}
