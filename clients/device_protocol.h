#pragma once

#include <CoreServices/CoreServices.h>

#include "launch/launch_spec.h"

// The device monitor's protocol: the events it handles and their parameters, for clients and
// servers. Texts are 'TEXT' without a terminator; ids are 'long'. Constants only: any thread.
//
// A setting is a key and a value of any type. Each device has two tables of settings, its
// preferences and its attributes. The device monitor defines what the status bits and the entries
// of a status list mean.

enum : AEEventClass { kDMEventClass = kDeviceMonitorSignature };

enum : AEEventID {
  kDMGetDeviceIDs = FourCC('G', 't', 'I', 's'),
  kDMGetDeviceID = FourCC('U', 'n', 'I', 'D'),  // by what identifies the device
  kDMSetPreference = FourCC('S', 't', 'P', 'f'),
  kDMSetAttribute = FourCC('S', 't', 'A', 't'),
  kDMGetPreference = FourCC('G', 't', 'P', 'f'),
  kDMGetAttribute = FourCC('G', 't', 'A', 't'),
  kDMRegisterDigitizer = FourCC('R', 'e', 'g', 'R'),
  kDMRegisterForStatus = FourCC('R', 'e', 'g', 'N'),
};

enum : AEKeyword {
  keyDMDeviceID = FourCC('D', 'v', 'I', '#'),    // long
  keyDMDeviceIDs = FourCC('D', 'v', 'I', 's'),   // any number of long
  keyDMDeviceList = FourCC('D', 'v', 'L', 's'),  // list
  keyDMProductID = FourCC('S', 'P', 'r', 'd'),   // shor
  keyDMVendorID = FourCC('S', 'V', 'n', 'd'),    // shor
  keyDMLocation = FourCC('S', 'L', 'o', 'c'),    // long
  keyDMBus = FourCC('S', 'B', 'u', 's'),         // TEXT: kDMUSBBus, or another bus's name
  keyDMSerial = FourCC('S', 'S', 'e', 'r'),      // TEXT
  keyDMSettingKey = FourCC('P', 'K', 'e', 'y'),  // TEXT
  keyDMSettingValue = FourCC('P', 'V', 'a', 'l'),
  keyDMProcess = FourCC('P', 'S', '#', 'n'),      // psn
  keyDMStatusParam = FourCC('i', 'x', 'r', 'P'),  // shor, repeated in each notification
  keyDMStatusMask = FourCC('N', 'M', 's', 'k'),   // long
};

constexpr char kDMUSBBus[] = "USB";

// In a status mask: return the list once and register nothing.
constexpr UInt32 kDMStatusOnce = 0x1000;
