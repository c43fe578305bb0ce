#pragma once

#include <string>

// A temporary folder that the destructor removes. Its functions make items by their relative names,
// and the folders on the way, too, and return the absolute path. One thread.
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
  // Makes an executable copy of a program.
  std::string Program(const std::string& name, const std::string& original) const;

 private:
  std::string path;
};

// Returns all bytes of a file; "" if it cannot be read.
std::string ReadFile(const std::string& path);
// Returns its permissions, twelve bits; 0xFFFF if there is no such file.
unsigned ModeOf(const std::string& path);

// Waits until a change of the file is sure to change its times, since the kernel's clock for them
// moves in steps. Returns false if that takes too long.
bool WaitUntilTimesTell(const std::string& path);

// Returns the number of entries of a folder, also if it changes or disappears meanwhile.
size_t EntriesOf(const std::string& folder);

// The description of an application bundle, without its empty fields.
struct TestBundle {
  std::string identifier = {};
  std::string signature = {};
  std::string packageType = {};
  std::string executable = {};
  std::string version = {};
};

// Makes the bundle `name` ("X.app") in `folder`, with a description but without a program, and
// returns its path.
std::string MakeTestBundle(const ScratchFolder& folder, const std::string& name,
                           const TestBundle& bundle);

// Sets a variable of the environment while the object lives; null unsets it.
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
