#include "platform/host/base/byte_order.h"
#include "platform/host/base/guard.h"
#include "platform/host/events/codec.h"
#include "platform/host/events/event.h"
#include "platform/host/events/layout.h"
#include "platform/host/events/storage.h"
#include "platform/host/events/types.h"

// An event's tree is never deeper than kHostNestingLimit, which bounds the recursion here.

namespace {

OSStatus WriteItem(const HostAEItem& item, HostGather& out);

uint32_t FormWord(HostAEForm form, size_t contentSize) {
  return static_cast<uint32_t>(form) << kHostFormShift | static_cast<uint32_t>(contentSize);
}

OSStatus WriteItems(const HostAEItems& items, HostGather& out) {
  OSStatus err = 0;
  for (const HostAEItem& item : items) {
    if (err == 0) err = WriteItem(item, out);
  }
  return err;
}

OSStatus WriteEvent(const HostAEEvent& event, HostGather& out) {
  const HostAEEventFields& fields = event.fields;
  uint8_t* head = out.Extend(kHostEventHeadSize);
  HostStoreBig32(head + kHostEventClassAt, fields.eventClass);
  HostStoreBig32(head + kHostEventIDAt, fields.eventID);
  HostStoreBig16(head + kHostReturnIDAt, static_cast<uint16_t>(fields.returnID));
  head[kHostVersionAt] = kHostEventVersion;
  head[kHostFlagsAt] = 0;
  HostStoreBig32(head + kHostTransactionAt, static_cast<uint32_t>(fields.transactionID));
  HostStoreBig32(head + kHostParameterCountAt, event.parameters.Count());

  HostAEItem travelling[kHostTravellingMost];
  const uint32_t count = HostViewTravelling(event, travelling);
  HostStoreBig32(head + kHostAttributeCountAt, count + event.attributes.Count());

  OSStatus err = 0;
  for (uint32_t index = 0; index < count && err == 0; ++index) {
    err = WriteItem(travelling[index], out);
  }
  if (err == 0) err = WriteItems(event.attributes, out);
  if (err == 0) err = WriteItems(event.parameters, out);
  return err;
}

OSStatus WriteValue(const HostAEItem& item, HostGather& out) {
  if (item.size > kHostFrameLimit || out.TotalSize() + item.size > kHostFrameLimit)
    return memFullErr;
  if (HostSwapIsCopy(item.type, item.size)) {
    out.Borrow(item.Bytes(), item.size);
  } else {
    HostSwapValue(item.type, out.Extend(item.size), item.Bytes(), item.size);
  }
  return 0;
}

OSStatus WriteContent(const HostAEItem& item, HostGather& out) {
  if (item.form == HostAEForm::kEvent) return WriteEvent(*item.event, out);
  uint8_t count[kHostCountSize];
  HostStoreBig32(count, item.items.Count());
  out.Append(count, sizeof count);
  return WriteItems(item.items, out);
}

// Writes a whole small value at once, because most items are small values.
OSStatus WriteSmallValue(const HostAEItem& item, HostGather& out) {
  uint8_t* head = out.Extend(kHostItemHeadSize + item.size);
  HostStoreBig32(head + kHostKeyAt, item.key);
  HostStoreBig32(head + kHostTypeAt, item.type);
  HostStoreBig32(head + kHostFormAt, FormWord(HostAEForm::kValue, item.size));
  HostSwapValue(item.type, head + kHostItemHeadSize, item.inlineBytes, item.size);
  return 0;
}

OSStatus WriteItem(const HostAEItem& item, HostGather& out) {
  if (!item.IsContainer() && item.size <= HostAEItem::kInlineSize)
    return WriteSmallValue(item, out);
  uint8_t* head = out.Extend(kHostItemHeadSize - sizeof(uint32_t));
  HostStoreBig32(head + kHostKeyAt, item.key);
  HostStoreBig32(head + kHostTypeAt, item.type);
  const size_t hole = out.AppendHole32();
  if (!item.IsContainer()) {
    out.FillHole32(hole, FormWord(HostAEForm::kValue, item.size));
    return WriteValue(item, out);
  }
  const size_t start = out.TotalSize();
  const OSStatus err = WriteContent(item, out);
  const size_t size = out.TotalSize() - start;
  if (err == 0) out.FillHole32(hole, FormWord(item.form, size));
  return err != 0 || out.TotalSize() <= kHostFrameLimit ? err : OSStatus{memFullErr};
}

}  // namespace

OSStatus HostFlattenEvent(const AppleEvent* desc, HostGather& out) {
  HostAEEvent* event = nullptr;
  const OSStatus err = HostFindEvent(desc, &event);
  return err == 0 ? HostFlattenEvent(*event, out) : err;
}

OSStatus HostFlattenEvent(const HostAEEvent& event, HostGather& out) {
  OSStatus err = HostGuard(OSStatus{memFullErr}, [&] { return WriteEvent(event, out); });
  // Gathering the pieces then needs no memory, so that only this can fail.
  if (err == 0 && !HostGuard([&] { out.Pieces(); })) err = memFullErr;
  if (err == 0 && out.TotalSize() > kHostFrameLimit) err = memFullErr;
  return err;
}

HostReplyIDs HostPeekReplyIDs(const HostFrameSlice& request) {
  if (request.size < kHostEventHeadSize) return {};
  return {static_cast<AEReturnID>(HostLoadBig16(request.bytes + kHostReturnIDAt)),
          static_cast<AETransactionID>(HostLoadBig32(request.bytes + kHostTransactionAt))};
}

void HostFlattenFailureReply(const HostReplyIDs& ids, SInt32 error,
                             uint8_t (&bytes)[kHostFailureReplySize]) {
  static_assert(kHostFailureReplySize == kHostEventHeadSize + kHostItemHeadSize + sizeof error);
  HostStoreBig32(bytes + kHostEventClassAt, kCoreEventClass);
  HostStoreBig32(bytes + kHostEventIDAt, kAEAnswer);
  HostStoreBig16(bytes + kHostReturnIDAt, static_cast<uint16_t>(ids.returnID));
  bytes[kHostVersionAt] = kHostEventVersion;
  bytes[kHostFlagsAt] = 0;
  HostStoreBig32(bytes + kHostTransactionAt, static_cast<uint32_t>(ids.transactionID));
  HostStoreBig32(bytes + kHostAttributeCountAt, 0);
  HostStoreBig32(bytes + kHostParameterCountAt, 1);
  uint8_t* const item = bytes + kHostEventHeadSize;
  HostStoreBig32(item + kHostKeyAt, keyErrorNumber);
  HostStoreBig32(item + kHostTypeAt, typeSInt32);
  HostStoreBig32(item + kHostFormAt, FormWord(HostAEForm::kValue, sizeof error));
  HostStoreBig32(item + kHostItemHeadSize, static_cast<uint32_t>(error));
}
