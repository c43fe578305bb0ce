#pragma once

#include <string>

// The greeting for `name`, made of the preference "greeting" ("Hello" without one).
std::string Greeting(const std::string& name);
