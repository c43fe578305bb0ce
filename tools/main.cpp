#include <cstdio>
#include <exception>
#include <new>

#include "tools/tool.h"
#include "tools/verbs/verb.h"

// vltctl, the command-line face of the library.

int main(int argc, char** argv) {
  try {
    const int status = RunTool({argv + (argc > 0 ? 1 : 0), argv + argc});
    // Data that could not be written (a full disk, a closed pipe) must not look like success.
    if (std::fflush(stdout) != 0 && status == kExitOk) return kExitGeneral;
    return status;
  } catch (const std::bad_alloc&) {
    Say("there is no memory left");
    return kExitGeneral;
  } catch (const std::exception& problem) {
    Say(problem.what());
    return kExitGeneral;
  }
}
