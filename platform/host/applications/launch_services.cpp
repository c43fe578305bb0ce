#include <strings.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <CoreServices/LaunchServices.h>
#include <CoreServices/MacErrors.h>

#include "platform/host/applications/bundle.h"
#include "platform/host/base/guard.h"
#include "platform/host/files/items.h"
#include "platform/host/objects/cf_string.h"

// Finding applications. Each call searches the folders, so there is no registry that could be
// stale.

namespace {

constexpr OSType kApplicationType = FourCC('A', 'P', 'P', 'L');

// Takes the number at the start of `*text`, and the dot after it, off the text; 0 if there is no
// digit. Only the first nine digits count.
UInt32 TakeNumber(std::string_view* text) {
  UInt32 number = 0;
  size_t digits = 0;
  while (digits < text->size() && (*text)[digits] >= '0' && (*text)[digits] <= '9') {
    if (number < 100'000'000) number = 10 * number + static_cast<UInt32>((*text)[digits] - '0');
    digits++;
  }
  text->remove_prefix(digits);
  // A character other than a digit or a dot ends the version: 1.2b3 is 1.2.
  if (text->empty() || text->front() != '.') {
    *text = {};
  } else {
    text->remove_prefix(1);
  }
  return number;
}

// Compares number by number, so that 1.10 is above 1.9. Missing numbers count as 0.
bool IsLowerVersion(std::string_view a, std::string_view b) {
  while (!a.empty() || !b.empty()) {
    const UInt32 left = TakeNumber(&a);
    const UInt32 right = TakeNumber(&b);
    if (left != right) return left < right;
  }
  return false;
}

bool AreEqualButForCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string FileName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Returns the string as UTF-8, or "" for null.
std::string Utf8Of(CFStringRef string) {
  const auto* text = HostCast<HostCFString>(string);
  if (text == nullptr) return "";
  CFIndex size = 0;
  const CFRange all = {0, CFStringGetLength(string)};
  CFStringGetBytes(string, all, kCFStringEncodingUTF8, 0, false, nullptr, 0, &size);
  std::string bytes(static_cast<size_t>(size), 0);
  CFStringGetBytes(string, all, kCFStringEncodingUTF8, 0, false,
                   reinterpret_cast<UInt8*>(bytes.data()), size, &size);
  return bytes;
}

// Returns the path of the application that fits and has the highest version; of several, the first.
template <class Fits>
std::optional<std::string> Best(const std::vector<HostBundle>& bundles, Fits fits) {
  const HostBundle* best = nullptr;
  for (const HostBundle& bundle : bundles) {
    if (bundle.packageType != kApplicationType || !fits(bundle)) continue;
    if (best == nullptr || IsLowerVersion(best->version, bundle.version)) best = &bundle;
  }
  return best != nullptr ? std::optional(best->path) : std::nullopt;
}

std::optional<std::string> Find(OSType creator, const std::string& identifier,
                                const std::string& name) {
  const std::vector<HostBundle> bundles = HostListApplications();
  std::optional<std::string> found;
  if (!identifier.empty()) {
    found = Best(bundles, [&](const HostBundle& bundle) {
      return AreEqualButForCase(bundle.identifier, identifier);
    });
  }
  // The letter case of a creator counts, because it is a number.
  if (!found && creator != kLSUnknownCreator) {
    found = Best(bundles, [&](const HostBundle& bundle) { return bundle.signature == creator; });
  }
  if (!found && !name.empty()) {
    found = Best(bundles, [&](const HostBundle& bundle) {
      return AreEqualButForCase(FileName(bundle.path), name);
    });
  }
  return found;
}

}  // namespace

OSStatus LSFindApplicationForInfo(OSType creator, CFStringRef bundleID, CFStringRef name,
                                  FSRef* outRef, CFURLRef* outURL) {
  if (creator == kLSUnknownCreator && bundleID == nullptr && name == nullptr) return paramErr;
  FSRef ref;
  const OSStatus err = HostGuard(OSStatus{memFullErr}, [&]() -> OSStatus {
    const std::optional<std::string> path = Find(creator, Utf8Of(bundleID), Utf8Of(name));
    HostItem item;
    if (!path || HostItemAtEndOf(path->c_str(), &item) != 0) return kLSApplicationNotFoundErr;
    HostRefOfItem(item, &ref);
    return 0;
  });
  if (err != 0) return err;
  if (outRef != nullptr) *outRef = ref;
  if (outURL != nullptr) *outURL = CFURLCreateFromFSRef(kCFAllocatorDefault, &ref);
  return 0;
}
