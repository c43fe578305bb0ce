#include <CoreServices/AEDataModel.h>
#include <CoreServices/MacMemory.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/guard.h"
#include "platform/host/events/event.h"
#include "platform/host/events/number.h"
#include "platform/host/events/storage.h"
#include "platform/host/events/text.h"
#include "platform/host/events/types.h"

// Trees are never deeper than kHostNestingLimit, which bounds the recursion here.

namespace {

constexpr char kOpenQuote = static_cast<char>(0xD2);  // Mac Roman
constexpr char kCloseQuote = static_cast<char>(0xD3);

void PrintItem(const HostAEItem& item, std::string* out);

void PrintCode(UInt32 code, std::string* out) {
  UInt8 characters[sizeof code];
  HostStoreBig32(characters, code);
  out->push_back('\'');
  for (const UInt8 character : characters) {
    const bool isControl = character < 0x20 || character == 0x7F;
    out->push_back(isControl ? '?' : static_cast<char>(character));
  }
  out->push_back('\'');
}

// Prints the big-endian bytes, so that every CPU prints the same.
void PrintHex(const HostAEItem& item, std::string* out) {
  std::vector<UInt8> bytes(item.size);
  HostSwapValue(item.type, bytes.data(), item.Bytes(), item.size);
  PrintCode(item.type, out);
  out->append("($");
  for (const UInt8 byte : bytes) {
    out->push_back("0123456789ABCDEF"[byte >> 4]);
    out->push_back("0123456789ABCDEF"[byte & 15]);
  }
  out->append("$)");
}

bool PrintNumber(const HostAEItem& item, std::string* out) {
  return HostFormatNumber(item.type, item.Bytes(), item.size, out);
}

bool PrintText(const HostAEItem& item, std::string* out) {
  std::vector<UInt8> text;
  if (!HostTextToMacRoman(item, &text)) return false;
  if (item.type != typeChar) PrintCode(item.type, out);
  if (item.type != typeChar) out->push_back('(');
  out->push_back(kOpenQuote);
  out->append(text.begin(), text.end());
  out->push_back(kCloseQuote);
  if (item.type != typeChar) out->push_back(')');
  return true;
}

bool PrintEnumerator(const HostAEItem& item, std::string* out) {
  if (item.size != sizeof(UInt32)) return false;
  UInt32 code;
  memcpy(&code, item.Bytes(), sizeof code);
  PrintCode(code, out);
  return true;
}

// Prints the enumerator with the same meaning.
bool PrintBoolean(const HostAEItem& item, std::string* out) {
  if (item.size != 1) return false;
  PrintCode(item.Bytes()[0] != 0 ? typeTrue : typeFalse, out);
  return true;
}

// Returns false if the bytes do not fit the type.
bool PrintKnownValue(const HostAEItem& item, std::string* out) {
  switch (item.type) {
    case typeEnumerated:
    case typeType:
      return PrintEnumerator(item, out);
    case typeBoolean:
      return PrintBoolean(item, out);
    default:
      if (HostIsNumberType(item.type)) return PrintNumber(item, out);
      return HostIsTextType(item.type) && PrintText(item, out);
  }
}

void PrintValue(const HostAEItem& item, std::string* out) {
  if (PrintKnownValue(item, out)) return;
  if (item.size > 0) return PrintHex(item, out);
  PrintCode(item.type, out);
  out->append("()");
}

void PrintSeparator(bool* first, std::string* out) {
  out->append(*first ? " " : ", ");
  *first = false;
}

void PrintKeyed(const HostAEItems& items, const char* mark, bool* first, std::string* out) {
  for (const HostAEItem& item : items) {
    PrintSeparator(first, out);
    out->append(mark);
    PrintCode(item.key, out);
    out->push_back(':');
    PrintItem(item, out);
  }
}

void PrintList(const HostAEItems& items, std::string* out) {
  out->push_back('[');
  bool first = true;
  for (const HostAEItem& item : items) {
    PrintSeparator(&first, out);
    PrintItem(item, out);
  }
  out->append(" ]");
}

void PrintRecord(const HostAEItem& item, std::string* out) {
  if (item.type != typeAERecord) PrintCode(item.type, out);
  out->push_back('{');
  bool first = true;
  PrintKeyed(item.items, "", &first, out);
  out->append(" }");
}

void PrintEvent(const HostAEEvent& event, std::string* out) {
  PrintCode(event.fields.eventClass, out);
  out->push_back('\\');
  PrintCode(event.fields.eventID, out);
  out->push_back('{');
  bool first = true;
  PrintKeyed(event.parameters, "", &first, out);
  for (size_t index = 0; const HostAttributeRow* row = HostAttributeAt(index); ++index) {
    HostAEItem view;
    if ((row->flags & kHostAttributePrinted) == 0) continue;
    if (!HostViewAttribute(event, *row, &view)) continue;
    PrintSeparator(&first, out);
    out->push_back('&');
    PrintCode(row->key, out);
    out->push_back(':');
    PrintItem(view, out);
  }
  PrintKeyed(event.attributes, "&", &first, out);
  out->append(" }");
}

void PrintItem(const HostAEItem& item, std::string* out) {
  switch (item.form) {
    case HostAEForm::kValue:
      return PrintValue(item, out);
    case HostAEForm::kList:
      return PrintList(item.items, out);
    case HostAEForm::kRecord:
      return PrintRecord(item, out);
    case HostAEForm::kEvent:
      return PrintEvent(*item.event, out);
  }
}

}  // namespace

extern "C" {

OSStatus AEPrintDescToHandle(const AEDesc* desc, Handle* out) {
  if (out == nullptr) return paramErr;
  *out = nullptr;
  HostAEItem view;
  const OSStatus err = HostViewDesc(desc, &view);
  if (err != 0) return err;
  return HostGuard(OSStatus{memFullErr}, [&]() -> OSStatus {
    std::string text;
    PrintItem(view, &text);
    if (text.size() > INT32_MAX) return memFullErr;
    return PtrToHand(text.data(), out, static_cast<Size>(text.size()));
  });
}

}  // extern "C"
