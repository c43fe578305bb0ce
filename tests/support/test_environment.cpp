#include "tests/support/test_environment.h"

#include <stdlib.h>

#include <utility>
#include <vector>

namespace {

std::vector<std::pair<const char*, const char*>>& Variables() {
  static std::vector<std::pair<const char*, const char*>> variables;
  return variables;
}

}  // namespace

TestVariable::TestVariable(const char* name, const char* value) {
  Variables().emplace_back(name, value);
}

void SetTestVariables() {
  for (const auto& [name, value] : Variables()) setenv(name, value, 1);
}

#ifdef VLT_LEAK_OPTIONS
// For the programs of this build that a test starts; in the test program itself the sanitizer calls
// the function below before main.
static const TestVariable sLeakOptions("LSAN_OPTIONS", VLT_LEAK_OPTIONS);

extern "C" const char* __lsan_default_options() { return VLT_LEAK_OPTIONS; }
#endif
