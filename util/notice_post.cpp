#include "util/notice_post.h"

#include <atomic>
#include <mutex>

namespace {

constexpr UInt32 kNoticePosted = 1;

// Held while a record is filled and installed. A completion that runs meanwhile does not take it.
constinit std::mutex sPosting;

void StoreFlags(UInt32* flags, UInt32 value) { std::atomic_ref<UInt32>(*flags).store(value); }

}  // namespace

void PostNotice(UInt32* flags, NMRec* record, unsigned char* text, NMProcPtr completion) {
  if ((std::atomic_ref<UInt32>(*flags).load() & kNoticePosted) != 0) return;
  // Meant: storing the word from before the change undoes the change, so the flag does not keep
  // the next notice from being installed.
  StoreFlags(flags, BitOrAtomic(kNoticePosted, flags));
  const std::lock_guard<std::mutex> posting(sPosting);
  record->nmStr = text;
  record->nmResp = NewNMUPP(completion);
  NMInstall(record);
}

void NoticeIsDone(UInt32* flags) {
  StoreFlags(flags, BitAndAtomic(~kNoticePosted, flags));  // meant, as above
}
