#include "platform/host/preferences/unread.h"

#include "platform/host/base/guard.h"

void HostUnreadPreferences::Note(CFStringRef key, bool isUnread) {
  if (isUnread == areAll) {
    if (others) others->Remove(key);
    if (others && others->Count() == 0) others = {};
    return;
  }
  const bool isNoted = HostGuard(false, [&] {
    if (!others) {
      others = HostRetained<HostCFDictionary>(
          CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                    &kCFTypeDictionaryValueCallBacks));
    }
    return others && others->Set(key, key);
  });
  if (!isNoted && isUnread) NoteAll(true);
}

void HostUnreadPreferences::NoteAll(bool isUnread) {
  areAll = isUnread;
  others = {};
}

bool HostUnreadPreferences::Has(CFStringRef key) const {
  return areAll != (others && others->Find(key) != nullptr);
}
