#pragma once

#include <CoreServices/Files.h>
#include <CoreServices/MacTypes.h>
#include <sys/types.h>

// Process serial numbers, and the list of processes. A number is never given to another process,
// even if the pid is. Only live processes with the caller's effective user id are known. Any
// thread.

// Low words of the special numbers; their high word is 0.
enum : UInt32 { kNoProcess = 0, kSystemProcess = 1, kCurrentProcess = 2 };

// Information about a process. With pointers of 32 bits it has the documented size of 60 bytes.
struct ProcessInfoRec {
  UInt32 processInfoLength;  // set before the call: sizeof(ProcessInfoRec)
  StringPtr processName;  // set before the call: room for 32 bytes, or null; cut to 31 characters
  ProcessSerialNumber processNumber;
  OSType processType;       // of its application bundle; '????' for a program that has none
  OSType processSignature;  // likewise
  UInt32 processMode;       // 0
  Ptr processLocation;      // null
  UInt32 processSize;       // 0
  UInt32 processFreeMem;    // 0
  ProcessSerialNumber processLauncher;  // always { 0, kNoProcess }
  UInt32 processLaunchDate;             // ticks (1/60 s) from the machine's start
  UInt32 processActiveTime;             // ticks of processor time
  FSSpecPtr processAppSpec;  // set before the call: filled with its bundle or program, or null
};
static_assert(sizeof(void*) != 4 || sizeof(ProcessInfoRec) == 60);
using ProcessInfoRecPtr = ProcessInfoRec*;

#pragma GCC visibility push(default)
extern "C" {

// Returns procNotFound if the system gives no information about processes, and paramErr for null.
OSErr GetCurrentProcess(ProcessSerialNumber* psn);

// Replaces the number by the next one of the list, which is in ascending order of pid. After { 0,
// kNoProcess } comes the first one. At the end of the list stores { 0, kNoProcess } and returns
// procNotFound. A process that starts during a pass may be missing in it; one that has ended is
// left out.
OSErr GetNextProcess(ProcessSerialNumber* psn);

// Fills `info`. Returns paramErr for null and for a wrong length, procNotFound for a process that
// has ended or belongs to another user, and memFullErr without memory. If the program has no file
// spec, the one that is stored has an empty name and the parID 0.
OSErr GetProcessInformation(const ProcessSerialNumber* psn, ProcessInfoRec* info);

// { 0, kCurrentProcess } stands for the caller. Compares the numbers only, whether or not such
// processes exist. Returns paramErr for null.
OSErr SameProcess(const ProcessSerialNumber* a, const ProcessSerialNumber* b, Boolean* result);

// These return paramErr for null, and procNotFound for a process that has ended or belongs to
// another user. They store outputs on success only.
OSStatus GetProcessPID(const ProcessSerialNumber* psn, pid_t* pid);
OSStatus GetProcessForPID(pid_t pid, ProcessSerialNumber* psn);

}  // extern "C"
#pragma GCC visibility pop
