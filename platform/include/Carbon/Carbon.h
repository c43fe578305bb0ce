#pragma once

#include <CoreServices/CoreServices.h>

#include <Carbon/AEInteraction.h>
#include <Carbon/CarbonEvents.h>
#include <Carbon/Notification.h>
