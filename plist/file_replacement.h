#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

// A file that is about to be replaced as a whole: the new one is written beside it and takes its
// place only when it is complete and on the disk, so that a failure, a loss of power, and whoever
// reads meanwhile, find the old one. The old file's mode, owner and symbolic links stay. What is no
// plain file (a terminal, a pipe), what a link in /dev leads to (/dev/stdout), or what stands in a
// folder that does not let us make another, is written in place. One thread.
class VLTFileReplacement {
 public:
  explicit VLTFileReplacement(CFURLRef file);
  VLTFileReplacement(const VLTFileReplacement&) = delete;
  VLTFileReplacement& operator=(const VLTFileReplacement&) = delete;
  ~VLTFileReplacement();  // removes the new file unless it was put in place

  // Where to write; null when nothing can be written. The caller releases it.
  CFURLRef CopyTarget() const;

  // errno's reason why nothing can be written; 0 when it can.
  int Error() const { return error; }

  // Puts what was written, and closed, into its place, and waits for the disk. False with errno
  // when the system refuses: the file is the old one, or, when only its folder could not be brought
  // to the disk, the new one.
  bool PutInPlace();

 private:
  void MakeFolder();
  std::string Target() const;

  std::string path;     // of the file itself, behind its links; "" for no usable address
  bool isPlain = true;  // it is a plain file, or not there
  std::string folder;   // ours, beside the file, with the new one in it; "": written in place
  int error = 0;
};
