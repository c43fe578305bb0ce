#pragma once

#include <Carbon/Carbon.h>

// Shows notices to the user with one notice record, which is used again and again, and a word whose
// bit 0 means that a notice is on screen. Any thread; callers may share the record.

// Installs `record` with a length-prefixed text, which is copied, and `completion` as its response
// routine, unless the bit is set.
void PostNotice(UInt32* flags, NMRec* record, unsigned char* text, NMProcPtr completion);

// To be called by the completion: clears the bit.
void NoticeIsDone(UInt32* flags);
