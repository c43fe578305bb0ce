#pragma once

#include <CoreServices/MacTypes.h>

#include <string>
#include <string_view>
#include <vector>

// Application bundles: folders NAME.app with Contents/Info.plist, and the program in
// Contents/Linux/. Any thread.

struct HostBundle {
  std::string path;        // of the bundle's folder, without a slash at its end
  std::string identifier;  // CFBundleIdentifier; "" when the file does not tell
  std::string version;     // CFBundleVersion, else CFBundleShortVersionString; "" likewise
  std::string executable;  // file name in Contents/Linux: CFBundleExecutable, else NAME
  OSType signature = FourCC('?', '?', '?', '?');    // CFBundleSignature
  OSType packageType = FourCC('A', 'P', 'P', 'L');  // CFBundlePackageType

  std::string Program() const { return path + "/Contents/Linux/" + executable; }
};

// Reads a bundle's description; what was read is kept for some hundred bundles and asked again only
// when the file has changed (inode, size or time). False, with `*bundle` unchanged, when `path` is
// no bundle: no NAME.app, or no Info.plist in it that is a property list of at most 1 MiB with a
// dictionary at its root. An executable's name with a "/" in it counts as empty.
//
// `*error` receives the errno value if the description is there but could not be read, as without
// file descriptors, and else 0.
bool HostReadBundle(std::string_view path, HostBundle* bundle, int* error = nullptr);

// The bundle that a program's path lies in by its name alone, "" for none:
// ".../NAME.app/Contents/Linux/PROGRAM" gives ".../NAME.app".
std::string_view HostBundleAround(std::string_view programPath);

// The bundle whose program this is, not merely one that the file lies in. What the kernel appends
// to the path of a program that was deleted or replaced is ignored.
bool HostBundleOfProgram(std::string_view programPath, HostBundle* bundle);

// Where applications are looked for, in this order: veltrane/Applications in the user's data folder
// and in each of the machine's. Absolute paths; the folders need not exist.
std::vector<std::string> HostApplicationFolders();

// The applications of those folders and of the folders in them, 4 levels deep: folders by the order
// above, within each by path. Links to bundles count when what they lead to has a bundle's name as
// well, links to folders are not followed. Stops after 10,000 entries of a folder tree.
std::vector<HostBundle> HostListApplications();
