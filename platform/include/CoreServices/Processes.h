#pragma once

#include <CoreServices/MacTypes.h>
#include <sys/types.h>

// Process serial numbers. A number is never given to another process, also when its pid is. Only
// live processes of our own user are known. Any thread.

// Low words of the special numbers; their high word is 0.
enum : UInt32 { kNoProcess = 0, kSystemProcess = 1, kCurrentProcess = 2 };

extern "C" {

// procNotFound when the system does not tell about processes; paramErr for null.
OSErr GetCurrentProcess(ProcessSerialNumber* psn);

// { 0, kCurrentProcess } is the caller itself. paramErr for null; the result is by number, whether
// or not such processes exist.
OSErr SameProcess(const ProcessSerialNumber* a, const ProcessSerialNumber* b, Boolean* result);

// paramErr for null, procNotFound for a process that has ended or is not ours to see; outputs are
// stored on success only.
OSStatus GetProcessPID(const ProcessSerialNumber* psn, pid_t* pid);
OSStatus GetProcessForPID(pid_t pid, ProcessSerialNumber* psn);

}  // extern "C"
