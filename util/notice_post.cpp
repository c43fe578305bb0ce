#include "util/notice_post.h"

#include <atomic>
#include <mutex>

namespace {

constexpr UInt32 kNoticePosted = 1;

// Held while a record is filled and installed. A completion that runs meanwhile does not lock it.
constinit std::mutex sPosting;

void StoreFlags(UInt32* flags, UInt32 value) { std::atomic_ref<UInt32>(*flags).store(value); }

}  // namespace

void PostNotice(UInt32* flags, NMRec* record, unsigned char* text, NMProcPtr completion) {
  if ((std::atomic_ref<UInt32>(*flags).load() & kNoticePosted) != 0) return;
  // Meant: stores the word from before the change, which undoes it, because callers rely on the
  // next notice being installed, too.
  StoreFlags(flags, BitOrAtomic(kNoticePosted, flags));
  const std::lock_guard<std::mutex> posting(sPosting);
  record->nmStr = text;
  record->nmResp = NewNMUPP(completion);
  NMInstall(record);
}

void NoticeIsDone(UInt32* flags) {
  StoreFlags(flags, BitAndAtomic(~kNoticePosted, flags));  // Meant: as in PostNotice.
}
