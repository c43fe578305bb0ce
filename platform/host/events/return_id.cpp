#include "platform/host/events/return_id.h"

#include <CoreServices/AppleEvents.h>

#include <atomic>
#include <cstdint>

#include "platform/host/base/mutex.h"

// One bit for each generated return id whose event still exists. Ids are generated in ascending
// order, so a freed id is reused as late as possible. Two values are never generated: 0 and
// kAutoGenerateReturnID. There is no lock: a bit is claimed by the thread that changes it.

namespace {

constexpr uint32_t kIDsPerWord = 32;
constexpr uint32_t kIDWords = 65536 / kIDsPerWord;
constinit std::atomic<uint32_t> sReturnIDs[kIDWords] = {};
constinit std::atomic<uint32_t> sLastReturnID = 0;

// Returns the former value of the word.
template <class Change>
uint32_t ChangeWord(std::atomic<uint32_t>& word, Change change) {
  uint32_t before = word.load(std::memory_order_relaxed);
  if (HostIsSingleThreaded()) {
    word.store(change(before), std::memory_order_relaxed);
  } else {
    while (!word.compare_exchange_weak(before, change(before), std::memory_order_relaxed)) {
    }
  }
  return before;
}

bool ClaimReturnID(uint16_t id) {
  if (id == 0 || id == static_cast<uint16_t>(kAutoGenerateReturnID)) return false;
  const uint32_t bit = 1u << (id % kIDsPerWord);
  const uint32_t before =
      ChangeWord(sReturnIDs[id / kIDsPerWord], [bit](uint32_t word) { return word | bit; });
  return (before & bit) == 0;
}

}  // namespace

AEReturnID HostMakeReturnID(bool* owned) {
  *owned = true;
  for (int tries = 0; tries < 64; ++tries) {
    const uint32_t next = ChangeWord(sLastReturnID, [](uint32_t last) { return last + 1; }) + 1;
    if (ClaimReturnID(static_cast<uint16_t>(next))) return static_cast<AEReturnID>(next);
  }
  for (uint32_t id = 0; id < 65536; ++id) {
    if (sReturnIDs[id / kIDsPerWord].load(std::memory_order_relaxed) == UINT32_MAX) {
      id |= kIDsPerWord - 1;
    } else if (ClaimReturnID(static_cast<uint16_t>(id))) {
      return static_cast<AEReturnID>(id);
    }
  }
  // All are taken: the caller has as many events as ids, and gets one that is not its own.
  *owned = false;
  return 1;
}

void HostReturnIDDone(AEReturnID returnID) {
  const auto id = static_cast<uint16_t>(returnID);
  const uint32_t bit = 1u << (id % kIDsPerWord);
  ChangeWord(sReturnIDs[id / kIDsPerWord], [bit](uint32_t word) { return word & ~bit; });
}
