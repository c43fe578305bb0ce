#include "platform/host/events/introspect.h"

#include <CoreServices/AEDataModel.h>

#include "platform/host/events/event.h"
#include "platform/host/events/storage.h"

std::vector<FourCharCode> HostAttributeKeys(const AEDesc* event) {
  std::vector<FourCharCode> keys;
  HostAEEvent* found = nullptr;
  if (HostFindEvent(event, &found) != 0) return keys;
  for (size_t index = 0; const HostAttributeRow* row = HostAttributeAt(index); ++index) {
    HostAEItem view;
    if (HostViewAttribute(*found, *row, &view)) keys.push_back(row->key);
  }
  for (const HostAEItem& item : found->attributes) keys.push_back(item.key);
  return keys;
}
