#pragma once

#include <CoreServices/AppleEvents.h>

// The return ids of events that ask for one of their own. Any thread.

// Generates an id that no existing event has. If all 65534 are in use, returns 1 and sets `*owned`
// to false; otherwise the caller gives the id back with HostReturnIDDone.
AEReturnID HostMakeReturnID(bool* owned);
void HostReturnIDDone(AEReturnID returnID);
