#include "greeting.h"

#include <cstdio>
#include <cstdlib>

#include "greeter.h"
#include "plist/preferences.h"

// A test of the part of the server that needs no port. The preferences are those of a folder that
// the environment names.

namespace {

void Expect(const char* expected, const std::string& actual) {
  if (actual == expected) return;
  std::fprintf(stderr, "expected \"%s\", got \"%s\"\n", expected, actual.c_str());
  std::exit(1);
}

}  // namespace

int main() {
  VLTPreferences settings(kGreeterPreferences, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
  Expect("Hello, Ann!", Greeting("Ann"));
  settings.setString("greeting", CFSTR("Good morning"));
  if (settings.commit() != 0) return 1;
  Expect("Good morning, Ann!", Greeting("Ann"));
}
