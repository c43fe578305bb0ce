#pragma once

#include <CoreServices/MacTypes.h>

// Pointer and handle blocks. Any thread; one block belongs to one thread at a time. Sizes are
// bytes. Blocks are aligned to 16 bytes. A handle points to a master pointer, which changes when
// the block moves: read `*handle` again after every call that may resize.
//
// Every call leaves its result for MemError of the calling thread. A pointer or handle that is not
// a live block of this process (disposed of already, or never one) is refused with memWZErr.

// State bits of HGetState and HSetState. Locks do not nest.
enum : SInt8 {
  kHandleLockedMask = static_cast<SInt8>(0x80),
  kHandlePurgeableMask = 0x40,
  kHandleIsResourceMask = 0x20,
};

#pragma GCC visibility push(default)
extern "C" {

OSErr MemError(void);  // noErr before a thread's first call

// Returns null, with memFullErr as the result of MemError, for a negative size or without memory. A
// block of size 0 is valid.
Ptr NewPtr(Size size);
Ptr NewPtrClear(Size size);  // filled with 0
void DisposePtr(Ptr block);  // null does nothing (nilHandleErr)
Size GetPtrSize(Ptr block);  // 0 on failure

Handle NewHandle(Size size);
Handle NewHandleClear(Size size);
void DisposeHandle(Handle handle);
Size GetHandleSize(Handle handle);  // 0 on failure and for an emptied handle

// Keeps the contents up to the smaller size; on failure nothing changes. memFullErr also when the
// handle is locked and would have to move; nilHandleErr for null or an emptied handle.
void SetHandleSize(Handle handle, Size size);

void HLock(Handle handle);
void HUnlock(Handle handle);
void HPurge(Handle handle);
void HNoPurge(Handle handle);
SInt8 HGetState(Handle handle);  // 0 on failure
void HSetState(Handle handle, SInt8 state);

// Frees the block and leaves a null master pointer; memPurErr for a locked handle.
void EmptyHandle(Handle handle);
// A fresh block with undefined contents, emptied or not; memPurErr for a locked handle.
void ReallocateHandle(Handle handle, Size size);

// These return the result. On failure their outputs and blocks are unchanged.
OSErr HandToHand(Handle* handle);                                     // replaces it with a copy
OSErr PtrToHand(const void* source, Handle* handle, Size size);       // a new handle
OSErr PtrToXHand(const void* source, Handle destination, Size size);  // replaces the contents
OSErr HandAndHand(Handle source, Handle destination);                 // appends
OSErr PtrAndHand(const void* source, Handle destination, Size size);  // appends

// Source and destination may overlap. A size of 0 or less moves nothing.
void BlockMove(const void* source, void* destination, Size size);
void BlockMoveData(const void* source, void* destination, Size size);
void BlockZero(void* destination, Size size);

}  // extern "C"
#pragma GCC visibility pop
