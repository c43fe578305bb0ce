#include "aeport/coercion.h"

namespace {

bool TakesEverything(DescType type) { return type == typeWildCard || type == typeBest; }

bool Suits(DescType type, DescType target) { return type == target || TakesEverything(target); }

// Replaces the destination with `made`.
void MoveTo(AEDesc& destination, const AEDesc& made) {
  AEDisposeDesc(&destination);
  destination = made;
}

bool IsReachedThroughText(DescType target) {
  return target == typePString || target == typeCString || target == typeEncodedString ||
         target == typeUnicodeText || target == typeStyledUnicodeText;
}

OSStatus CoerceDirectly(const AEDesc& source, DescType target, AEDesc& destination) {
  AEDesc coerced = {typeNull, nullptr};
  OSStatus err = AECoerceDesc(&source, target, &coerced);
  if (err == 0 && coerced.descriptorType != target) {
    AEDisposeDesc(&coerced);
    err = errAECoercionFail;
  }
  if (err == 0) MoveTo(destination, coerced);
  return err;
}

// Makes a descriptor from the bytes, of the target's type if the Apple Event Manager can coerce
// them. One that still has another type is passed to `finish`, OSStatus(const AEDesc& made), which
// stores the destination.
template <class Finish>
OSStatus CoercePtr(DescType type, const void* data, SInt32 size, DescType target,
                   AEDesc& destination, Finish&& finish) {
  AEDesc made = {typeNull, nullptr};
  OSStatus err = errAECoercionFail;
  if (!Suits(type, target)) err = AECoercePtr(type, data, size, target, &made);
  if (err != 0) err = AECreateDesc(type, data, size, &made);
  if (err != 0) return err;
  if (Suits(made.descriptorType, target)) {
    MoveTo(destination, made);
    return 0;
  }
  err = finish(made);
  AEDisposeDesc(&made);
  return err;
}

}  // namespace

DescType OSTypeInList(DescType type, const DescType* list, SInt32 count, DescType wildType,
                      DescType bestType) {
  if (list == nullptr) return 0;
  for (SInt32 i = 0; i < count; ++i) {
    if (list[i] == type) return type;
    // Meant: later entries are ignored, even an equal one, because callers rely on it.
    if (type == typeWildCard) return wildType;
    if (type == typeBest) return bestType;
  }
  return 0;
}

OSStatus AECoerceDescToType(const AEDesc& source, DescType target, AEDesc& destination) {
  if (Suits(source.descriptorType, target)) {
    if (&source == &destination) return 0;
    AEDesc copy = {typeNull, nullptr};
    const OSStatus err = AEDuplicateDesc(&source, &copy);
    MoveTo(destination, copy);
    return err;
  }
  OSStatus err = CoerceDirectly(source, target, destination);
  // Coercing a text by way of text would recurse without end.
  const bool isText = source.descriptorType == typeChar;
  if (err == 0 || isText || !IsReachedThroughText(target)) return err;

  AEDesc text = {typeNull, nullptr};
  err = AECoerceDesc(&source, typeChar, &text);
  if (err == 0) err = AECoerceDescToType(text, target, destination);
  AEDisposeDesc(&text);
  return err;
}

OSStatus AECoerceDescToTypeList(const AEDesc& source, AEDesc& destination, const DescType* list,
                                SInt32 count, DescType wildType, DescType bestType) {
  const DescType own = OSTypeInList(source.descriptorType, list, count, wildType, bestType);
  OSStatus err = own != 0 ? AECoerceDescToType(source, own, destination) : errAECoercionFail;
  if (list == nullptr) return err;
  for (SInt32 i = 0; i < count && err != 0; ++i) {
    DescType target = list[i];
    if (target == typeWildCard) {
      target = wildType;
    } else if (target == typeBest) {
      target = bestType;
    }
    err = AECoerceDescToType(source, target, destination);
  }
  return err;
}

OSStatus AECopyPtrToDesc(DescType type, const void* data, SInt32 size, AEDesc& destination) {
  return AECoercePtrToDesc(type, data, size, type, destination);
}

OSStatus AECoercePtrToDesc(DescType type, const void* data, SInt32 size, DescType target,
                           AEDesc& destination) {
  return CoercePtr(type, data, size, target, destination, [&](const AEDesc& made) {
    return AECoerceDescToType(made, target, destination);
  });
}

OSStatus AECoercePtrToTypeList(DescType type, const void* data, SInt32 size, AEDesc& destination,
                               const DescType* list, SInt32 count, DescType wildType,
                               DescType bestType) {
  const DescType target = OSTypeInList(type, list, count, wildType, bestType);
  return CoercePtr(type, data, size, target, destination, [&](const AEDesc& made) {
    return AECoerceDescToTypeList(made, destination, list, count, wildType, bestType);
  });
}
