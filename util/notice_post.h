#pragma once

#include <Carbon/Carbon.h>

// Posting a notice to the user with one record that is used again and again, and a word whose bit
// 0 says that a notice is posted. Any thread; callers may share the record.

// Installs `record` with a length-prefixed text (copied) and `completion` as its response routine,
// unless the bit is set.
void PostNotice(UInt32* flags, NMRec* record, unsigned char* text, NMProcPtr completion);

// For the completion: the notice is gone.
void NoticeIsDone(UInt32* flags);
