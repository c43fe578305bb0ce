#pragma once

#include <CoreServices/MacTypes.h>

#include <string>
#include <string_view>
#include <vector>

// This room finds, opens and lists applications.
//
// Application bundles are folders NAME.app with a description, Contents/Info.plist, and a program
// in Contents/Linux/. Any thread.

struct HostBundle {
  std::string path;        // of the bundle's folder, without a slash at its end
  std::string identifier;  // CFBundleIdentifier, or ""
  std::string version;     // CFBundleVersion, else CFBundleShortVersionString, else ""
  std::string executable;  // file name in Contents/Linux: CFBundleExecutable, else NAME
  OSType signature = FourCC('?', '?', '?', '?');    // CFBundleSignature
  OSType packageType = FourCC('A', 'P', 'P', 'L');  // CFBundlePackageType

  std::string Program() const { return path + "/Contents/Linux/" + executable; }
};

// Reads a bundle's description. A cache keeps some hundred bundles; a description is read again
// only if the file has changed (inode, size or time). Returns false and leaves `*bundle` unchanged
// if `path` is not a bundle: it is not called NAME.app, or its Info.plist is not a property list of
// at most 1 MiB with a dictionary at its root. A name of the executable that contains a "/" counts
// as empty.
//
// `*error` receives the errno value if the description is there but could not be read, as without
// file descriptors, and else 0.
bool HostReadBundle(std::string_view path, HostBundle* bundle, int* error = nullptr);

// Returns the part of a program's path that would be its bundle, or "":
// ".../NAME.app/Contents/Linux/PROGRAM" gives ".../NAME.app". Does not look at the disk.
std::string_view HostBundleAround(std::string_view programPath);

// Finds the bundle whose program this is; another file in the bundle does not count. Ignores what
// the kernel appends to the path of a program that was deleted or replaced.
bool HostBundleOfProgram(std::string_view programPath, HostBundle* bundle);

// Returns the folders in which applications are searched, in this order: veltrane/Applications in
// the user's data folder, in each of the machine's, and in share of the installations that this
// process belongs to. The paths are absolute; the folders need not exist.
std::vector<std::string> HostApplicationFolders();

// Returns the applications of those folders and of the folders inside, 4 levels deep: in the order
// of the folders, within each by path. A link to a bundle counts if its target has a bundle's name,
// too. Links to other folders are not followed. Each of the folders is searched up to 10,000
// entries.
std::vector<HostBundle> HostListApplications();

// Returns the paths of all folders and links in those places that have a bundle's name, in the same
// order, whether they are applications or not.
std::vector<std::string> HostListBundlePaths();

// Returns in one line why nothing can be opened at the path of a bundle: its description is
// missing, unreadable or damaged, or has no identifier and no signature, or its program cannot be
// run. Returns "" if nothing is wrong.
std::string HostBundleProblem(const std::string& path);
