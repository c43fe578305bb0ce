#pragma once

#include <CoreServices/MacTypes.h>

// Notices to the user. The record belongs to the caller and stays allocated while it is installed;
// the text is copied at installation. Any thread.

enum : SInt16 { nmType = 8 };

struct NMRec;
using NMRecPtr = NMRec*;
using NMProcPtr = void (*)(NMRecPtr);
using NMUPP = NMProcPtr;
using QElemPtr = struct QElem*;

struct NMRec {
  QElemPtr qLink;     // private
  SInt16 qType;       // nmType
  SInt16 nmFlags;     // private
  SInt32 nmPrivate;   // private
  SInt16 nmReserved;  // private
  SInt16 nmMark;      // 1 marks the application; not shown
  Handle nmIcon;      // not shown
  Handle nmSound;     // not played
  StringPtr nmStr;    // Mac Roman with a length byte; null: no text
  NMUPP nmResp;       // null, or called when the notice has been shown; kNMRemoveWhenDone
  SInt32 nmRefCon;    // the caller's
};

// A value of nmResp: no function is called, and the record is removed automatically.
#define kNMRemoveWhenDone (reinterpret_cast<NMUPP>(static_cast<intptr_t>(-1)))

#pragma GCC visibility push(default)
extern "C" {

// Shows the record's text, once for each call, in place of the record's earlier notice. The
// response routine is called once for each notice when that is over (dismissed, replaced, or
// written to the log because it could not be shown), possibly before this returns, on the main run
// loop while that runs or on another thread; the record is still installed then. Does not wait for
// the desktop. Returns nmTypErr for null or another queue type.
OSErr NMInstall(NMRecPtr record);

// Withdraws the record's notices. No response of it begins after this, and one that is running on
// another thread has returned: hold no lock that the routine takes. Returns qErr if the record is
// not installed, and nmTypErr for null or another queue type.
OSErr NMRemove(NMRecPtr record);

NMUPP NewNMUPP(NMProcPtr routine);
void DisposeNMUPP(NMUPP routine);
void InvokeNMUPP(NMRecPtr record, NMUPP routine);

}  // extern "C"
#pragma GCC visibility pop
