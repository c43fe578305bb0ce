#pragma once

#include <CoreServices/AEDataModel.h>

// Constants of Apple Events: attributes, parameter keywords, the core event class, and the
// constants of sending. Any thread.

// Attributes, with the type in which they are read.
enum : AEKeyword {
  keyEventClassAttr = FourCC('e', 'v', 'c', 'l'),       // typeType
  keyEventIDAttr = FourCC('e', 'v', 'i', 'd'),          // typeType
  keyAddressAttr = FourCC('a', 'd', 'd', 'r'),          // target; sender on a received event
  keyOriginalAddressAttr = FourCC('f', 'r', 'o', 'm'),  // original sender
  keyReturnIDAttr = FourCC('r', 't', 'i', 'd'),         // typeSInt16
  keyTransactionIDAttr = FourCC('t', 'r', 'a', 'n'),    // typeSInt32
  keyTimeoutAttr = FourCC('t', 'i', 'm', 'o'),          // typeSInt32, ticks
  keyReplyRequestedAttr = FourCC('r', 'e', 'p', 'q'),   // typeBoolean; false until sent
  keyReplyPortAttr = FourCC('r', 'e', 'p', 'p'),        // typeMachPort
  typeReplyPortAttr = keyReplyPortAttr,                 // an older name
  keyInteractLevelAttr = FourCC('i', 'n', 't', 'e'),    // typeSInt32, set by sending
  keyEventSourceAttr = FourCC('e', 's', 'r', 'c'),      // typeSInt16, set by sending
  keyMissedKeywordAttr = FourCC('m', 'i', 's', 's'),
  keyOptionalKeywordAttr = FourCC('o', 'p', 't', 'k'),
  keyAcceptTimeoutAttr = FourCC('a', 'c', 't', 'm'),
};

// Values of keyEventSourceAttr.
using AEEventSource = SInt8;
enum : AEEventSource {
  kAEUnknownSource = 0,
  kAEDirectCall = 1,
  kAESameProcess = 2,
  kAELocalProcess = 3,
  kAERemoteProcess = 4,
};

// Parameters.
enum : AEKeyword {
  keyDirectObject = FourCC('-', '-', '-', '-'),
  keyErrorNumber = FourCC('e', 'r', 'r', 'n'),  // typeSInt32
  keyErrorString = FourCC('e', 'r', 'r', 's'),  // typeChar
  keyProcessSerialNumber = FourCC('p', 's', 'n', ' '),
};

enum : AEEventClass { kCoreEventClass = FourCC('a', 'e', 'v', 't') };

enum : AEEventID {
  kAEOpenApplication = FourCC('o', 'a', 'p', 'p'),
  kAEOpenDocuments = FourCC('o', 'd', 'o', 'c'),
  kAEPrintDocuments = FourCC('p', 'd', 'o', 'c'),
  kAEQuitApplication = FourCC('q', 'u', 'i', 't'),
  kAEAnswer = FourCC('a', 'n', 's', 'r'),  // every reply
};

enum : AEReturnID { kAutoGenerateReturnID = -1 };
enum : AETransactionID { kAnyTransactionID = 0 };

using AESendMode = SInt32;
enum : AESendMode {
  kAENoReply = 0x1,
  kAEQueueReply = 0x2,
  kAEWaitReply = 0x3,
  kAENeverInteract = 0x10,
  kAECanInteract = 0x20,
  kAEAlwaysInteract = 0x30,
  kAECanSwitchLayer = 0x40,
  kAEDontReconnect = 0x80,
  kAEWantReceipt = 0x200,
  kAEDontRecord = 0x1000,
  kAEDontExecute = 0x2000,
  kAEProcessNonReplyEvents = 0x8000,
};

using AESendPriority = SInt16;
enum : AESendPriority { kAENormalPriority = 0, kAEHighPriority = 1 };

// Time-outs, in ticks of 1/60 second.
enum : SInt32 {
  kAEDefaultTimeout = -1,  // one minute
  kNoTimeOut = -2,         // for ever
};
