#include "clients/quit_request.h"

#include "util/bootstrap_error.h"

namespace {

constexpr bool kOnlyLook = false;
constexpr int kQuitTimeoutTicks = 1200;

}  // namespace

OSStatus SendQuitRequest(VLTAEClientSupport& client, bool lookUpTells, const char* failureName) {
  VLTPortDestinationAddress address;
  VLTPortAppleEvent event(kCoreEventClass, kAEQuitApplication, kAENoReply, nullptr,
                          kAutoGenerateReturnID, kAnyTransactionID);
  OSStatus err = client.ConstructEvent(address, event, kOnlyLook);
  if (lookUpTells && IsBootstrapError(err)) err = procNotFound;
  if (err == 0) err = client.SendEvent(event, 0, 0, kQuitTimeoutTicks);
  if (err == procNotFound) err = 0;
  if (client.IsClientError(err, &event)) client.LogClientFailure(err, failureName);
  return err;
}
