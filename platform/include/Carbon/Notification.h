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

// As nmResp: nothing is called and the record is removed by itself.
#define kNMRemoveWhenDone (reinterpret_cast<NMUPP>(static_cast<intptr_t>(-1)))

extern "C" {

// Shows the record's text, once for each call, and calls its response routine, possibly before
// this returns and on any thread; the record is still installed then. A record that is installed
// already is shown again. nmTypErr for another queue type or null.
OSErr NMInstall(NMRecPtr record);

// qErr for a record that is not installed, nmTypErr for another queue type or null.
OSErr NMRemove(NMRecPtr record);

NMUPP NewNMUPP(NMProcPtr routine);
void DisposeNMUPP(NMUPP routine);
void InvokeNMUPP(NMRecPtr record, NMUPP routine);

}  // extern "C"
