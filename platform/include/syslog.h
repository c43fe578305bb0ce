#pragma once

#include_next <syslog.h>

// The system log. Priorities may carry bits outside level and facility; they are left out before
// the C library sees them, which would log a complaint of its own about each.

extern "C" {

// One entry, cut at 2047 bytes. Any thread; errno is kept ("%m" prints it).
void HostSyslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // extern "C"

#define syslog(...) HostSyslog(__VA_ARGS__)
