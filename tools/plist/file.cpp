#include "tools/plist/file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "plist/file_replacement.h"
#include "tools/output.h"
#include "tools/plist/json.h"

namespace {

bool Fail(PlistProblem& problem, ExitStatus exit, std::string text) {
  problem.exit = exit;
  problem.text = std::move(text);
  return false;
}

bool FailWithError(PlistProblem& problem, int error) {
  const bool isRefused = error == EACCES || error == EPERM || error == EROFS;
  const bool isAbsent = error == ENOENT || error == ENOTDIR;
  return Fail(problem,
              isAbsent    ? kExitNotFound
              : isRefused ? kExitRefused
                          : kExitGeneral,
              std::strerror(error));
}

bool ReadAll(FILE* file, std::string& bytes) {
  constexpr size_t kRoom = kHostMaxPlistBytes + 1;
  constexpr size_t kStep = 1 << 16;
  size_t count = 0;
  for (size_t got = 1; got > 0 && count < kRoom; count += got) {
    if (count == bytes.size()) bytes.resize(std::min(2 * count + kStep, kRoom));
    got = std::fread(bytes.data() + count, 1, bytes.size() - count, file);
  }
  bytes.resize(count);
  return std::ferror(file) == 0;
}

// Returns false with errno on failure.
bool ReadBytes(const std::string& name, std::string& bytes) try {
  if (name == "-") return ReadAll(stdin, bytes);
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(name.c_str(), "rbe"), &std::fclose);
  return file != nullptr && ReadAll(file.get(), bytes);
} catch (const std::bad_alloc&) {
  return errno = ENOMEM, false;
}

bool LooksLikeJson(const std::string& bytes) {
  const size_t start = bytes.find_first_not_of(" \t\r\n");
  return start != bytes.npos && (bytes[start] == '{' || bytes[start] == '[');
}

// Returns false with errno on failure.
bool WriteOut(const std::string& bytes) {
  Print(bytes);
  errno = TakeOutputError();
  return errno == 0;
}

}  // namespace

const char* FormatName(CFPropertyListFormat format) {
  switch (format) {
    case kCFPropertyListXMLFormat_v1_0:
      return "XML";
    case kCFPropertyListBinaryFormat_v1_0:
      return "binary";
    case kCFPropertyListOpenStepFormat:
      return "text";
    default:
      return "JSON";
  }
}

bool ReadPlistFile(const std::string& name, bool orJson, PlistFile& file, PlistProblem& problem) {
  problem.file = name == "-" ? "standard input" : name;
  std::string bytes;
  if (!ReadBytes(name, bytes)) return FailWithError(problem, errno);
  if (bytes.size() > kHostMaxPlistBytes) return Fail(problem, kExitBadData, "more than 256 MiB");
  file.list = HostReadPropertyList(reinterpret_cast<const UInt8*>(bytes.data()), bytes.size(),
                                   kCFPropertyListMutableContainers, &file.format, &problem.place);
  if (file.list != nullptr) return true;
  if (file.format == kCFPropertyListOpenStepFormat && LooksLikeJson(bytes)) {
    std::string fault;
    size_t reached = 0;
    OwnedRef<CFTypeRef> list(CreateFromJson(bytes, fault, &reached));
    const bool isJson = list != nullptr;
    if (isJson && orJson) {
      file.list = std::move(list);
      file.format = kJsonFormat;
      return true;
    }
    if (isJson) problem.place.hint = "this is JSON; convert turns it into a property list";
    // Both formats may begin like this. Report the one whose reader got further.
    if (orJson && reached >= problem.place.offset) return Fail(problem, kExitBadData, fault);
  }
  if (problem.place.text == kHostPlistNoMemory) return FailWithError(problem, ENOMEM);
  std::string text = problem.place.Sentence();
  if (!problem.place.hint.empty()) text += " (" + problem.place.hint + ")";
  return Fail(problem, kExitBadData, text);
}

bool PlistBytes(CFTypeRef list, CFPropertyListFormat format, std::string& bytes,
                PlistProblem& problem) {
  if (format == kJsonFormat) {
    bytes = JsonText(JsonOfPlist(list)) + "\n";
    return true;
  }
  const OwnedRef<CFWriteStreamRef> stream(
      Made(CFWriteStreamCreateWithAllocatedBuffers(kCFAllocatorDefault, kCFAllocatorDefault)));
  CFStringRef error = nullptr;
  CFWriteStreamOpen(stream);
  const CFIndex count = CFPropertyListWriteToStream(list, stream, format, &error);
  const OwnedRef<CFStringRef> why(error);
  if (count == 0) {
    // Either the format cannot hold the list, or the stream could not grow.
    if (CFPropertyListIsValid(list, format)) return FailWithError(problem, ENOMEM);
    return Fail(problem, kExitBadData, TextOf(why));
  }
  const OwnedRef<CFTypeRef> written(
      Made(CFWriteStreamCopyProperty(stream, kCFStreamPropertyDataWritten)));
  const auto* data = static_cast<CFDataRef>(static_cast<CFTypeRef>(written));
  if (CFDataGetLength(data) != count) return FailWithError(problem, ENOMEM);
  bytes.assign(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
               static_cast<size_t>(CFDataGetLength(data)));
  return true;
}

bool WritePlistFile(const std::string& name, const std::string& bytes, PlistProblem& problem) {
  problem.file = name == "-" ? "standard output" : name;
  if (name == "-") return WriteOut(bytes) || FailWithError(problem, errno);
  const OwnedRef<CFURLRef> url(Made(CFURLCreateFromFileSystemRepresentation(
      kCFAllocatorDefault, reinterpret_cast<const UInt8*>(name.data()),
      static_cast<CFIndex>(name.size()), false)));
  if (CFURLHasDirectoryPath(url)) return FailWithError(problem, EISDIR);
  VLTFileReplacement replacement(url);
  if (replacement.Error() != 0) return FailWithError(problem, replacement.Error());
  const OwnedRef<CFURLRef> target(Made(replacement.CopyTarget()));
  const OwnedRef<CFWriteStreamRef> stream(
      Made(CFWriteStreamCreateWithFile(kCFAllocatorDefault, target)));
  const auto count = static_cast<CFIndex>(bytes.size());
  bool isDone = CFWriteStreamOpen(stream) != 0;
  isDone = isDone &&
           CFWriteStreamWrite(stream, reinterpret_cast<const UInt8*>(bytes.data()), count) == count;
  CFWriteStreamClose(stream);
  isDone = isDone && CFWriteStreamGetStatus(stream) == kCFStreamStatusClosed;
  if (isDone) {
    if (replacement.PutInPlace()) return true;
    // The name led to a folder a moment ago: what is missing now is not what was asked for.
    const int error = errno;
    return error == ENOENT ? Fail(problem, kExitGeneral, std::strerror(error))
                           : FailWithError(problem, error);
  }
  const SInt32 error = CFWriteStreamGetError(stream).error;
  return FailWithError(problem, error != 0 ? error : EIO);
}
