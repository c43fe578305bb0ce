#pragma once

#include <CoreServices/CoreServices.h>

#include <exception>

// An exception with a status, thrown when a process cannot go on. Ordinary failures are returned,
// not thrown. Only the entry of a process catches it. Any thread.
class VLTAppException : public std::exception {
 public:
  explicit VLTAppException(OSStatus reason) : status(reason) {}

  OSStatus Status() const { return status; }
  const char* what() const noexcept override { return "VLTAppException"; }

 private:
  OSStatus status;
};
