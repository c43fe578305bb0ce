#pragma once

#include_next <syslog.h>

// The system log. Priorities may carry bits outside level and facility; they are left out. (The C
// library's syslog would log a complaint of its own about each, and waits for a stuck log daemon.)

extern "C" {

// Writes one entry, cut at 2047 bytes; control bytes become spaces. Never waits: an entry that the
// log does not take at once is lost, and a later entry reports how many were lost. Any thread;
// errno is kept ("%m" prints it).
void HostSyslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // extern "C"

#define syslog(...) HostSyslog(__VA_ARGS__)
