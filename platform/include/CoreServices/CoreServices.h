#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/Aliases.h>
#include <CoreServices/Debugging.h>
#include <CoreServices/DriverServices.h>
#include <CoreServices/DriverSynchronization.h>
#include <CoreServices/Files.h>
#include <CoreServices/Folders.h>
#include <CoreServices/Gestalt.h>
#include <CoreServices/LaunchServices.h>
#include <CoreServices/MacErrors.h>
#include <CoreServices/MacMemory.h>
#include <CoreServices/MacTypes.h>
#include <CoreServices/Multiprocessing.h>
#include <CoreServices/OSUtils.h>
#include <CoreServices/Processes.h>
#include <CoreServices/TextUtils.h>

#include <CoreServices/AEDataModel.h>
#include <CoreServices/AEMach.h>
#include <CoreServices/AppleEvents.h>
