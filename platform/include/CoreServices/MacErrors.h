#pragma once

#include <CoreServices/MacTypes.h>

// Result codes of the platform, by the values it documents. 0 is success everywhere.

// System, File, Memory, Notification and Process Manager.
enum : OSStatus {
  noErr = 0,
  qErr = -1,  // queue element not found
  dirFulErr = -33,
  dskFulErr = -34,
  nsvErr = -35,  // no such volume
  ioErr = -36,
  bdNamErr = -37,  // bad name
  fnOpnErr = -38,
  eofErr = -39,
  posErr = -40,
  mFulErr = -41,
  tmfoErr = -42,
  fnfErr = -43,
  wPrErr = -44,
  fLckdErr = -45,
  vLckdErr = -46,
  fBsyErr = -47,
  dupFNErr = -48,
  opWrErr = -49,
  paramErr = -50,
  rfNumErr = -51,
  permErr = -54,
  wrPermErr = -61,
  portInUse = -97,
  memFullErr = -108,
  nilHandleErr = -109,
  memWZErr = -111,
  memPurErr = -112,
  memLockedErr = -117,
  dirNFErr = -120,
  nmTypErr = -299,
  procNotFound = -600,
  memFragErr = -601,
  appModeErr = -602,
  protocolErr = -603,
  hardwareConfigErr = -604,
  appMemFullErr = -605,
  appIsDaemon = -606,
  bufferIsSmall = -607,
  noOutstandingHLE = -608,
  connectionInvalid = -609,
  noUserInteractionAllowed = -610,
  threadTooManyReqsErr = -617,
  threadNotFoundErr = -618,
  threadProtocolErr = -619,
  errFSBadFSRef = -1401,
  errFSRefsDifferent = -1420,
  pathTooLongErr = -2110,
  afpAccessDenied = -5000,
  afpItemNotFound = -5012,
  gestaltUnknownErr = -5550,
  gestaltUndefSelectorErr = -5551,
  gestaltDupSelectorErr = -5552,
  gestaltLocationErr = -5553,
};

// Apple Event Manager.
enum : OSStatus {
  errAECoercionFail = -1700,
  errAEDescNotFound = -1701,
  errAECorruptData = -1702,
  errAEWrongDataType = -1703,
  errAENotAEDesc = -1704,
  errAEBadListItem = -1705,
  errAENewerVersion = -1706,
  errAENotAppleEvent = -1707,
  errAEEventNotHandled = -1708,
  errAEReplyNotValid = -1709,
  errAEUnknownSendMode = -1710,
  errAEWaitCanceled = -1711,
  errAETimeout = -1712,
  errAENoUserInteraction = -1713,
  errAENotASpecialFunction = -1714,
  errAEParamMissed = -1715,
  errAEUnknownAddressType = -1716,
  errAEHandlerNotFound = -1717,
  errAEReplyNotArrived = -1718,
  errAEIllegalIndex = -1719,
  errAEDescIsNull = -1739,
  errAEBuildSyntaxError = -1740,
  errAEBufferTooSmall = -1741,
};

// Launch Services.
enum : OSStatus {
  kLSAppInTrashErr = -10660,
  kLSUnknownErr = -10810,
  kLSNotAnApplicationErr = -10811,
  kLSNotInitializedErr = -10812,
  kLSDataUnavailableErr = -10813,
  kLSApplicationNotFoundErr = -10814,
  kLSUnknownTypeErr = -10815,
  kLSDataTooOldErr = -10816,
  kLSDataErr = -10817,
  kLSLaunchInProgressErr = -10818,
  kLSNotRegisteredErr = -10819,
  kLSServerCommunicationErr = -10822,
  kLSCannotSetInfoErr = -10823,
  kLSIncompatibleSystemVersionErr = -10825,
  kLSNoLaunchPermissionErr = -10826,
  kLSNoExecutableErr = -10827,
  kLSMultipleSessionsNotSupportedErr = -10829,
};

// Multiprocessing Services.
enum : OSStatus {
  kMPDeletedErr = -29295,
  kMPTimeoutErr = -29296,
  kMPTaskAbortedErr = -29297,
  kMPInsufficientResourcesErr = -29298,
  kMPInvalidIDErr = -29299,
  kMPTaskCreatedErr = -29290,
  kMPTaskBlockedErr = -29291,
  kMPTaskStoppedErr = -29292,
  kMPBlueBlockingErr = -29293,
  kMPNanokernelNeedsMemoryErr = -29294,
};

// Security sessions.
enum : OSStatus {
  errSessionSuccess = 0,
  errSessionInvalidId = -60500,
  errSessionInvalidAttributes = -60501,
  errSessionAuthorizationDenied = -60502,
  errSessionInternal = -60008,
  errSessionInvalidFlags = -60011,
};

// I/O Kit: bits 31..26 system (0x38), 25..14 subsystem, 13..0 code.
enum : OSStatus {
  kIOReturnError = static_cast<OSStatus>(0xE00002BC),
  kIOReturnNoMemory = static_cast<OSStatus>(0xE00002BD),
  kIOReturnNoResources = static_cast<OSStatus>(0xE00002BE),
  kIOReturnBadArgument = static_cast<OSStatus>(0xE00002C2),
};
