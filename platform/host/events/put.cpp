#include "platform/host/events/put.h"

#include <algorithm>
#include <cstring>

#include "platform/host/events/codec.h"
#include "platform/host/events/coerce.h"
#include "platform/host/events/storage.h"

OSStatus HostItemFromBytes(DescType type, const void* data, Size size, HostAEItem* out) {
  out->key = typeWildCard;
  out->SetNull();
  if (size < 0 || (data == nullptr && size > 0)) return paramErr;
  if (type == typeNull) return 0;
  if (!HostFormFits(HostAEForm::kValue, type)) return errAEWrongDataType;
  return out->SetBytes(type, data, static_cast<size_t>(size));
}

OSStatus HostReadItem(const HostAEItem& item, DescType desired, DescType* type, void* buffer,
                      Size maxSize, Size* actualSize) {
  if (maxSize < 0) return paramErr;
  if (!HostTakesAsIs(item.type, desired)) {
    StHostAEItem coerced;
    const OSStatus err = HostCoerce(item, desired, &coerced.Get());
    if (err != 0) return err;
    return HostReadItem(coerced.Get(), typeWildCard, type, buffer, maxSize, actualSize);
  }
  if (type != nullptr) *type = item.type;
  if (actualSize != nullptr) *actualSize = static_cast<Size>(item.size);
  const size_t count = std::min<size_t>(item.size, static_cast<size_t>(maxSize));
  if (buffer == nullptr || count == 0) return 0;
  if (count <= HostAEItem::kInlineSize) {
    HostCopyShort(buffer, item.Bytes(), count);
  } else {
    memcpy(buffer, item.Bytes(), count);
  }
  return 0;
}

OSStatus HostDescFromItem(const HostAEItem& item, DescType desired, AEDesc* dst) {
  AEInitializeDesc(dst);
  StHostAEItem made;
  OSStatus err = HostCoerce(item, desired, &made.Get());
  if (err == 0) {
    err = HostMakeDesc(&made.Get(), dst);
    made.Forget();
  }
  return err;
}

OSStatus HostItemFromDesc(const AEDesc* desc, HostAEItem* out) {
  out->key = typeWildCard;
  out->SetNull();
  HostAEItem view;
  const OSStatus err = HostViewDesc(desc, &view);
  return err == 0 ? out->CopyFrom(view) : err;
}

OSStatus HostPutKeyed(HostAEItems* items, AEKeyword key, HostAEItem* item) {
  item->key = key;
  OSStatus err = HostNestsTooDeep(*item) ? errAEBadListItem : 0;
  if (err == 0) {
    if (HostAEItem* old = items->Find(key)) {
      items->Replace(static_cast<uint32_t>(old - items->begin()), *item);
    } else if (!items->Append(*item)) {
      err = memFullErr;
    }
  }
  if (err != 0) item->Release();
  return err;
}
