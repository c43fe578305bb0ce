#include "tools/values/error_names.h"

#include <servers/bootstrap.h>

namespace {

struct ErrorName {
  OSStatus status;
  const char* name;
};

#define NAMED(status) \
  { status, #status }

// What the calls behind the tool, and the services of the package, answer.
constexpr ErrorName kNames[] = {
    NAMED(noErr),
    NAMED(fnfErr),
    NAMED(paramErr),
    NAMED(permErr),
    NAMED(portInUse),
    NAMED(memFullErr),
    NAMED(nilHandleErr),
    NAMED(procNotFound),
    NAMED(connectionInvalid),
    NAMED(errAECoercionFail),
    NAMED(errAEDescNotFound),
    NAMED(errAECorruptData),
    NAMED(errAEWrongDataType),
    NAMED(errAENotAEDesc),
    NAMED(errAEBadListItem),
    NAMED(errAENewerVersion),
    NAMED(errAENotAppleEvent),
    NAMED(errAEEventNotHandled),
    NAMED(errAEReplyNotValid),
    NAMED(errAEUnknownSendMode),
    NAMED(errAEWaitCanceled),
    NAMED(errAETimeout),
    NAMED(errAENoUserInteraction),
    NAMED(errAEParamMissed),
    NAMED(errAEUnknownAddressType),
    NAMED(errAEHandlerNotFound),
    NAMED(errAEReplyNotArrived),
    NAMED(errAEIllegalIndex),
    NAMED(dirNFErr),
    NAMED(afpAccessDenied),
    NAMED(kLSAppInTrashErr),
    NAMED(kLSUnknownErr),
    NAMED(kLSNotAnApplicationErr),
    NAMED(kLSApplicationNotFoundErr),
    NAMED(kLSLaunchInProgressErr),
    NAMED(kLSServerCommunicationErr),
    NAMED(kLSNoExecutableErr),
    NAMED(KERN_FAILURE),
    NAMED(KERN_RESOURCE_SHORTAGE),
    NAMED(KERN_INVALID_ARGUMENT),
    NAMED(KERN_INVALID_NAME),
    NAMED(BOOTSTRAP_NOT_PRIVILEGED),
    NAMED(BOOTSTRAP_NAME_IN_USE),
    NAMED(BOOTSTRAP_UNKNOWN_SERVICE),
    NAMED(BOOTSTRAP_SERVICE_ACTIVE),
    NAMED(BOOTSTRAP_BAD_COUNT),
    NAMED(BOOTSTRAP_NO_MEMORY),
    NAMED(kIOReturnNoResources),
};

#undef NAMED

const char* NameOf(OSStatus status) {
  for (const ErrorName& row : kNames) {
    if (row.status == status) return row.name;
  }
  return nullptr;
}

}  // namespace

std::string ErrorText(OSStatus status) {
  const char* name = NameOf(status);
  return std::to_string(status) + (name != nullptr ? std::string(" (") + name + ")" : "");
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
    case memFullErr:  // an event larger than a frame may be
      return kExitBadData;
    default:
      return kExitGeneral;
  }
}
