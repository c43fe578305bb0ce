#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

#include "platform/host/plist/introspect.h"
#include "tools/command_line.h"
#include "tools/plist/leaf.h"

// Reads and writes files of property lists; "-" is standard input or output. One thread.

inline constexpr CFPropertyListFormat kJsonFormat = 1000;  // in addition to the platform's formats

// "XML", "binary", "text", "JSON".
const char* FormatName(CFPropertyListFormat format);
// Reads "xml", "binary" or "json". Returns false, changing nothing, if it is another name.
bool FormatNamed(const std::string& name, CFPropertyListFormat& format);
std::string UnknownFormat(const std::string& name);  // the message about that

// The reason for a failed system call: "No such file or directory (2, ENOENT)".
std::string ErrnoText(int error);

struct PlistFile {
  OwnedRef<CFTypeRef> list;  // mutable containers
  CFPropertyListFormat format = 0;
};

// A failure, for people and scripts.
struct PlistProblem {
  ExitStatus exit = kExitOk;
  std::string file;             // the file that was read or written last, as shown to people; or ""
  std::string text;             // one line, without the file's name
  int error = 0;                // errno, if the system refused something
  HostPropertyListError place;  // of invalid data; its text is "" otherwise

  std::string Sentence() const { return file.empty() ? text : file + ": " + text; }
};

// Reads a file of any format, of JSON only with `orJson`. Returns false with the problem.
bool ReadPlistFile(const std::string& name, bool orJson, PlistFile& file, PlistProblem& problem);

// Makes the bytes of a list in one of the formats that can be written. Returns false with the
// problem.
bool PlistBytes(CFTypeRef list, CFPropertyListFormat format, std::string& bytes,
                PlistProblem& problem);

// Writes the bytes to a new file that replaces the old one once it is complete. Returns false with
// the problem.
bool WritePlistFile(const std::string& name, const std::string& bytes, PlistProblem& problem);
