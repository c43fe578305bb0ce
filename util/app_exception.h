#pragma once

#include <CoreServices/CoreServices.h>

#include <exception>

// What code throws that cannot go on at all, with the status that tells why. Ordinary failures are
// returned, not thrown; only the entry of a process catches this.
class VLTAppException : public std::exception {
 public:
  explicit VLTAppException(OSStatus reason) : status(reason) {}

  OSStatus Status() const { return status; }
  const char* what() const noexcept override { return "VLTAppException"; }

 private:
  OSStatus status;
};
