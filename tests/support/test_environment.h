#pragma once

// A variable of the environment that all tests of a program need, declared at namespace scope. Main
// sets it before the first test, so that a program run by hand has the same variables as under
// ctest. Roles and other programs that a test starts inherit it.
struct TestVariable {
  TestVariable(const char* name, const char* value);
};

// Sets the declared variables. For main.
void SetTestVariables();
