#include "platform/host/plist/walk.h"

#include <algorithm>
#include <cassert>

#include "platform/host/objects/cf_array.h"
#include "platform/host/plist/codec.h"

// How the walk goes.
//
// One step of Next visits one object. Open containers are frames in a list, so nothing recurses. A
// frame counts the indexes of its container; in a dictionary some of these are holes. The depth
// limit is also what ends the walk of a container that contains itself.
//
// Sorted dictionaries: on entering one, the addresses of its pairs are added to `sorted` in order;
// on leaving it, they are cut off again. So `sorted` holds those of all open dictionaries, the
// innermost last, and a frame remembers where its own begin.
//
// Most of the time is spent waiting for memory, so objects that the next steps need are prefetched.

namespace {

const HostCFString* KeyOf(const HostPair& pair) {
  return static_cast<const HostCFString*>(static_cast<const HostCFObject*>(pair.key));
}

// The items of a container that is in the cache itself. (Always inline: a call to a function that
// only fetches would be dropped, as one without effect.)
[[gnu::always_inline]] inline void FetchItems(const void* object) {
  constexpr size_t kMost = 8;
  if (const auto* array = HostCast<HostCFArray>(object)) {
    const void* const* const values = array->Values();
    for (size_t i = 0; i < std::min(array->Count(), kMost); ++i) __builtin_prefetch(values[i]);
  } else if (const auto* dictionary = HostCast<HostCFDictionary>(object)) {
    const HostPair* const pairs = dictionary->Pairs().first;
    for (size_t i = 0; i < std::min(dictionary->Pairs().Size(), kMost); ++i) {
      __builtin_prefetch(pairs[i].key);
      __builtin_prefetch(pairs[i].value);
    }
  }
}

}  // namespace

HostPlistWalk::HostPlistWalk(CFPropertyListRef root, Order order)
    : order(order), object(static_cast<const HostCFObject*>(root)) {}

bool HostPlistWalk::Fail(const char* why) {
  fault = why;
  return false;
}

bool HostPlistWalk::Enter(const HostCFObject* container) {
  assert(frames.size() <= kHostPlistDepth);
  if (frames.size() == kHostPlistDepth) {
    return Fail("containers nest more than 512 levels deep, or one contains itself");
  }
  Frame frame = {container, 0, 0, sorted.size()};
  if (const auto* array = HostCast<HostCFArray>(container)) {
    if (!array->ValueCallbacks().ComparesObjects()) return Fail("an array of bare pointers");
    frame.end = array->Count();
  } else {
    const auto* dictionary = HostCast<HostCFDictionary>(container);
    const HostDictionaryCallbacks& callbacks = dictionary->Callbacks();
    if (!callbacks.key.ComparesObjects() || !callbacks.value.ComparesObjects()) {
      return Fail("a dictionary of bare pointers");
    }
    if (order == Order::kSorted) {
      FetchItems(container);
      sorted.resize(frame.firstPair + dictionary->Count());
      if (!keyOrder.Sort(dictionary->Pairs(), sorted.data() + frame.firstPair)) {
        return Fail("a dictionary key is not a string");
      }
    }
    const auto pairs = dictionary->Pairs();
    frame.end = order == Order::kSorted ? sorted.size() - frame.firstPair
                                        : static_cast<size_t>(pairs.end() - pairs.begin());
  }
  frames.push_back(frame);
  step = Step::kOpen;
  return true;
}

bool HostPlistWalk::Visit(const void* item) {
  object = static_cast<const HostCFObject*>(item);
  level = frames.size();
  step = Step::kLeaf;
  switch (object != nullptr ? object->TypeID() : CFTypeID{kHostTypeNone}) {
    case kHostTypeArray:
    case kHostTypeDictionary:
      return Enter(object);
    case kHostTypeString:
    case kHostTypeNumber:
    case kHostTypeBoolean:
    case kHostTypeData:
    case kHostTypeDate:
      return true;
    case kHostTypeNone:
      return Fail("there is no object");
    default:
      return Fail("an object of a class that property lists do not have");
  }
}

// Sorted, the objects lie all over the memory: they are fetched in steps, each of which reads only
// what the one before has brought.
[[gnu::always_inline]] inline void HostPlistWalk::FetchAhead(size_t index) const {
  constexpr size_t kStep = 8;
  const size_t end = sorted.size();
  if (index + kStep < end) FetchItems(sorted[index + kStep]->value);
  if (index + 2 * kStep < end) {
    __builtin_prefetch(static_cast<const UInt8*>(sorted[index + 2 * kStep]->value) + 64);
    __builtin_prefetch(static_cast<const UInt8*>(sorted[index + 2 * kStep]->value) + 128);
  }
  if (index + 3 * kStep < end) {
    __builtin_prefetch(sorted[index + 3 * kStep]->key);
    __builtin_prefetch(static_cast<const UInt8*>(sorted[index + 3 * kStep]->key) + 64);
    __builtin_prefetch(sorted[index + 3 * kStep]->value);
  }
  if (index + 4 * kStep < end) __builtin_prefetch(sorted[index + 4 * kStep]);
}

// Goes to the next pair of an open dictionary and skips holes. Returns false at its end.
bool HostPlistWalk::NextPair(Frame& frame) {
  const auto* dictionary = static_cast<const HostCFDictionary*>(frame.container);
  while (frame.next < frame.end) {
    const size_t index = frame.next++;
    if (order == Order::kSorted) FetchAhead(frame.firstPair + index);
    const HostPair& pair = order == Order::kSorted ? *sorted[frame.firstPair + index]
                                                   : dictionary->Pairs().begin()[index];
    if (pair.key == nullptr) continue;
    key = order == Order::kSorted ? KeyOf(pair) : HostCast<HostCFString>(pair.key);
    object = static_cast<const HostCFObject*>(pair.value);
    return true;
  }
  return false;
}

bool HostPlistWalk::Next() {
  if (atRoot) {
    atRoot = false;
    return Visit(object);
  }
  if (frames.empty()) return false;
  Frame& frame = frames.back();
  key = nullptr;
  if (frame.container->TypeID() == kHostTypeArray) {
    const auto* array = static_cast<const HostCFArray*>(frame.container);
    if (frame.next < frame.end) return Visit(array->Values()[frame.next++]);
  } else if (NextPair(frame)) {
    return key != nullptr ? Visit(object) : Fail("a dictionary key is not a string");
  }
  object = frame.container;
  assert(frame.next == frame.end && frame.firstPair <= sorted.size());
  sorted.resize(frame.firstPair);
  frames.pop_back();
  level = frames.size();
  step = Step::kClose;
  return true;
}
