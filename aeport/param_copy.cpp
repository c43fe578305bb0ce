#include "aeport/param_copy.h"

#include <algorithm>

#include "util/first_error.h"
#include "util/handle_utils.h"

namespace {

// Copies one parameter to memory that is allocated once its size is known: `room` is called with
// that size and sets the address, OSStatus(Size bytes, void*& address).
struct ParamCopy {
  const AEDesc* event;
  AEKeyword key;
  DescType desiredType;
  bool takesCoerced;
  DescType ownType = typeNull;

  template <class Room>
  OSStatus Run(Room&& room) {
    Size bytes = 0;
    const OSStatus err = AESizeOfParam(event, key, &ownType, &bytes);
    if (err != 0) return err;
    const bool asItIs =
        desiredType == ownType || desiredType == typeWildCard || desiredType == typeBest;
    return asItIs ? CopyAsItIs(bytes, room) : CopyCoerced(room);
  }

 private:
  template <class Room>
  OSStatus CopyAsItIs(Size bytes, Room& room) {
    void* place = nullptr;
    OSStatus err = room(bytes, place);
    if (err == 0) err = AEGetParamPtr(event, key, desiredType, nullptr, place, bytes, nullptr);
    return err;
  }

  template <class Room>
  OSStatus CopyCoerced(Room& room) {
    AEDesc coerced = {typeNull, nullptr};
    OSStatus err = AEGetParamDesc(event, key, desiredType, &coerced);
    if (err != 0) return err;
    const Size bytes = AEGetDescDataSize(&coerced);
    void* place = nullptr;
    err = room(bytes, place);
    if (err == 0) err = AEGetDescData(&coerced, place, bytes);
    err = FirstError(err, AEDisposeDesc(&coerced));
    // Meant: an error although the data is there, because callers rely on it.
    return err == 0 && !takesCoerced ? OSStatus{errAECoercionFail} : err;
  }
};

}  // namespace

OSStatus CallAEPtrAllocator(AEPtrAllocator allocator, void*& block, SInt32 size) {
  const SInt32 bytes = std::max<SInt32>(size, 1);
  block = allocator != nullptr ? allocator(bytes) : NewPtr(bytes);
  return block != nullptr ? noErr : memFullErr;
}

OSStatus AECopyParamData(const AEDesc* event, AEKeyword key, DescType desiredType, void*& data,
                         SInt32* size, DescType* actualType, AEPtrAllocator allocator) {
  data = nullptr;
  Size stored = 0;
  ParamCopy copy = {event, key, desiredType, actualType != nullptr};
  const OSStatus err = copy.Run([&](Size bytes, void*& place) {
    const OSStatus none = CallAEPtrAllocator(allocator, data, bytes);
    if (none == 0) stored = bytes;
    place = data;
    return none;
  });
  if (size != nullptr) *size = stored;
  if (actualType != nullptr) *actualType = copy.ownType;
  return err;
}

OSStatus AECopyParamDataToHandle(const AEDesc* event, AEKeyword key, DescType desiredType,
                                 Handle handle, DescType* actualType) {
  bool isLocked = false;
  ParamCopy copy = {event, key, desiredType, actualType != nullptr};
  const OSStatus err = copy.Run([&](Size bytes, void*& place) {
    const OSStatus refused = NFSetHandleSize(handle, bytes);
    if (refused != 0) return refused;
    HLock(handle);
    isLocked = true;
    place = *handle;
    return OSStatus{noErr};
  });
  if (isLocked) HUnlock(handle);
  if (err != 0) NFSetHandleSize(handle, 0);
  if (actualType != nullptr) *actualType = copy.ownType;
  return err;
}
