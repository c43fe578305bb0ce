#pragma once

#include <string>

#include "tests/support/scratch_folder.h"

// A session of the test program's own: folders that hold its ports, settings and logs instead of
// the user's, for itself and the processes it starts, removed with the object. Made in main,
// before anything asks for the session directory; a role inherits its test's.
class TestSessionDirectory {
 public:
  TestSessionDirectory();

  bool IsUsable() const { return !folder.Path().empty(); }

 private:
  const ScratchFolder folder;
};

// Where this test's log lines and notices go.
std::string TestLogText();
void ClearTestLog();
