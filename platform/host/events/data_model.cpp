#include <CoreServices/AEDataModel.h>

#include <algorithm>

#include "platform/host/events/coerce.h"
#include "platform/host/events/put.h"
#include "platform/host/events/storage.h"

extern "C" {

OSErr AECreateDesc(DescType type, const void* data, Size size, AEDesc* dst) {
  if (dst == nullptr) return paramErr;
  AEInitializeDesc(dst);
  HostAEItem item;
  OSStatus err = HostItemFromBytes(type, data, size, &item);
  if (err == 0) err = HostMakeDesc(&item, dst);
  return static_cast<OSErr>(err);
}

OSErr AEDisposeDesc(AEDesc* desc) {
  if (desc == nullptr) return 0;
  HostDisposeItem(desc->dataHandle);
  AEInitializeDesc(desc);
  return 0;
}

OSErr AEDuplicateDesc(const AEDesc* source, AEDesc* dst) {
  return AECoerceDesc(source, typeWildCard, dst);
}

Size AEGetDescDataSize(const AEDesc* desc) {
  HostAEItem view;
  return HostViewDesc(desc, &view) == 0 ? static_cast<Size>(view.size) : 0;
}

OSErr AEGetDescData(const AEDesc* desc, void* buffer, Size maxSize) {
  HostAEItem view;
  OSStatus err = HostViewDesc(desc, &view);
  if (err == 0 && view.type == typeNull) err = errAENotAEDesc;
  if (err == 0 && view.IsContainer()) err = errAEWrongDataType;
  if (err == 0) err = HostReadItem(view, typeWildCard, nullptr, buffer, maxSize, nullptr);
  return static_cast<OSErr>(err);
}

OSErr AEReplaceDescData(DescType type, const void* data, Size size, AEDesc* desc) {
  if (desc == nullptr) return paramErr;
  HostAEItem* former = HostFindItem(desc->dataHandle);
  if (former == nullptr && desc->dataHandle != nullptr) return errAENotAEDesc;

  // The new bytes may lie in the old ones, so these go last.
  HostAEItem item;
  const OSStatus err = HostItemFromBytes(type, data, size, &item);
  if (err != 0) return static_cast<OSErr>(err);
  if (former == nullptr) return static_cast<OSErr>(HostMakeDesc(&item, desc));
  former->Release();
  memcpy(former, &item, sizeof item);
  desc->descriptorType = type;
  if (type == typeNull) AEDisposeDesc(desc);
  return 0;
}

OSErr AECoerceDesc(const AEDesc* source, DescType toType, AEDesc* dst) {
  if (dst == nullptr) return paramErr;
  HostAEItem view;
  const OSStatus err = HostViewDesc(source, &view);
  if (err != 0) {
    AEInitializeDesc(dst);
    return static_cast<OSErr>(err);
  }
  return static_cast<OSErr>(HostDescFromItem(view, toType, dst));
}

OSErr AECoercePtr(DescType type, const void* data, Size size, DescType toType, AEDesc* dst) {
  if (dst == nullptr) return paramErr;
  AEInitializeDesc(dst);
  if (size < 0 || (data == nullptr && size > 0)) return paramErr;
  if (!HostFormFits(HostAEForm::kValue, type)) return errAECoercionFail;
  HostAEItem view;
  view.key = typeWildCard;
  view.SetBorrowed(type, data, static_cast<size_t>(size));
  return static_cast<OSErr>(HostDescFromItem(view, toType, dst));
}

}  // extern "C"
