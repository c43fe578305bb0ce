#include <CoreServices/AEDataModel.h>

#include "platform/host/events/codec.h"
#include "platform/host/events/put.h"
#include "platform/host/events/storage.h"

namespace {

constexpr unsigned kKeyed = kHostRecordBit | kHostEventBit;
constexpr unsigned kIndexed = kHostListBit | kKeyed;

// Returns 0, paramErr, errAENotAEDesc, errAEWrongDataType or errAEDescNotFound.
OSStatus FindKeyed(const AEDesc* desc, AEKeyword key, HostAEItem** item) {
  HostAEItems* items = nullptr;
  const OSStatus err = HostFindItems(desc, kKeyed, &items);
  if (err != 0) return err;
  *item = items->Find(key);
  return *item == nullptr ? errAEDescNotFound : 0;
}

OSStatus FindNth(const AEDescList* list, SInt32 index, HostAEItem** item) {
  HostAEItems* items = nullptr;
  const OSStatus err = HostFindItems(list, kIndexed, &items);
  if (err != 0) return err;
  if (index < 1 || static_cast<uint32_t>(index) > items->Count()) return errAEDescNotFound;
  *item = &(*items)[static_cast<uint32_t>(index) - 1];
  return 0;
}

// Takes the item over even if it fails.
OSStatus PutNth(AEDescList* list, SInt32 index, HostAEItem* item) {
  HostAEItems* items = nullptr;
  OSStatus err = HostFindItems(list, kHostListBit, &items);
  const uint32_t count = err == 0 ? items->Count() : 0;
  const uint32_t place = index == 0 ? count + 1 : static_cast<uint32_t>(index);
  if (err == 0 && (index < 0 || place > count + 1)) err = errAEIllegalIndex;
  if (err == 0 && HostNestsTooDeep(*item)) err = errAEBadListItem;
  if (err == 0) {
    item->key = typeWildCard;
    if (place <= count) {
      items->Replace(place - 1, *item);
    } else if (!items->Append(*item)) {
      err = memFullErr;
    }
  }
  if (err != 0) item->Release();
  return err;
}

OSStatus PutParam(AppleEvent* event, AEKeyword key, HostAEItem* item) {
  HostAEItems* items = nullptr;
  const OSStatus err = HostFindItems(event, kKeyed, &items);
  if (err == 0) return HostPutKeyed(items, key, item);
  item->Release();
  return err;
}

void ReportSize(const HostAEItem& item, DescType* type, Size* size) {
  if (type != nullptr) *type = item.type;
  if (size != nullptr) *size = static_cast<Size>(item.size);
}

}  // namespace

extern "C" {

OSErr AECreateList(const void*, Size, Boolean isRecord, AEDescList* dst) {
  if (dst == nullptr) return paramErr;
  HostAEItem item;
  item.key = typeWildCard;
  if (isRecord) {
    item.SetEmpty(typeAERecord, HostAEForm::kRecord);
  } else {
    item.SetEmpty(typeAEList, HostAEForm::kList);
  }
  return static_cast<OSErr>(HostMakeDesc(&item, dst));
}

OSErr AECountItems(const AEDescList* list, SInt32* count) {
  HostAEItems* items = nullptr;
  OSStatus err = count == nullptr ? paramErr : HostFindItems(list, kIndexed, &items);
  if (err == 0) *count = static_cast<SInt32>(items->Count());
  return static_cast<OSErr>(err);
}

OSErr AEPutPtr(AEDescList* list, SInt32 index, DescType type, const void* data, Size size) {
  HostAEItem item;
  OSStatus err = HostItemFromBytes(type, data, size, &item);
  if (err == 0) err = PutNth(list, index, &item);
  return static_cast<OSErr>(err);
}

OSErr AEPutDesc(AEDescList* list, SInt32 index, const AEDesc* desc) {
  // Copied before it is put, so that a list can be put into itself.
  HostAEItem item;
  OSStatus err = HostItemFromDesc(desc, &item);
  if (err == 0) err = PutNth(list, index, &item);
  return static_cast<OSErr>(err);
}

OSErr AEGetNthPtr(const AEDescList* list, SInt32 index, DescType desiredType, AEKeyword* key,
                  DescType* type, void* buffer, Size maxSize, Size* actualSize) {
  HostAEItem* item = nullptr;
  OSStatus err = FindNth(list, index, &item);
  if (err == 0) err = HostReadItem(*item, desiredType, type, buffer, maxSize, actualSize);
  if (err == 0 && key != nullptr) *key = item->key;
  return static_cast<OSErr>(err);
}

OSErr AEGetNthDesc(const AEDescList* list, SInt32 index, DescType desiredType, AEKeyword* key,
                   AEDesc* dst) {
  if (dst == nullptr) return paramErr;
  HostAEItem* item = nullptr;
  OSStatus err = FindNth(list, index, &item);
  AEInitializeDesc(dst);
  if (err == 0) err = HostDescFromItem(*item, desiredType, dst);
  if (err == 0 && key != nullptr) *key = item->key;
  return static_cast<OSErr>(err);
}

OSErr AESizeOfNthItem(const AEDescList* list, SInt32 index, DescType* type, Size* size) {
  HostAEItem* item = nullptr;
  const OSStatus err = FindNth(list, index, &item);
  if (err == 0) ReportSize(*item, type, size);
  return static_cast<OSErr>(err);
}

OSErr AEDeleteItem(AEDescList* list, SInt32 index) {
  HostAEItem* item = nullptr;
  const OSStatus err = FindNth(list, index, &item);
  if (err != 0) return static_cast<OSErr>(err);
  HostAEItems* items = nullptr;
  HostFindItems(list, kIndexed, &items);
  items->Remove(static_cast<uint32_t>(index) - 1);
  return 0;
}

OSErr AEPutParamPtr(AppleEvent* event, AEKeyword key, DescType type, const void* data, Size size) {
  HostAEItem item;
  OSStatus err = HostItemFromBytes(type, data, size, &item);
  if (err == 0) err = PutParam(event, key, &item);
  return static_cast<OSErr>(err);
}

OSErr AEPutParamDesc(AppleEvent* event, AEKeyword key, const AEDesc* desc) {
  HostAEItem item;
  OSStatus err = HostItemFromDesc(desc, &item);
  if (err == 0) err = PutParam(event, key, &item);
  return static_cast<OSErr>(err);
}

OSErr AEGetParamPtr(const AppleEvent* event, AEKeyword key, DescType desiredType,
                    DescType* actualType, void* buffer, Size maxSize, Size* actualSize) {
  HostAEItem* item = nullptr;
  OSStatus err = FindKeyed(event, key, &item);
  if (err == 0) err = HostReadItem(*item, desiredType, actualType, buffer, maxSize, actualSize);
  return static_cast<OSErr>(err);
}

OSErr AEGetParamDesc(const AppleEvent* event, AEKeyword key, DescType desiredType, AEDesc* dst) {
  if (dst == nullptr) return paramErr;
  HostAEItem* item = nullptr;
  OSStatus err = FindKeyed(event, key, &item);
  AEInitializeDesc(dst);
  if (err == 0) err = HostDescFromItem(*item, desiredType, dst);
  return static_cast<OSErr>(err);
}

OSErr AESizeOfParam(const AppleEvent* event, AEKeyword key, DescType* type, Size* size) {
  HostAEItem* item = nullptr;
  const OSStatus err = FindKeyed(event, key, &item);
  if (err == 0) ReportSize(*item, type, size);
  return static_cast<OSErr>(err);
}

OSErr AEDeleteParam(AppleEvent* event, AEKeyword key) {
  HostAEItem* item = nullptr;
  const OSStatus err = FindKeyed(event, key, &item);
  if (err != 0) return static_cast<OSErr>(err);
  HostAEItems* items = nullptr;
  HostFindItems(event, kKeyed, &items);
  items->Remove(static_cast<uint32_t>(item - items->begin()));
  return 0;
}

OSErr AEPutKeyPtr(AERecord* record, AEKeyword key, DescType type, const void* data, Size size) {
  return AEPutParamPtr(record, key, type, data, size);
}

OSErr AEPutKeyDesc(AERecord* record, AEKeyword key, const AEDesc* desc) {
  return AEPutParamDesc(record, key, desc);
}

OSErr AEGetKeyPtr(const AERecord* record, AEKeyword key, DescType desiredType, DescType* actualType,
                  void* buffer, Size maxSize, Size* actualSize) {
  return AEGetParamPtr(record, key, desiredType, actualType, buffer, maxSize, actualSize);
}

OSErr AEGetKeyDesc(const AERecord* record, AEKeyword key, DescType desiredType, AEDesc* dst) {
  return AEGetParamDesc(record, key, desiredType, dst);
}

OSErr AESizeOfKeyDesc(const AERecord* record, AEKeyword key, DescType* type, Size* size) {
  return AESizeOfParam(record, key, type, size);
}

OSErr AEDeleteKeyDesc(AERecord* record, AEKeyword key) { return AEDeleteParam(record, key); }

Boolean AECheckIsRecord(const AEDesc* desc) {
  HostAEItems* items = nullptr;
  return HostFindItems(desc, kKeyed, &items) == 0;
}

}  // extern "C"
