#pragma once

#include "platform/host/plist/xml_scanner.h"

// HostXMLProlog reads what is before and between elements: declaration, document type, comments and
// instructions. One thread.
class HostXMLProlog : protected HostXMLScanner {
 protected:
  using HostXMLScanner::HostXMLScanner;

  // Reads the declaration; "<?xml" is here.
  bool ReadDeclaration();
  // Skips white space, comments and instructions between elements.
  bool SkipMisc(bool mayHaveDoctype = false);
  bool SkipComment();      // "<!--" is here
  bool SkipInstruction();  // "<?" is here

 private:
  bool CheckEncoding(const UInt8* where, std::string_view name);
  bool ReadDoctype();
  bool ReadLiteral(bool isPublic);
};
