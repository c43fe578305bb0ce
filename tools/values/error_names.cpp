#include "tools/values/error_names.h"

#include <servers/bootstrap.h>

#include "util/status_text.h"

namespace {

// Whether the error's text would not help a user who does not know the server.
bool IsVague(OSStatus status) { return VLTStatusName(status)[0] == 0 || status == noErr; }

}  // namespace

std::string ErrorNumber(OSStatus status) {
  const std::string name = VLTStatusName(status);
  return "(" + std::to_string(status) + (name.empty() ? "" : ", " + name) + ")";
}

std::string ErrorSentence(OSStatus status) {
  return std::string(IsVague(status) ? "the request failed" : VLTStatusText(status)) + " " +
         ErrorNumber(status);
}

JsonValue ErrorModel(OSStatus status) {
  const char* name = VLTStatusName(status);
  JsonValue model = JsonValue::Object{{"number", JsonValue::Integer(status)}};
  model.Add("name", name[0] != 0 ? JsonValue(name) : JsonValue());
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
