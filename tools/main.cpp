#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "tools/output.h"
#include "tools/tool.h"
#include "tools/verbs/verb.h"

// vltctl, the command-line face of the library.

int main(int argc, char** argv) {
  try {
    const int status = RunTool({argv + (argc > 0 ? 1 : 0), argv + argc});
    const int error = TakeOutputError();
    if (error == 0) return status;
    std::fprintf(stderr, "vltctl: standard output: %s\n", std::strerror(error));
    return status != kExitOk ? status : int{kExitGeneral};
  } catch (const std::bad_alloc&) {
    // Nothing here may allocate.
    std::fputs("vltctl: out of memory\n", stderr);
    return kExitGeneral;
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "vltctl: %s\n", problem.what());
    return kExitGeneral;
  }
}
