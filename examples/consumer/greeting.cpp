#include "greeting.h"

#include "greeter.h"
#include "plist/preferences.h"

std::string Greeting(const std::string& name) {
  VLTPreferences settings(kGreeterPreferences, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
  char word[64] = "Hello";
  UInt32 length = 0;
  settings.getCString("greeting", word, sizeof word, length);  // unchanged if there is none
  return std::string(word) + ", " + name + "!";
}
