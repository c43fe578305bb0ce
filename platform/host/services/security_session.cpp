#include <Security/Security.h>

#include "platform/host/services/introspect.h"

OSStatus SessionGetInfo(SecuritySessionId session, SecuritySessionId* id,
                        SessionAttributeBits* attributes) {
  const HostSession own = HostDescribeOwnSession();
  if (!own.isKnown) return errSessionInternal;
  if (session != callerSecuritySession && session != own.id) return errSessionInvalidId;
  if (id != nullptr) *id = own.id;
  if (attributes != nullptr) *attributes = own.attributes;
  return errSessionSuccess;
}
