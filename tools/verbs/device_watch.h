#pragma once

#include <CoreServices/CoreServices.h>

#include "tools/command_line.h"

// The option --watch of the verbs about devices: the verb prints what there is, and then every
// change, until it is interrupted, gets the quit event or has printed --count lines. It registers
// with the device monitor, and again if another monitor takes over or a notification may have been
// missed. One thread.

extern const OptionSpec kWatchOption;
extern const OptionSpec kCountOption;

// devices: lists the devices again after each notification, and prints how the list has changed.
int WatchDevices(const CommandLine& line);

// device-status: prints the status list, and then each notification with the status bits `mask`.
int WatchDeviceStatus(const CommandLine& line, SInt32 mask);
