#include "tools/plist/file.h"

#include <sys/stat.h>

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
  problem.error = 0;
  return false;
}

bool FailWithError(PlistProblem& problem, int error, const char* what) {
  const bool isRefused = error == EACCES || error == EPERM || error == EROFS;
  const bool isAbsent = error == ENOENT || error == ENOTDIR;
  Fail(problem,
       isAbsent    ? kExitNotFound
       : isRefused ? kExitRefused
                   : kExitGeneral,
       std::string(what) + ErrnoText(error));
  problem.error = error;
  return false;
}

constexpr char kNotRead[] = "cannot be read: ";
constexpr char kNotWritten[] = "cannot be written: ";

bool ReadAll(FILE* file, std::string& bytes) {
  constexpr size_t kRoom = kHostMaxPlistBytes + 1;
  constexpr size_t kStep = 1 << 16;
  struct stat info;
  const bool isSized = fstat(fileno(file), &info) == 0 && S_ISREG(info.st_mode);
  // One byte more shows the end, and spares a second, larger block.
  if (isSized) bytes.resize(std::min(static_cast<size_t>(info.st_size) + 1, kRoom));
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

bool FormatNamed(const std::string& name, CFPropertyListFormat& format) {
  if (name == "xml")
    format = kCFPropertyListXMLFormat_v1_0;
  else if (name == "binary")
    format = kCFPropertyListBinaryFormat_v1_0;
  else if (name == "json")
    format = kJsonFormat;
  else
    return false;
  return true;
}

std::string UnknownFormat(const std::string& name) {
  return "unknown format " + Quoted(name) + " (xml, binary or json)";
}

std::string ErrnoText(int error) {
  const char* const name = strerrorname_np(error);
  return std::string(std::strerror(error)) + " (" + std::to_string(error) +
         (name != nullptr ? std::string(", ") + name : "") + ")";
}

bool ReadPlistFile(const std::string& name, bool orJson, PlistFile& file, PlistProblem& problem) {
  problem.file = name == "-" ? "standard input" : name;
  std::string bytes;
  if (!ReadBytes(name, bytes)) return FailWithError(problem, errno, kNotRead);
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
  if (problem.place.text == kHostPlistNoMemory) return FailWithError(problem, ENOMEM, kNotRead);
  std::string text = problem.place.Sentence();
  if (!problem.place.hint.empty()) text += " (" + problem.place.hint + ")";
  return Fail(problem, kExitBadData, text);
}

bool PlistBytes(CFTypeRef list, CFPropertyListFormat format, std::string& bytes,
                PlistProblem& problem) {
  if (format == kJsonFormat) {
    bytes.clear();
    WritePlistJson(list, [&](std::string_view piece) { bytes += piece; });
    bytes += '\n';
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
    if (CFPropertyListIsValid(list, format)) return FailWithError(problem, ENOMEM, kNotWritten);
    return Fail(problem, kExitBadData, TextOf(why));
  }
  const OwnedRef<CFTypeRef> written(
      Made(CFWriteStreamCopyProperty(stream, kCFStreamPropertyDataWritten)));
  const auto* data = static_cast<CFDataRef>(static_cast<CFTypeRef>(written));
  if (CFDataGetLength(data) != count) return FailWithError(problem, ENOMEM, kNotWritten);
  bytes.assign(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
               static_cast<size_t>(CFDataGetLength(data)));
  return true;
}

bool WritePlistFile(const std::string& name, const std::string& bytes, PlistProblem& problem) {
  problem.file = name == "-" ? "standard output" : name;
  if (name == "-") {
    if (WriteOut(bytes)) return true;
    const int error = errno;
    FailWithError(problem, error, "");
    return problem.text = std::strerror(error), false;  // as for all other output
  }
  const OwnedRef<CFURLRef> url(Made(CFURLCreateFromFileSystemRepresentation(
      kCFAllocatorDefault, reinterpret_cast<const UInt8*>(name.data()),
      static_cast<CFIndex>(name.size()), false)));
  if (CFURLHasDirectoryPath(url)) return FailWithError(problem, EISDIR, kNotWritten);
  VLTFileReplacement replacement(url);
  if (replacement.Error() != 0) return FailWithError(problem, replacement.Error(), kNotWritten);
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
    FailWithError(problem, error, kNotWritten);
    if (error == ENOENT) problem.exit = kExitGeneral;
    return false;
  }
  const SInt32 error = CFWriteStreamGetError(stream).error;
  return FailWithError(problem, error != 0 ? error : EIO, kNotWritten);
}
