#pragma once

#include <functional>
#include <string>

// A test program that lists observed_syncs.cpp among its sources can observe its fsync calls, also
// if it is linked statically. One thread at a time.

// From now on `observe` is called before each fsync, with the path of the file or folder. It
// returns 0 to let the call through, or the errno with which the call fails without being made.
// Null ends this.
void ObserveSyncs(std::function<int(const std::string& path)> observe);
