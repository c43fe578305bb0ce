#pragma once

#include <cstddef>
#include <string>

// The text of an error that is not about the list: memory ran out. It is so short that a string
// holds it without an allocation.
inline constexpr char kHostPlistNoMemory[] = "no memory left";

// The reason why bytes are not a property list, or why a list cannot be written. A plain value: one
// thread at a time.
struct HostPropertyListError {
  std::string text;   // what is wrong, as a part of a sentence: "no <key> before this value"
  std::string hint;   // what would help, or ""
  size_t offset = 0;  // of the fault, in bytes from the start; 0 if a list cannot be written
  size_t line = 0;    // of the fault, from 1; 0 for a form without lines
  size_t column = 0;  // of the fault, from 1, in characters; 0 for a form without lines

  // Whether there was no memory, so that another try may succeed.
  bool IsNoMemory() const;

  // Returns the text after its position ("line 3, column 7: ...", "byte 40: ..."), or the text
  // alone.
  std::string Sentence() const;
};
