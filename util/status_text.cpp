#include "util/status_text.h"

#include <servers/bootstrap.h>

namespace {

struct ErrorName {
  OSStatus status;
  const char* name;
  const char* text;
};

#define NAMED(status, text) \
  { status, #status, text }

// The errors of the platform interfaces and of the package's servers.
constexpr ErrorName kNames[] = {
    NAMED(noErr, "success"),
    NAMED(fnfErr, "no such file or folder"),
    NAMED(paramErr, "invalid argument"),
    NAMED(permErr, "not permitted"),
    NAMED(portInUse, "another owner has this port name"),
    NAMED(memFullErr, "out of memory, or the event is too large"),
    NAMED(nilHandleErr, "a null handle"),
    NAMED(procNotFound, "not running"),
    NAMED(connectionInvalid, "the other process ended before it replied"),
    NAMED(errAECoercionFail, "a value has the wrong type"),
    NAMED(errAEDescNotFound, "no such value"),
    NAMED(errAECorruptData, "the data is damaged"),
    NAMED(errAEWrongDataType, "a value has the wrong type"),
    NAMED(errAENotAEDesc, "not a valid descriptor"),
    NAMED(errAEBadListItem, "a list item is damaged or missing"),
    NAMED(errAENewerVersion, "the data is of a newer version"),
    NAMED(errAENotAppleEvent, "not an event"),
    NAMED(errAEEventNotHandled, "the server does not handle this event"),
    NAMED(errAEReplyNotValid, "the reply cannot be read"),
    NAMED(errAEUnknownSendMode, "unknown send mode"),
    NAMED(errAEWaitCanceled, "the wait for the reply was cancelled"),
    NAMED(errAETimeout, "no reply in time"),
    NAMED(errAENoUserInteraction, "the user may not be asked now"),
    NAMED(errAEParamMissed, "a required parameter is missing"),
    NAMED(errAEUnknownAddressType, "unknown type of address"),
    NAMED(errAEHandlerNotFound, "no handler is installed for this"),
    NAMED(errAEReplyNotArrived, "the reply has not arrived yet"),
    NAMED(errAEIllegalIndex, "no list item of this index"),
    NAMED(dirNFErr, "no such folder"),
    NAMED(afpAccessDenied, "no permission"),
    NAMED(kLSAppInTrashErr, "the application is in the trash"),
    NAMED(kLSUnknownErr, "the application cannot be opened"),
    NAMED(kLSNotAnApplicationErr, "not an application"),
    NAMED(kLSApplicationNotFoundErr, "no such application"),
    NAMED(kLSLaunchInProgressErr, "it is being opened"),
    NAMED(kLSServerCommunicationErr, "the program could not be started"),
    NAMED(kLSNoExecutableErr, "the bundle has no program that can be run"),
    NAMED(KERN_FAILURE, "the system cannot do this now"),
    NAMED(KERN_RESOURCE_SHORTAGE, "out of system resources"),
    NAMED(KERN_INVALID_ARGUMENT, "invalid argument"),
    NAMED(KERN_INVALID_NAME, "not a port of this process"),
    NAMED(BOOTSTRAP_NOT_PRIVILEGED, "not permitted"),
    NAMED(BOOTSTRAP_NAME_IN_USE, "another process owns this port name"),
    NAMED(BOOTSTRAP_UNKNOWN_SERVICE, "no process owns this port name"),
    NAMED(BOOTSTRAP_SERVICE_ACTIVE, "the port name is in use"),
    NAMED(BOOTSTRAP_BAD_COUNT, "too many values"),
    NAMED(BOOTSTRAP_NO_MEMORY, "out of memory"),
    NAMED(eofErr, "the file ends too early"),
    NAMED(dskFulErr, "the disk is full"),
    NAMED(ioErr, "the disk or device reports an error"),
    NAMED(bdNamErr, "not a valid file name"),
    NAMED(fBsyErr, "the file is in use"),
    NAMED(wPrErr, "the disk is read-only"),
    NAMED(dupFNErr, "the file exists already"),
    NAMED(kIOReturnNoResources, "out of file descriptors or memory"),
};

#undef NAMED

const ErrorName* Find(OSStatus status) {
  for (const ErrorName& row : kNames) {
    if (row.status == status) return &row;
  }
  return nullptr;
}

}  // namespace

const char* VLTStatusName(OSStatus status) {
  const ErrorName* row = Find(status);
  return row != nullptr ? row->name : "";
}

const char* VLTStatusText(OSStatus status) {
  const ErrorName* row = Find(status);
  return row != nullptr ? row->text : "unknown status";
}
