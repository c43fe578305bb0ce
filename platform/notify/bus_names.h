#pragma once

#include <systemd/sd-bus.h>

// The service of the desktop that shows notices, by the names that the Desktop Notifications
// interface gives it on the session bus.
inline constexpr char kService[] = "org.freedesktop.Notifications";
inline constexpr char kPath[] = "/org/freedesktop/Notifications";
inline constexpr char kInterface[] = "org.freedesktop.Notifications";

// Matches the signal that the service has started or ended.
inline constexpr char kOwnerChanges[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='org.freedesktop.Notifications'";

// A message that is released at the end of the scope.
struct StackMessage {
  sd_bus_message* message = nullptr;
  StackMessage() = default;
  StackMessage(const StackMessage&) = delete;
  StackMessage& operator=(const StackMessage&) = delete;
  ~StackMessage() { sd_bus_message_unref(message); }
};
