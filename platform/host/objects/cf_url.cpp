#include "platform/host/objects/cf_url.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "platform/host/base/guard.h"
#include "platform/host/base/hash.h"
#include "platform/host/objects/cf_string.h"

namespace {

// Returns the working directory with a slash at the end, or "" if it cannot be found out.
std::string WorkingDirectory() {
  const std::unique_ptr<char, decltype(&std::free)> path(getcwd(nullptr, 0), &std::free);
  // For a folder outside the root folder the system returns "(unreachable)...".
  if (path == nullptr || path.get()[0] != '/') return "";
  return std::string(path.get()) + '/';
}

std::string_view WithoutEndSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

// Encodes all of `text`. Returns false if a character has no form in the encoding.
bool Encode(CFStringEncoding encoding, HostTextView text, std::vector<UInt8>& bytes) {
  bytes.resize(text.length * HostMaxBytesPerUnit(encoding));
  size_t used = 0;
  const size_t taken = HostEncodeText(encoding, text, 0, bytes.data(), bytes.size(), &used);
  bytes.resize(used);
  return taken == text.length;
}

bool EncodePath(HostTextView text, std::vector<UInt8>& bytes) {
  return Encode(kCFStringEncodingMacRoman, text, bytes) ||
         Encode(kCFStringEncodingUTF8, text, bytes);
}

std::string_view View(const std::vector<UInt8>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

__CFURL* __CFURL::Create(std::string_view path, bool isDirectory) {
  if (path.empty() || path.find('\0') != path.npos) return nullptr;
  std::string completed;
  if (path.front() != '/') {
    completed = WorkingDirectory();
    if (completed.empty()) return nullptr;
    completed += path;
    path = completed;
  }
  const bool hasSlash = path.back() == '/';
  path = WithoutEndSlashes(path);
  if (path.size() > INT32_MAX - sizeof(__CFURL) - 1) return nullptr;
  void* block = ::operator new(sizeof(__CFURL) + path.size() + 1, std::nothrow);
  if (block == nullptr) return nullptr;
  auto* url = new (block) __CFURL(path.size(), isDirectory || hasSlash);
  auto* bytes = static_cast<char*>(block) + sizeof(__CFURL);
  std::memcpy(bytes, path.data(), path.size());
  bytes[path.size()] = 0;
  return url;
}

void __CFURL::LastRelease() {
  static_assert(std::is_trivially_destructible_v<__CFURL>);
  ::operator delete(this);
}

bool __CFURL::Equal(const HostCFObject& object) const {
  const auto& other = static_cast<const __CFURL&>(object);
  return isDirectory == other.isDirectory && PathBytes() == other.PathBytes();
}

CFHashCode __CFURL::Hash() const { return HostHashBytes(Path(), length); }

// Reads the bytes as UTF-8 if the string then gives the same bytes back, else as Mac Roman, which
// always does.
CFStringRef __CFURL::CopyPath() const {
  const auto* bytes = reinterpret_cast<const UInt8*>(Path());
  HostRetained<HostCFString> text(
      HostCFString::Create(kCFStringEncodingUTF8, bytes, length, false));
  std::vector<UInt8> again;
  if (text && EncodePath(text->Text(), again) && View(again) == PathBytes()) return text.Give();
  return HostCFString::Create(kCFStringEncodingMacRoman, bytes, length, false);
}

CFTypeID CFURLGetTypeID(void) { return kHostTypeURL; }

CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef, CFStringRef path, CFURLPathStyle style,
                                       Boolean isDirectory) {
  const auto* string = HostCast<HostCFString>(path);
  if (string == nullptr || style != kCFURLPOSIXPathStyle) return nullptr;
  return HostGuard<CFURLRef>(nullptr, [&]() -> CFURLRef {
    std::vector<UInt8> bytes;
    if (!EncodePath(string->Text(), bytes)) return nullptr;
    return HostCFURL::Create(View(bytes), isDirectory != 0);
  });
}

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef, const UInt8* bytes, CFIndex count,
                                                 Boolean isDirectory) {
  if (bytes == nullptr || count <= 0) return nullptr;
  const std::string_view path(reinterpret_cast<const char*>(bytes), static_cast<size_t>(count));
  return HostGuard<CFURLRef>(nullptr, [&] { return HostCFURL::Create(path, isDirectory != 0); });
}

CFStringRef CFURLCopyFileSystemPath(CFURLRef ref, CFURLPathStyle style) {
  const auto* url = HostCast<HostCFURL>(ref);
  if (url == nullptr || style != kCFURLPOSIXPathStyle) return nullptr;
  return HostGuard<CFStringRef>(nullptr, [url] { return url->CopyPath(); });
}

Boolean CFURLGetFileSystemRepresentation(CFURLRef ref, Boolean, UInt8* buffer, CFIndex size) {
  if (buffer == nullptr || size <= 0) return false;
  buffer[0] = 0;
  const auto* url = HostCast<HostCFURL>(ref);
  if (url == nullptr || url->PathBytes().size() >= static_cast<size_t>(size)) return false;
  std::memcpy(buffer, url->Path(), url->PathBytes().size() + 1);
  return true;
}

Boolean CFURLHasDirectoryPath(CFURLRef ref) {
  const auto* url = HostCast<HostCFURL>(ref);
  return url != nullptr && url->IsDirectory();
}
