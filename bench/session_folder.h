#pragma once

#include <string>

// A session and settings of a measurement's own, away from the user's, for this program and those
// it starts. Removed with the object.
class BenchSessionFolder {
 public:
  BenchSessionFolder();
  ~BenchSessionFolder();
  BenchSessionFolder(const BenchSessionFolder&) = delete;
  BenchSessionFolder& operator=(const BenchSessionFolder&) = delete;

  const std::string& Path() const { return path; }  // "" when it could not be made

  // Copies what the library logged to standard error. False when there was something.
  bool LogIsEmpty() const;

 private:
  std::string path;
};
