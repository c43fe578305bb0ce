#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

// VLTFileReplacement replaces a file as a whole. The new file is written beside the old one and
// takes its place only when it is complete and on the disk: after a failure or a loss of power, and
// for programs that read meanwhile, the old file is there. The old file's mode, owner and symbolic
// links stay.
//
// The new file is written in a folder `.vlt-XXXXXX` beside the old one. A process that is killed
// leaves that folder; the next replacement in the same place removes it.
//
// A file is written in place if it is not a regular file (a terminal, a pipe), if a link in /dev
// leads to it (/dev/stdout), or if its folder does not permit another file. One thread.
class VLTFileReplacement {
 public:
  explicit VLTFileReplacement(CFURLRef file);
  VLTFileReplacement(const VLTFileReplacement&) = delete;
  VLTFileReplacement& operator=(const VLTFileReplacement&) = delete;
  ~VLTFileReplacement();  // removes the new file unless it was put in place

  // Returns the file to write to, or null if nothing can be written. The caller releases it.
  CFURLRef CopyTarget() const;

  // Returns errno's reason why nothing can be written (ENOMEM without memory), or 0 if something
  // can. Nothing after the constructor needs memory but CopyTarget.
  int Error() const { return error; }

  // Puts the new file, which has been written and closed, in the old one's place and waits for the
  // disk. Returns false with errno on failure: the old file is there then, or, if only its folder
  // could not be synced, the new one.
  bool PutInPlace();

 private:
  void Prepare(CFURLRef file);
  void MakeFolder();

  std::string path;     // of the file itself, after its links; "" if there is no usable path
  bool isPlain = true;  // it is a regular file, or does not exist
  std::string parent;   // the folder of `path`
  std::string target;   // where to write: the new file, or `path` itself
  std::string folder;   // the temporary folder; "" if the file is written in place
  int openFolder = -1;  // `folder`, locked for as long as this object exists
  int error = 0;
};
