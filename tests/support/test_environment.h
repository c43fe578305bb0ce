#pragma once

// A variable of the environment that all tests of a program need. Declared beside the tests, at
// namespace scope; main sets it before the first test, so that a program that is run by hand finds
// what it finds under ctest. Roles and other programs that a test starts inherit it, as the test
// has changed it by then.
struct TestVariable {
  TestVariable(const char* name, const char* value);
};

// Sets the declared variables. For main.
void SetTestVariables();
