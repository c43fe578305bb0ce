#include "platform/host/plist/xml_prolog.h"

#include <cstring>
#include <iterator>

namespace {

// "1." and digits, as the grammar of XML 1.0 has it: later minor versions are read as 1.0.
bool IsVersionOne(std::string_view value) {
  return value.size() > 2 && value.starts_with("1.") &&
         value.find_first_not_of("0123456789", 2) == value.npos;
}

}  // namespace

bool HostXMLProlog::CheckEncoding(const UInt8* where, std::string_view name) {
  std::string lower;
  for (const char c : name) {
    lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  // A file in UTF-16 was recognised by its byte-order mark and has been converted to UTF-8.
  if (input.wasUTF16) return true;
  for (const char* known : {"utf-8", "utf8", "us-ascii", "ascii"}) {
    if (lower == known) return true;
  }
  if (lower.starts_with("utf-16")) {
    return Fail(where, "the declaration says UTF-16, but there is no byte-order mark");
  }
  return Fail(where, "the encoding " + std::string(name) + " cannot be read",
              "convert the file to UTF-8 and change its declaration");
}

bool HostXMLProlog::ReadDeclaration() {
  const UInt8* const from = at;
  at += std::strlen("<?xml");
  constexpr std::string_view kOrder[] = {"version", "encoding", "standalone"};
  size_t next = 0;
  for (;;) {
    const bool blank = SkipBlanks();
    if (Follows("?>")) break;
    if (at == end) return FailAtEnd("the end of the XML declaration");
    const UInt8* const where = at;
    std::string_view name, value;
    if (!blank) return Fail(at, "the XML declaration is malformed");
    if (!ReadAttribute(&name, &value)) return false;
    const size_t earliest = next;
    while (next < std::size(kOrder) && kOrder[next] != name) ++next;
    if (next == std::size(kOrder) || (earliest == 0 && next != 0)) {
      return Fail(where, "the XML declaration is malformed",
                  "it says <?xml version=\"1.0\" encoding=\"UTF-8\"?>");
    }
    ++next;
    if (name == "encoding" && !CheckEncoding(where, value)) return false;
    if (name == "standalone" && value != "yes" && value != "no") {
      return Fail(where, "standalone is yes or no");
    }
    if (name == "version" && !IsVersionOne(value)) return Fail(where, "this is not XML 1.0");
  }
  if (next == 0) return Fail(from, "the XML declaration has no version");
  at += 2;
  return true;
}

// A public identifier has only some characters, a system identifier any.
bool HostXMLProlog::ReadLiteral(bool isPublic) {
  SkipBlanks();
  if (at == end) return FailAtEnd("the end of the document type");
  const UInt8 quote = *at;
  if (quote != '"' && quote != '\'') return Fail(at, "the document type is malformed");
  const void* close = std::memchr(at + 1, quote, Left() - 1);
  if (close == nullptr) return Fail(at, "this quotation mark is never closed");
  const UInt8* const from = at;
  at = static_cast<const UInt8*>(close) + 1;
  for (const UInt8* each = from + 1; isPublic && each < close; ++each) {
    const bool isKnown = *each == ' ' || *each == '\r' || *each == '\n' ||
                         (*each > ' ' && *each < 0x7F && !std::strchr("\"&<>[\\]^`{|}~", *each));
    if (!isKnown) {
      return Fail(each, "a public identifier must not have this character");
    }
  }
  return IsText(from, at) || FailNotText(from, at);
}

bool HostXMLProlog::ReadDoctype() {
  at += std::strlen("<!DOCTYPE");
  if (!SkipBlanks() || TakeName().empty()) return Fail(at, "the document type has no name");
  const bool blank = SkipBlanks();
  if (blank && (Follows("PUBLIC") || Follows("SYSTEM"))) {
    const bool isPublic = *at == 'P';
    at += std::strlen("PUBLIC");
    if (at == end || !IsBlank(*at)) return Fail(at, "the document type is malformed");
    if (!ReadLiteral(isPublic)) return false;
    if (isPublic && (at == end || !IsBlank(*at))) return Fail(at, "the document type is malformed");
    if (isPublic && !ReadLiteral(false)) return false;
    SkipBlanks();
  }
  if (at == end) return FailAtEnd("the end of the document type");
  if (*at == '[') {
    return Fail(at, "the document type has declarations of its own",
                "property lists need none: remove what is between [ and ]");
  }
  if (*at != '>') return Fail(at, "the document type is malformed");
  ++at;
  return true;
}

bool HostXMLProlog::SkipComment() {
  const UInt8* const from = at;
  at += std::strlen("<!--");
  for (;;) {
    const void* dash = std::memchr(at, '-', Left());
    if (dash == nullptr) return Fail(from, "this comment is never closed");
    at = static_cast<const UInt8*>(dash) + 1;
    if (at == end || *at != '-') continue;
    if (end - at < 2) return Fail(from, "this comment is never closed");
    if (at[1] != '>') return Fail(at - 1, "a comment must not have -- in it");
    break;
  }
  at += 2;
  return IsText(from, at) || FailNotText(from, at);
}

bool HostXMLProlog::SkipInstruction() {
  const UInt8* const from = at;
  at += 2;
  const std::string_view name = TakeName();
  if (name.empty()) return Fail(from, "this instruction has no name");
  if (name.size() == 3 && (name[0] | 32) == 'x' && (name[1] | 32) == 'm' && (name[2] | 32) == 'l') {
    return Fail(from, "the XML declaration stands only once, at the very beginning");
  }
  if (!Follows("?>") && (at == end || !IsBlank(*at))) {
    return Fail(from, "this instruction is malformed");
  }
  for (;;) {
    const void* mark = std::memchr(at, '?', Left());
    if (mark == nullptr) return Fail(from, "this instruction is never closed");
    at = static_cast<const UInt8*>(mark) + 1;
    if (at < end && *at == '>') break;
  }
  ++at;
  return IsText(from, at) || FailNotText(from, at);
}

bool HostXMLProlog::SkipMisc(bool mayHaveDoctype) {
  for (;;) {
    SkipBlanks();
    if (Left() < 2 || at[0] != '<' || (at[1] != '!' && at[1] != '?')) return true;
    if (at[1] == '?') {
      if (!SkipInstruction()) return false;
    } else if (Follows("<!--")) {
      if (!SkipComment()) return false;
    } else if (mayHaveDoctype && Follows("<!DOCTYPE")) {
      mayHaveDoctype = false;
      if (!ReadDoctype()) return false;
    } else {
      return Fail(at, "this markup does not belong here");
    }
  }
}
