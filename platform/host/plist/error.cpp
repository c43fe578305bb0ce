#include "platform/host/plist/error.h"

bool HostPropertyListError::IsNoMemory() const { return text == kHostPlistNoMemory; }

std::string HostPropertyListError::Sentence() const {
  if (line > 0) {
    return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + text;
  }
  return offset > 0 ? "byte " + std::to_string(offset) + ": " + text : text;
}
