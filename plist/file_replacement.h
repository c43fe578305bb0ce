#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

// A file that is about to be replaced as a whole: the new one is written beside it and takes its
// place only when it is complete, so that a failure, and whoever reads meanwhile, finds the old
// one. The old file's mode, owner and symbolic links stay. What is no plain file (a terminal, a
// pipe), or stands in a folder that does not let us make another, is written in place. One thread.
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

  // Puts what was written into its place. False, with the old file as it was, when the system
  // refuses.
  bool PutInPlace();

 private:
  void MakeFolder();

  std::string path;    // of the file itself, behind its links; "" for no usable address
  std::string folder;  // ours, beside the file, with the new one in it; "": written in place
  int error = 0;
};
