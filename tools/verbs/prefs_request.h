#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/plist/file.h"
#include "tools/plist/path.h"
#include "util/owned_ref.h"

// What the actions of `vltctl prefs` share: the parsed arguments, looking at the files, and
// messages. One thread.

using OwnedString = OwnedRef<CFStringRef>;
using OwnedObject = OwnedRef<CFTypeRef>;

// The parsed arguments.
struct PrefsRequest {
  const CommandLine* line = nullptr;
  std::string domain;
  std::vector<std::string> words;  // after the domain
  std::string key;                 // with hasKey; with --path its first step
  PlistPath path;                  // of --path; else empty
  bool hasKey = false;
  bool isJson = false;
  OwnedString application;
  CFStringRef user = kCFPreferencesCurrentUser;
  CFStringRef host = kCFPreferencesAnyHost;

  bool Has(const char* option) const { return line->Has(option); }
  std::string Option(const char* name) const;
  bool HasPath() const { return !path.empty(); }
  bool HasScope() const { return Has("--any-user") || Has("--current-host"); }
  // The file argument of import and export.
  std::string File() const { return words.empty() ? "-" : words[0]; }

  CFTypeRef Copy(CFStringRef name) const {
    return CFPreferencesCopyValue(name, application, user, host);
  }
  CFDictionaryRef CopyAll() const {
    return CFPreferencesCopyMultiple(nullptr, application, user, host);
  }
};

// Prints "prefs: TEXT" to standard error and returns the status.
int PrefsFail(ExitStatus exit, const std::string& text);

// Reports the result of a change: a message if there is a problem, and JSON.
int TellPrefs(const PrefsRequest& request, const char* outcome, ExitStatus exit,
              const std::string& problem = "");

// The exit status when the preferences cannot be used.
ExitStatus RefusalExit(const PrefsRequest& request);

// Returns whether the file may be read; prints the reason if not.
bool IsReadable(const PrefsRequest& request);

// Whether the key was not found because the file could not be read, though it could shortly before.
bool IsUnread(const PrefsRequest& request, CFStringRef key);

// Report that the file cannot be read, that there is no such domain, key or path.
int Unreadable(const PrefsRequest& request);
int NoSuchDomain(const PrefsRequest& request);
int NoSuchKey(const PrefsRequest& request);
int NoSuchPath(const PrefsRequest& request, const std::string& why);

// Whether any of the files that the options select exists.
bool HasFiles(const PrefsRequest& request);

// Says that the key, which is not there, would be a path into another value.
void SayIfKeyIsAPath(const PrefsRequest& request, const char* action);

// The actions. Each returns an exit status.
int ListPrefs(const PrefsRequest& request);
int ReadPrefs(const PrefsRequest& request);
int WherePrefs(const PrefsRequest& request);
int ExportPrefs(const PrefsRequest& request);
int WatchPrefs(const PrefsRequest& request);
int WritePrefs(const PrefsRequest& request);
int DeletePrefs(const PrefsRequest& request);
int ImportPrefs(const PrefsRequest& request);
int UndoPrefs(const PrefsRequest& request);
