#pragma once

#include <string>

#include "tests/support/scratch_folder.h"

// A session of the test program's own: folders for its ports, settings and logs, for itself and the
// processes it starts. The destructor removes them. Made in main, before the first use of the
// session directory; a role inherits its test's.
class TestSessionDirectory {
 public:
  TestSessionDirectory();

  bool IsUsable() const { return !folder.Path().empty(); }

 private:
  const ScratchFolder folder;
};

// The text of this test's log.
std::string TestLogText();
void ClearTestLog();
