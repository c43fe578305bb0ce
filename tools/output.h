#pragma once

#include <string_view>

// Standard output, where the tool's results go. All of them go through Print, so that output that
// could not be written (a full disk, a closed pipe) is not taken for success. One thread.

// Buffered. Does nothing after a failure.
void Print(std::string_view text);

// Writes what is buffered. Returns false if that or an earlier output failed.
bool FlushOutput();

// Writes what is buffered. Returns errno of the first failure since the start, once; 0 when there
// was none or it has been returned before.
int TakeOutputError();
