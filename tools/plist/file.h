#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

#include "platform/host/plist/introspect.h"
#include "tools/command_line.h"
#include "tools/plist/leaf.h"

// Files of property lists for the tool; "-" is standard input and output.

inline constexpr CFPropertyListFormat kJsonFormat = 1000;  // beside the documented forms

// "XML", "binary", "text", "JSON".
const char* FormatName(CFPropertyListFormat format);

struct PlistFile {
  OwnedRef<CFTypeRef> list;  // mutable containers
  CFPropertyListFormat format = 0;
};

// What went wrong, for people and scripts.
struct PlistProblem {
  ExitStatus exit = kExitOk;
  std::string file;  // as people call the one that was read or written last; "": none was
  std::string text;  // one line without the file's name
  HostPropertyListError place;  // of bad data; its text is "" for everything else

  std::string Sentence() const { return file.empty() ? text : file + ": " + text; }
};

// Any of the three forms, and JSON when `orJson`. False with the problem.
bool ReadPlistFile(const std::string& name, bool orJson, PlistFile& file, PlistProblem& problem);

// The bytes of a list in a form that can be written.
bool PlistBytes(CFTypeRef list, CFPropertyListFormat format, std::string& bytes,
                PlistProblem& problem);

// A file is written beside the old one and takes its place when it is complete.
bool WritePlistFile(const std::string& name, const std::string& bytes, PlistProblem& problem);
