#include "tools/values/error_names.h"

#include <servers/bootstrap.h>

namespace {

struct ErrorName {
  OSStatus status;
  const char* name;
  const char* text;  // null: nothing that helps without knowing the server
};

#define NAMED(status, text) \
  { status, #status, text }

// The errors of the functions that the tool calls and of the package's servers.
constexpr ErrorName kNames[] = {
    NAMED(noErr, nullptr),
    NAMED(fnfErr, "no such file or folder"),
    NAMED(paramErr, "invalid argument"),
    NAMED(permErr, "not permitted"),
    NAMED(portInUse, "another owner has this port name"),
    NAMED(memFullErr, "out of memory, or the event is too large"),
    NAMED(nilHandleErr, nullptr),
    NAMED(procNotFound, "not running"),
    NAMED(connectionInvalid, "the other process ended before it replied"),
    NAMED(errAECoercionFail, "a value has the wrong type"),
    NAMED(errAEDescNotFound, "no such value"),
    NAMED(errAECorruptData, "the data is damaged"),
    NAMED(errAEWrongDataType, nullptr),
    NAMED(errAENotAEDesc, nullptr),
    NAMED(errAEBadListItem, nullptr),
    NAMED(errAENewerVersion, "the data is of a newer version"),
    NAMED(errAENotAppleEvent, nullptr),
    NAMED(errAEEventNotHandled, "the server does not handle this event"),
    NAMED(errAEReplyNotValid, nullptr),
    NAMED(errAEUnknownSendMode, nullptr),
    NAMED(errAEWaitCanceled, nullptr),
    NAMED(errAETimeout, "no reply in time"),
    NAMED(errAENoUserInteraction, nullptr),
    NAMED(errAEParamMissed, nullptr),
    NAMED(errAEUnknownAddressType, nullptr),
    NAMED(errAEHandlerNotFound, nullptr),
    NAMED(errAEReplyNotArrived, nullptr),
    NAMED(errAEIllegalIndex, nullptr),
    NAMED(dirNFErr, "no such folder"),
    NAMED(afpAccessDenied, "no permission"),
    NAMED(kLSAppInTrashErr, nullptr),
    NAMED(kLSUnknownErr, nullptr),
    NAMED(kLSNotAnApplicationErr, "not an application"),
    NAMED(kLSApplicationNotFoundErr, "no such application"),
    NAMED(kLSLaunchInProgressErr, "it is being opened"),
    NAMED(kLSServerCommunicationErr, "the program could not be started"),
    NAMED(kLSNoExecutableErr, "the bundle has no program that can be run"),
    NAMED(KERN_FAILURE, nullptr),
    NAMED(KERN_RESOURCE_SHORTAGE, nullptr),
    NAMED(KERN_INVALID_ARGUMENT, nullptr),
    NAMED(KERN_INVALID_NAME, nullptr),
    NAMED(BOOTSTRAP_NOT_PRIVILEGED, "not permitted"),
    NAMED(BOOTSTRAP_NAME_IN_USE, "another process owns this port name"),
    NAMED(BOOTSTRAP_UNKNOWN_SERVICE, "no process owns this port name"),
    NAMED(BOOTSTRAP_SERVICE_ACTIVE, nullptr),
    NAMED(BOOTSTRAP_BAD_COUNT, nullptr),
    NAMED(BOOTSTRAP_NO_MEMORY, "out of memory"),
    NAMED(kIOReturnNoResources, "out of file descriptors or memory"),
};

#undef NAMED

const ErrorName* Find(OSStatus status) {
  for (const ErrorName& row : kNames) {
    if (row.status == status) return &row;
  }
  return nullptr;
}

const char* NameOf(OSStatus status) {
  const ErrorName* row = Find(status);
  return row != nullptr ? row->name : nullptr;
}

}  // namespace

std::string ErrorNumber(OSStatus status) {
  const char* name = NameOf(status);
  return "(" + std::to_string(status) + (name != nullptr ? std::string(", ") + name : "") + ")";
}

std::string ErrorSentence(OSStatus status) {
  const ErrorName* row = Find(status);
  const bool hasText = row != nullptr && row->text != nullptr;
  return std::string(hasText ? row->text : "the request failed") + " " + ErrorNumber(status);
}

JsonValue ErrorModel(OSStatus status) {
  const char* name = NameOf(status);
  JsonValue model = JsonValue::Object{{"number", JsonValue::Integer(status)}};
  model.Add("name", name != nullptr ? JsonValue(name) : JsonValue());
  return model;
}

ExitStatus ExitForStatus(OSStatus status) {
  switch (status) {
    case noErr:
      return kExitOk;
    case BOOTSTRAP_UNKNOWN_SERVICE:
    case procNotFound:
      return kExitNotFound;
    case errAETimeout:
      return kExitTimeout;
    case BOOTSTRAP_NOT_PRIVILEGED:
      return kExitRefused;
    case connectionInvalid:
      return kExitPeerDied;
    case errAECorruptData:
    case errAENewerVersion:
    case memFullErr:  // the result of sending an event that is too large
      return kExitBadData;
    default:
      return kExitGeneral;
  }
}
