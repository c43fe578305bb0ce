#include "plist/dictionary_base.h"

#include <cerrno>

#include "plist/file_replacement.h"
#include "util/cf_strings.h"

// Loading and saving of VLTDictionaryBase.

namespace {

void ReleaseIfAny(CFTypeRef object) {
  if (object != nullptr) CFRelease(object);
}

// The three ways to name a file, for loading and for saving. Each passes the file's URL to `use`.

template <class Use>
OSStatus WithPath(const char* path, Use use) {
  if (path == nullptr || path[0] == 0) return paramErr;
  const CFStringRef text = CStringToCFString(path);
  const CFURLRef url = text != nullptr ? CFURLCreateWithFileSystemPath(kCFAllocatorDefault, text,
                                                                       kCFURLPOSIXPathStyle, false)
                                       : nullptr;
  const OSStatus err = url != nullptr ? use(url) : paramErr;
  ReleaseIfAny(url);
  ReleaseIfAny(text);
  return err;
}

template <class Use>
OSStatus WithRef(const FSRef* file, Use use) {
  const CFURLRef url = CFURLCreateFromFSRef(kCFAllocatorDefault, file);
  // Meant: `use` is called only if there is no address, because callers rely on a file that exists
  // having no effect.
  if (url == nullptr) return use(url);
  CFRelease(url);
  return 0;
}

template <class Use>
OSStatus WithSpec(const FSSpec* file, Use use) {
  FSRef ref;
  const OSStatus err = FSpMakeFSRef(file, &ref);
  return err == 0 ? use(&ref) : err;
}

// Opens `stream`, writes the list and closes the stream. Returns fnfErr if one of these fails or if
// `stream` is null.
OSStatus WriteList(CFWriteStreamRef stream, CFDictionaryRef list, CFPropertyListFormat format) {
  if (stream == nullptr || !CFWriteStreamOpen(stream)) return fnfErr;
  CFStringRef problem = nullptr;
  const CFIndex written = CFPropertyListWriteToStream(list, stream, format, &problem);
  ReleaseIfAny(problem);
  if (CFWriteStreamGetStatus(stream) == kCFStreamStatusOpen) CFWriteStreamClose(stream);
  const bool isLost = CFWriteStreamGetStatus(stream) == kCFStreamStatusError;
  return written == 0 || isLost ? fnfErr : 0;
}

OSStatus WriteFile(CFURLRef file, CFDictionaryRef list, CFPropertyListFormat format) {
  VLTFileReplacement replacement(file);
  if (replacement.Error() == ENOMEM) return memFullErr;
  const CFURLRef target = replacement.CopyTarget();
  const CFWriteStreamRef stream = CFWriteStreamCreateWithFile(kCFAllocatorDefault, target);
  OSStatus err = WriteList(stream, list, format);
  ReleaseIfAny(stream);
  ReleaseIfAny(target);
  if (err == 0 && !replacement.PutInPlace()) err = fnfErr;
  return err;
}

// Stores the bytes that a memory stream has received as a string, or null if they are not UTF-8
// text. Returns 0 in both cases, or memFullErr.
OSStatus CopyWrittenText(CFWriteStreamRef stream, CFPropertyListFormat format, CFStringRef* text) {
  const CFTypeRef written = CFWriteStreamCopyProperty(stream, kCFStreamPropertyDataWritten);
  // Null is a lack of memory, not an empty list.
  if (written == nullptr) return memFullErr;
  const auto data = static_cast<CFDataRef>(written);
  *text = CFStringCreateWithBytes(kCFAllocatorDefault, CFDataGetBytePtr(data),
                                  CFDataGetLength(data), kCFStringEncodingUTF8, false);
  CFRelease(written);
  return *text == nullptr && format == kCFPropertyListXMLFormat_v1_0 ? memFullErr : 0;
}

// Stores the text as UTF-8 in new memory. Stores nothing if the text is empty.
OSStatus StoreText(CFStringRef text, char** buffer, UInt32* length) {
  const CFIndex units = CFStringGetLength(text);
  const CFIndex size = CFStringGetMaximumSizeForEncoding(units, kCFStringEncodingUTF8);
  if (size < 1) return 0;
  char* const block = VLTDictionaryBase::PtrAllocator(size);
  if (block == nullptr) return memFullErr;
  CFIndex used = 0;
  CFStringGetBytes(text, CFRangeMake(0, units), kCFStringEncodingUTF8, 0, true,
                   reinterpret_cast<UInt8*>(block), size, &used);
  *buffer = block;
  *length = static_cast<UInt32>(used);
  return 0;
}

OSStatus WriteMemory(char** buffer, UInt32* length, CFDictionaryRef list,
                     CFPropertyListFormat format) {
  const CFWriteStreamRef stream =
      CFWriteStreamCreateWithAllocatedBuffers(kCFAllocatorDefault, kCFAllocatorDefault);
  OSStatus err = WriteList(stream, list, format);
  if (err == 0) {
    CFStringRef text = nullptr;
    err = CopyWrittenText(stream, format, &text);
    if (err == 0) err = StoreText(text, buffer, length);
    ReleaseIfAny(text);
  }
  ReleaseIfAny(stream);
  return err;
}

}  // namespace

OSStatus VLTDictionaryBase::TakeList(CFPropertyListRef list, bool merge) {
  if (list == nullptr) return fnfErr;
  // Meant: a list that is not a dictionary is accepted and adds nothing, because callers rely on
  // it.
  const OSStatus err = _takeContents(static_cast<CFDictionaryRef>(list), merge);
  CFRelease(list);
  return err;
}

OSStatus VLTDictionaryBase::_takeContents(CFDictionaryRef source, bool merge) {
  if (!merge) _eraseExtant();
  _addContentsOfDictionary(source);
  return 0;
}

OSStatus VLTDictionaryBase::LoadFromStream(CFReadStreamRef stream, bool merge) {
  CFPropertyListRef list = nullptr;
  CFStringRef problem = nullptr;
  if (stream != nullptr && CFReadStreamOpen(stream)) {
    CFPropertyListFormat format = 0;
    list = CFPropertyListCreateFromStream(kCFAllocatorDefault, stream, 0,
                                          kCFPropertyListMutableContainersAndLeaves, &format,
                                          &problem);
    if (CFReadStreamGetStatus(stream) == kCFStreamStatusOpen) CFReadStreamClose(stream);
  }
  ReleaseIfAny(problem);
  ReleaseIfAny(stream);
  return TakeList(list, merge);
}

OSStatus VLTDictionaryBase::load(FSSpec* file, bool merge) {
  return WithSpec(file, [&](FSRef* ref) { return load(ref, merge); });
}

OSStatus VLTDictionaryBase::load(FSRef* file, bool merge) {
  return WithRef(file, [&](CFURLRef url) { return load(url, merge); });
}

OSStatus VLTDictionaryBase::load(const char* path, bool merge) {
  return WithPath(path, [&](CFURLRef url) { return load(url, merge); });
}

OSStatus VLTDictionaryBase::load(CFURLRef file, bool merge) {
  return LoadFromStream(CFReadStreamCreateWithFile(kCFAllocatorDefault, file), merge);
}

OSStatus VLTDictionaryBase::load(const char* bytes, UInt32 length, bool merge) {
  return LoadFromStream(
      CFReadStreamCreateWithBytesNoCopy(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(bytes),
                                        static_cast<CFIndex>(length), kCFAllocatorNull),
      merge);
}

OSStatus VLTDictionaryBase::loadFromXML(CFDataRef data, bool merge) {
  if (data == nullptr) return paramErr;
  CFRetain(data);
  CFStringRef problem = nullptr;
  const CFPropertyListRef list = CFPropertyListCreateFromXMLData(
      kCFAllocatorDefault, data, kCFPropertyListMutableContainersAndLeaves, &problem);
  ReleaseIfAny(problem);
  CFRelease(data);
  return TakeList(list, merge);
}

OSStatus VLTDictionaryBase::loadFromXML(unsigned char* bytes, SInt32 length, bool merge) {
  if (bytes == nullptr || length == 0) return paramErr;
  const CFDataRef data =
      CFDataCreateWithBytesNoCopy(kCFAllocatorDefault, bytes, length, kCFAllocatorNull);
  if (data == nullptr) return memFullErr;
  const OSStatus err = loadFromXML(data, merge);
  CFRelease(data);
  return err;
}

template <class Write>
OSStatus VLTDictionaryBase::WithDictionary(Write write) {
  const CFDictionaryRef dictionary = _getDictForSave();
  if (dictionary == nullptr) return paramErr;
  const OSStatus err = write(dictionary);
  _releaseDictAfterSave(dictionary);
  return err;
}

// Meant: the next three write XML whatever the format is, because callers rely on it.

OSStatus VLTDictionaryBase::save(FSSpec* file, CFPropertyListFormat) {
  return WithSpec(file, [&](FSRef* ref) { return save(ref, kCFPropertyListXMLFormat_v1_0); });
}

OSStatus VLTDictionaryBase::save(FSRef* file, CFPropertyListFormat) {
  return WithRef(file, [&](CFURLRef url) { return save(url, kCFPropertyListXMLFormat_v1_0); });
}

OSStatus VLTDictionaryBase::save(const char* path, CFPropertyListFormat) {
  return WithPath(path, [&](CFURLRef url) { return save(url, kCFPropertyListXMLFormat_v1_0); });
}

OSStatus VLTDictionaryBase::save(CFURLRef file, CFPropertyListFormat format) {
  return WithDictionary(
      [&](CFDictionaryRef dictionary) { return WriteFile(file, dictionary, format); });
}

OSStatus VLTDictionaryBase::save(char** buffer, UInt32* length, CFPropertyListFormat format) {
  if (buffer == nullptr || length == nullptr) return paramErr;
  return WithDictionary(
      [&](CFDictionaryRef dictionary) { return WriteMemory(buffer, length, dictionary, format); });
}

OSStatus VLTDictionaryBase::saveAsXML(CFDataRef& out) {
  return WithDictionary([&](CFDictionaryRef dictionary) {
    out = CFPropertyListCreateXMLData(kCFAllocatorDefault, dictionary);
    return out != nullptr ? 0 : fnfErr;
  });
}
