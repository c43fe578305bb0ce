#pragma once

#include <string>

// A session and settings of a measurement's own, apart from the user's, for this program and those
// that it starts. The session directory is in memory (/dev/shm), as it is everywhere but in a
// folder for temporary files: on a busy disk, binding a socket alone can take 3 ms. Removed with
// the object.
class BenchSessionFolder {
 public:
  BenchSessionFolder();
  ~BenchSessionFolder();
  BenchSessionFolder(const BenchSessionFolder&) = delete;
  BenchSessionFolder& operator=(const BenchSessionFolder&) = delete;

  const std::string& Path() const { return path; }  // "" if it could not be made

  // Copies what the library logged to standard error. False when there was something.
  bool LogIsEmpty() const;

 private:
  std::string path;
  std::string memoryPath;
};
