#include <algorithm>
#include <utility>
#include <vector>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/guard.h"
#include "platform/host/events/codec.h"
#include "platform/host/events/event.h"
#include "platform/host/events/layout.h"
#include "platform/host/events/storage.h"
#include "platform/host/events/types.h"

namespace {

// One cursor over the bytes of an event, and a stack of the containers that it is inside of. Every
// item that has been read is already part of the event's tree, so after a failure releasing the
// tree frees everything.
class Decoder {
 public:
  explicit Decoder(const HostFrameSlice& body)
      : frame(body.owner.Get()), bytes(body.bytes), end(body.size) {}

  OSStatus Run(HostAEEvent* root);

 private:
  struct Level {
    HostAEItems* items;   // where items go now: of an event, first its attributes
    HostAEEvent* event;   // null for a list or record
    uint32_t left;        // items still to come
    uint32_t parameters;  // of an event whose attributes are being read
    bool attributes;
    bool keyed;
    size_t end;
    bool mayRepeat;  // a key among the items may have come before
  };

  OSStatus OpenItems(HostAEItems* items, bool keyed, size_t contentEnd);
  OSStatus OpenEvent(HostAEEvent* event, size_t contentEnd);
  OSStatus BeginParameters(Level& level);
  OSStatus CloseLevel();
  OSStatus ReadItem(Level& level);
  OSStatus ReadContainer(Level& level, HostAEItem* item, size_t contentEnd);
  void ReadValue(HostAEItem* item, size_t size);
  OSStatus AddItem(Level& level, const HostAEItem& item);

  size_t Left(size_t limit) const { return limit - at; }
  bool CountsFit(uint64_t count, size_t limit) const {
    return count * kHostItemHeadSize <= Left(limit);
  }

  HostFrameBuffer* frame;
  uint8_t* bytes;
  size_t end;
  size_t at = 0;
  int depth = 0;
  Level levels[kHostNestingLimit];
};

OSStatus Reserve(HostAEItems* items, uint32_t count) {
  return count == 0 || items->Reserve(count) ? 0 : OSStatus{memFullErr};
}

bool HasDuplicates(const HostAEItems& items) {
  std::vector<AEKeyword> keys;
  keys.reserve(items.Count());
  for (const HostAEItem& item : items) keys.push_back(item.key);
  std::sort(keys.begin(), keys.end());
  return std::adjacent_find(keys.begin(), keys.end()) != keys.end();
}

OSStatus Decoder::Run(HostAEEvent* root) {
  OSStatus err = OpenEvent(root, end);
  while (err == 0 && depth > 0) {
    Level& level = levels[depth - 1];
    if (level.left > 0) {
      --level.left;
      err = ReadItem(level);
    } else if (level.attributes) {
      err = BeginParameters(level);
    } else {
      err = CloseLevel();
    }
  }
  return err;
}

OSStatus Decoder::OpenEvent(HostAEEvent* event, size_t contentEnd) {
  if (depth == kHostNestingLimit || Left(contentEnd) < kHostEventHeadSize) return errAECorruptData;
  const uint8_t* head = bytes + at;
  if (head[kHostVersionAt] > kHostEventVersion) return errAENewerVersion;
  if (head[kHostVersionAt] == 0 || head[kHostFlagsAt] != 0) return errAECorruptData;
  at += kHostEventHeadSize;

  const uint32_t attributes = HostLoadBig32(head + kHostAttributeCountAt);
  const uint32_t parameters = HostLoadBig32(head + kHostParameterCountAt);
  if (!CountsFit(uint64_t{attributes} + parameters, contentEnd)) return errAECorruptData;
  event->fields.eventClass = HostLoadBig32(head + kHostEventClassAt);
  event->fields.eventID = HostLoadBig32(head + kHostEventIDAt);
  event->fields.returnID = static_cast<SInt16>(HostLoadBig16(head + kHostReturnIDAt));
  event->fields.transactionID = static_cast<SInt32>(HostLoadBig32(head + kHostTransactionAt));
  levels[depth++] = {&event->attributes, event, attributes, parameters, true, true,
                     contentEnd,         false};
  return Reserve(&event->attributes, attributes);
}

OSStatus Decoder::BeginParameters(Level& level) {
  if (level.mayRepeat && HasDuplicates(*level.items)) return errAECorruptData;
  level.mayRepeat = false;
  level.items = &level.event->parameters;
  level.left = level.parameters;
  level.attributes = false;
  return Reserve(level.items, level.left);
}

OSStatus Decoder::OpenItems(HostAEItems* items, bool keyed, size_t contentEnd) {
  if (depth == kHostNestingLimit || Left(contentEnd) < kHostCountSize) return errAECorruptData;
  const uint32_t count = HostLoadBig32(bytes + at);
  at += kHostCountSize;
  if (!CountsFit(count, contentEnd)) return errAECorruptData;
  levels[depth++] = {items, nullptr, count, 0, false, keyed, contentEnd, false};
  return Reserve(items, count);
}

OSStatus Decoder::CloseLevel() {
  const Level& level = levels[--depth];
  if (at != level.end) return errAECorruptData;
  if (level.keyed && level.mayRepeat && HasDuplicates(*level.items)) return errAECorruptData;
  if (depth > 0) {
    const int height = level.event != nullptr ? level.event->Height() : level.items->Height();
    levels[depth - 1].items->NoteHeight(height);
  }
  return 0;
}

OSStatus Decoder::ReadItem(Level& level) {
  if (Left(level.end) < kHostItemHeadSize) return errAECorruptData;
  HostAEItem item;
  item.key = HostLoadBig32(bytes + at + kHostKeyAt);
  item.type = HostLoadBig32(bytes + at + kHostTypeAt);
  const uint32_t word = HostLoadBig32(bytes + at + kHostFormAt);
  item.form = static_cast<HostAEForm>(word >> kHostFormShift);
  const size_t size = word & kHostContentMask;
  at += kHostItemHeadSize;

  if ((word & kHostReservedMask) != 0 || size > Left(level.end) ||
      !HostFormFits(item.form, item.type) || (!level.keyed && item.key != typeWildCard)) {
    return errAECorruptData;
  }
  if (item.IsContainer()) return ReadContainer(level, &item, at + size);
  if (item.type == typeNull && size != 0) return errAECorruptData;
  ReadValue(&item, size);
  return AddItem(level, item);
}

void Decoder::ReadValue(HostAEItem* item, size_t size) {
  uint8_t* content = bytes + at;
  at += size;
  item->size = static_cast<uint32_t>(size);
  if (size <= HostAEItem::kInlineSize) {
    HostSwapValue(item->type, item->inlineBytes, content, size);
    return;
  }
  HostSwapValue(item->type, content, content, size);
  item->run = {content, nullptr};
  if (frame != nullptr && size >= frame->Capacity() / 2) {
    // The value is most of the frame, so copies of it share the frame.
    frame->Retain();
    item->run.owner = frame;
  }
}

// Takes the item over even if it fails.
OSStatus Decoder::AddItem(Level& level, const HostAEItem& item) {
  const HostAttributeRow* row = level.attributes ? HostFindAttributeRow(item.key) : nullptr;
  if (row == nullptr) {
    level.mayRepeat |= level.items->MayHave(item.key);
    level.items->Append(item);  // there is room for as many as were announced
    return 0;
  }
  HostAEItem earlier;
  HostAEItem taken = item;
  const bool fits = (row->flags & kHostAttributeTravels) != 0 && !taken.IsContainer() &&
                    !HostViewAttribute(*level.event, *row, &earlier) &&
                    HostSetAttributeField(level.event, *row, taken.type, taken.Bytes(), taken.size);
  taken.Release();
  return fits ? 0 : OSStatus{errAECorruptData};
}

OSStatus Decoder::ReadContainer(Level& level, HostAEItem* item, size_t contentEnd) {
  if (item->form == HostAEForm::kEvent) {
    HostAEEvent* event = HostAcquireEvent();
    if (event == nullptr) return memFullErr;
    item->SetEvent(event);
  } else {
    item->SetEmpty(item->type, item->form);
  }
  OSStatus err = AddItem(level, *item);
  if (err != 0) return err;
  HostAEItem& added = level.items->end()[-1];
  if (added.form == HostAEForm::kEvent) return OpenEvent(added.event, contentEnd);
  return OpenItems(&added.items, added.form == HostAEForm::kRecord, contentEnd);
}

}  // namespace

OSStatus HostDecodeEvent(HostFrameSlice body, AppleEvent* out) {
  AEInitializeDesc(out);
  HostAEEvent* event = HostAcquireEvent();
  if (event == nullptr) return memFullErr;
  HostAEItem item;
  item.key = typeWildCard;
  item.SetEvent(event);
  OSStatus err = HostGuard(OSStatus{memFullErr}, [&] { return Decoder(body).Run(event); });
  event->frame = std::move(body.owner);
  if (err == 0) {
    err = HostMakeDesc(&item, out);
  } else {
    item.Release();
  }
  return err;
}
