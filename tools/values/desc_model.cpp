#include "tools/values/desc_model.h"

#include <bit>
#include <stdexcept>

#include "platform/host/events/introspect.h"
#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "tools/values/value_types.h"

namespace {

void Require(OSStatus err) {
  if (err != 0) throw std::runtime_error("a value cannot be read: " + ErrorSentence(err));
}

// Owns one descriptor.
class StDesc {
 public:
  StDesc() = default;
  StDesc(StDesc&& other) noexcept : desc(std::exchange(other.desc, {typeNull, nullptr})) {}
  StDesc& operator=(StDesc&& other) noexcept {
    std::swap(desc, other.desc);
    return *this;
  }
  ~StDesc() { AEDisposeDesc(&desc); }

  AEDesc desc = {typeNull, nullptr};
};

bool IsContainer(const AEDesc& desc) {
  return desc.descriptorType == typeAEList || AECheckIsRecord(&desc);
}

std::string Bytes(const AEDesc& desc) {
  std::string bytes;
  if (desc.descriptorType == typeNull) return bytes;
  bytes.resize(AEGetDescDataSize(&desc));
  Require(AEGetDescData(&desc, bytes.data(), static_cast<Size>(bytes.size())));
  return bytes;
}

// Returns false if the value cannot be coerced to that type.
bool CoercedBytes(const AEDesc& desc, DescType type, std::string& bytes) {
  StDesc coerced;
  if (AECoerceDesc(&desc, type, &coerced.desc) != 0) return false;
  bytes = Bytes(coerced.desc);
  return true;
}

// Strings with a length byte or a NUL can be coerced to UTF-8 only by way of plain text.
bool ReadText(const AEDesc& desc, std::string& utf8) {
  if (CoercedBytes(desc, typeUTF8Text, utf8)) return true;
  StDesc plain;
  return AECoerceDesc(&desc, typeChar, &plain.desc) == 0 &&
         CoercedBytes(plain.desc, typeUTF8Text, utf8);
}

// Returns whether the UTF-8 text restores the bytes: byte-order marks, and characters with two
// spellings, are lost.
bool GivesBack(const std::string& utf8, DescType type, const std::string& bytes) {
  StDesc spoken;
  std::string again;
  Require(AECreateDesc(typeUTF8Text, utf8.data(), static_cast<Size>(utf8.size()), &spoken.desc));
  return CoercedBytes(spoken.desc, type, again) && again == bytes;
}

int64_t SignExtended(uint64_t number, size_t width) {
  const int unused = 64 - 8 * static_cast<int>(width);
  return static_cast<int64_t>(number << unused) >> unused;
}

// The bits of the usual NaN, which reading "NaN" gives.
bool IsUsualNaN(uint64_t bits, size_t width) {
  return bits == (width == 4 ? 0x7FC00000u : 0x7FF8000000000000u);
}

JsonValue NumberModel(const ValueType& row, uint64_t bits, bool& isWhole) {
  switch (row.kind) {
    case ValueKind::kSigned:
      return JsonValue::Integer(SignExtended(bits, row.width));
    case ValueKind::kFixed:
      return JsonValue::Real(static_cast<double>(SignExtended(bits, row.width)) / 65536);
    case ValueKind::kCode:
      return CodeText(static_cast<FourCharCode>(bits));
    case ValueKind::kReal: {
      JsonValue number = row.width == 4
                             ? JsonValue::Real(std::bit_cast<float>(static_cast<uint32_t>(bits)))
                             : JsonValue::Real(std::bit_cast<double>(bits));
      const bool isNaN = number.AsString() != nullptr && *number.AsString() == "NaN";
      if (isNaN && !IsUsualNaN(bits, row.width)) isWhole = false;
      return number;
    }
    default:
      return JsonValue::Unsigned(bits);
  }
}

// The functions below add members and return whether these restore all bytes.

bool AddNumbers(const ValueType& row, const std::string& bytes, JsonValue& model) {
  if (bytes.size() % row.width != 0) return false;
  bool isWhole = true;
  JsonValue::Array numbers;
  for (size_t at = 0; at < bytes.size(); at += row.width) {
    numbers.push_back(NumberModel(row, LoadNumber(bytes.data() + at, row.width), isWhole));
  }
  if (numbers.size() == 1) {
    model.Add("value", std::move(numbers[0]));
  } else {
    model.Add("values", std::move(numbers));
  }
  return isWhole;
}

bool AddBool(const std::string& bytes, JsonValue& model) {
  if (bytes.size() != 1) return false;
  model.Add("value", JsonValue::Bool(bytes[0] != 0));
  return bytes[0] == 0 || bytes[0] == 1;
}

bool AddWords(const std::string& bytes, JsonValue& model) {
  if (bytes.size() != 8) return false;
  model.Add("high", JsonValue::Unsigned(LoadNumber(bytes.data(), 4)));
  model.Add("low", JsonValue::Unsigned(LoadNumber(bytes.data() + 4, 4)));
  return true;
}

bool AddWide(const AEDesc& desc, JsonValue& model) {
  std::string digits;
  if (CoercedBytes(desc, typeChar, digits)) model.Add("value", digits);
  return false;
}

bool AddText(const AEDesc& desc, const std::string& bytes, JsonValue& model) {
  std::string utf8;
  if (!ReadText(desc, utf8)) return false;
  model.Add("text", utf8);
  return GivesBack(utf8, desc.descriptorType, bytes);
}

bool AddConstant(DescType type, const std::string& bytes, JsonValue& model) {
  model.Add("value", type == typeNull ? JsonValue() : JsonValue::Bool(type == typeTrue));
  return bytes.empty();
}

bool AddKnown(const AEDesc& desc, const std::string& bytes, JsonValue& model) {
  const ValueType* row = ValueTypeOf(desc.descriptorType);
  if (row == nullptr) return false;
  switch (row->kind) {
    case ValueKind::kBool:
      return AddBool(bytes, model);
    case ValueKind::kWords:
      return AddWords(bytes, model) && row->name != nullptr;
    case ValueKind::kWide:
      return AddWide(desc, model);
    case ValueKind::kText:
      return AddText(desc, bytes, model) && row->name != nullptr;
    case ValueKind::kUtf8:
      model.Add("text", bytes);
      return IsUtf8(bytes) && row->name != nullptr;
    case ValueKind::kConstant:
      return AddConstant(desc.descriptorType, bytes, model);
    case ValueKind::kData:
      return false;
    default:
      return AddNumbers(*row, bytes, model) && row->name != nullptr;
  }
}

JsonValue TypeModel(const AEDesc& desc) {
  return JsonValue::Object{{"type", CodeText(desc.descriptorType)}};
}

JsonValue ValueModel(const AEDesc& desc) {
  JsonValue model = TypeModel(desc);
  const std::string bytes = Bytes(desc);
  if (!AddKnown(desc, bytes, model)) {
    model.Add("hex", HexText(SwappedToBig(desc.descriptorType, bytes)));
  }
  return model;
}

// Makes the models of a tree without recursion. A container waits with a copy of its own until its
// turn comes and is disposed of then, so copies never add up along a deep path.
class TreeModel {
 public:
  // `model` receives the descriptor's model. Its address must stay valid until Finish has returned.
  void Put(StDesc taken, JsonValue& model) {
    if (!IsContainer(taken.desc)) {
      model = ValueModel(taken.desc);
      return;
    }
    model = TypeModel(taken.desc);
    waiting.push_back({std::move(taken), &model});
  }

  // Makes the models of a container's members, except containers, which Finish makes.
  void PutContents(const AEDesc& desc, JsonValue& model) {
    if (desc.descriptorType == typeAEList) {
      PutItems(desc, model.Add("items", JsonValue::Array()));
    } else if (desc.descriptorType == typeAppleEvent) {
      // Add both first: adding the second moves the first, whose members are written later.
      model.Add("attributes", JsonValue::Object());
      model.Add("parameters", JsonValue::Object());
      PutAttributes(desc, (*model.AsObject())[1].second);
      PutFields(desc, (*model.AsObject())[2].second);
    } else {
      PutFields(desc, model.Add("fields", JsonValue::Object()));
    }
  }

  void PutFields(const AEDesc& desc, JsonValue& model) {
    JsonValue::Object& members = *model.AsObject();
    members.resize(Count(desc));
    for (size_t i = 0; i < members.size(); ++i) {
      StDesc field;
      AEKeyword key = 0;
      Require(AEGetNthDesc(&desc, static_cast<SInt32>(i + 1), typeWildCard, &key, &field.desc));
      members[i].first = CodeText(key);
      Put(std::move(field), members[i].second);
    }
  }

  void PutAttributes(const AEDesc& event, JsonValue& model) {
    const std::vector<FourCharCode> keys = HostAttributeKeys(&event);
    JsonValue::Object& members = *model.AsObject();
    members.resize(keys.size());
    for (size_t i = 0; i < keys.size(); ++i) {
      StDesc attribute;
      Require(AEGetAttributeDesc(&event, keys[i], typeWildCard, &attribute.desc));
      members[i].first = CodeText(keys[i]);
      Put(std::move(attribute), members[i].second);
    }
  }

  void Finish() {
    while (!waiting.empty()) {
      const Waiting next = std::move(waiting.back());
      waiting.pop_back();
      PutContents(next.taken.desc, *next.model);
    }
  }

 private:
  struct Waiting {
    StDesc taken;
    JsonValue* model;
  };

  static size_t Count(const AEDesc& desc) {
    SInt32 count = 0;
    Require(AECountItems(&desc, &count));
    return static_cast<size_t>(count);
  }

  void PutItems(const AEDesc& desc, JsonValue& model) {
    JsonValue::Array& items = *model.AsArray();
    items.resize(Count(desc));
    for (size_t i = 0; i < items.size(); ++i) {
      StDesc item;
      const SInt32 index = static_cast<SInt32>(i + 1);
      Require(AEGetNthDesc(&desc, index, typeWildCard, nullptr, &item.desc));
      Put(std::move(item), items[i]);
    }
  }

  std::vector<Waiting> waiting;
};

}  // namespace

JsonValue DescModel(const AEDesc& desc) {
  if (!IsContainer(desc)) return ValueModel(desc);
  JsonValue model = TypeModel(desc);
  TreeModel tree;
  tree.PutContents(desc, model);
  tree.Finish();
  return model;
}

JsonValue ParametersModel(const AEDesc& event) {
  if (!AECheckIsRecord(&event)) return {};
  JsonValue model = JsonValue::Object();
  TreeModel tree;
  tree.PutFields(event, model);
  tree.Finish();
  return model;
}

JsonValue AttributesModel(const AEDesc& event) {
  if (event.descriptorType != typeAppleEvent) return {};
  JsonValue model = JsonValue::Object();
  TreeModel tree;
  tree.PutAttributes(event, model);
  tree.Finish();
  return model;
}
