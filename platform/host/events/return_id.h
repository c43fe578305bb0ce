#pragma once

#include <CoreServices/AppleEvents.h>

// The return ids of events that are created with kAutoGenerateReturnID. Any thread.

// Generates an id that no existing event has. If all 65534 are in use, returns 1 and sets `*owned`
// to false; otherwise the caller gives the id back with HostReturnIDDone.
AEReturnID HostMakeReturnID(bool* owned);
void HostReturnIDDone(AEReturnID returnID);
