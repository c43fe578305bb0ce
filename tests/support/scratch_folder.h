#pragma once

#include <string>

// A folder of a test's own, removed with all in it at the end. Everything is made by names below
// it, the folders on the way too; each function returns the absolute path. One thread.
class ScratchFolder {
 public:
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& Path() const { return path; }  // without links on the way
  std::string Path(const std::string& name) const { return path + "/" + name; }

  std::string Folder(const std::string& name) const;
  std::string File(const std::string& name, const std::string& text = "") const;
  std::string Link(const std::string& name, const std::string& target) const;
  // A copy of a program that can be run.
  std::string Program(const std::string& name, const std::string& original) const;

 private:
  std::string path;
};

// All bytes of a file; none when it cannot be read.
std::string ReadFile(const std::string& path);
// Its permissions, twelve bits; 0xFFFF when there is no such file.
unsigned ModeOf(const std::string& path);

// Waits until the times of a file tell its state from every later one: the kernel's clock for them
// moves in steps. Returns false if that takes too long.
bool WaitUntilTimesTell(const std::string& path);

// The number of entries of a folder, also of one that changes or goes meanwhile.
size_t EntriesOf(const std::string& folder);

// An application bundle. Empty fields are left out of its description.
struct TestBundle {
  std::string identifier = {};
  std::string signature = {};
  std::string packageType = {};
  std::string executable = {};
  std::string version = {};
};

// Makes the description of bundle `name` ("X.app") in `folder`; returns the bundle's path. Its
// program, if it is to have one, belongs into Contents/Linux.
std::string MakeTestBundle(const ScratchFolder& folder, const std::string& name,
                           const TestBundle& bundle);

// A variable of the environment while the object lives; null: not set.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value);
  ~ScopedVariable();
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const char* name;
  bool wasSet;
  std::string before;
};
