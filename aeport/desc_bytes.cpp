#include "aeport/desc_bytes.h"

#include <algorithm>
#include <cstdint>

#include "aeport/coercion.h"

namespace {

// Copies `count` bytes from `offset` on. A descriptor can only be read from its first byte, so the
// skipped bytes are copied, too, into a temporary block.
OSStatus CopyFrom(const AEDesc& source, SInt32 offset, void* buffer, SInt32 count) {
  if (offset == 0) return AEGetDescData(&source, buffer, count);
  Ptr block = NewPtr(offset + count);
  if (block == nullptr) return memFullErr;
  const OSStatus err = AEGetDescData(&source, block, offset + count);
  if (err == 0) BlockMoveData(block + offset, buffer, count);
  DisposePtr(block);
  return err;
}

SInt32 CopyPlainBytes(const void* data, SInt32 size, void* buffer, SInt32 bufferSize,
                      SInt32* fullSize, SInt32 offset) {
  if (size < 0 || (data == nullptr && size > 0)) return paramErr;
  if (fullSize != nullptr) *fullSize = size;
  if (offset < 0) return paramErr;
  const SInt32 count = std::min(size - offset, bufferSize);
  if (count < 1 || buffer == nullptr) return 0;
  BlockMoveData(static_cast<const char*>(data) + offset, buffer, count);
  return count;
}

}  // namespace

SInt32 AECopyDescToPtr(const AEDesc& source, void* buffer, SInt32 bufferSize, SInt32* fullSize,
                       SInt32 offset) {
  const int64_t size = AEGetDescDataSize(&source);
  if (fullSize != nullptr) *fullSize = static_cast<SInt32>(size);
  const int64_t start = offset < 0 ? offset + size : offset;
  const int64_t behind = size - start;
  if (bufferSize < 0 || start < 0 || behind < 0) return paramErr;
  const auto count = static_cast<SInt32>(std::min<int64_t>(behind, bufferSize));
  if (count < 1 || buffer == nullptr) return count;
  const OSStatus err = CopyFrom(source, static_cast<SInt32>(start), buffer, count);
  return err == 0 ? count : err;
}

SInt32 AECoerceDescToPtr(const AEDesc& source, void* buffer, SInt32 bufferSize, DescType target,
                         SInt32* fullSize, SInt32 offset) {
  if (source.descriptorType == target) {
    return AECopyDescToPtr(source, buffer, bufferSize, fullSize, offset);
  }
  AEDesc coerced = {typeNull, nullptr};
  SInt32 result = AECoerceDescToType(source, target, coerced);
  if (result == 0) result = AECopyDescToPtr(coerced, buffer, bufferSize, fullSize, offset);
  AEDisposeDesc(&coerced);
  return result;
}

SInt32 AECoercePtrToPtr(DescType type, const void* data, SInt32 size, DescType target, void* buffer,
                        SInt32 bufferSize, SInt32* fullSize, SInt32 offset) {
  if (type == target) return CopyPlainBytes(data, size, buffer, bufferSize, fullSize, offset);
  AEDesc coerced = {typeNull, nullptr};
  SInt32 result = AECoercePtrToDesc(type, data, size, target, coerced);
  if (result == 0) result = AECopyDescToPtr(coerced, buffer, bufferSize, fullSize, offset);
  AEDisposeDesc(&coerced);
  return result;
}
