#include "platform/host/plist/walk.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/host/base/byte_order.h"
#include "platform/host/objects/cf_array.h"
#include "platform/host/plist/codec.h"

// How the walk goes.
//
// One step of Next visits one object. Open containers are frames in a list, so nothing recurses. A
// frame counts the indexes of its container; in a dictionary some of these are holes. The depth
// limit is also what ends the walk of a container that contains itself.
//
// Sorted dictionaries: on entering one, its pairs are copied to the end of `sorted` and sorted
// there; on leaving it, they are cut off again. So `sorted` holds the pairs of all open
// dictionaries, the innermost last, and a frame remembers where its own begin. Keys are compared by
// 64-bit prefixes first (KeyOrder), because the strings are scattered in memory and most keys
// differ early.
//
// Most of the time goes into waiting for memory. The prefetches ask for what the next steps need.

namespace {

constexpr ptrdiff_t kAhead = 16;  // keys that are fetched from memory meanwhile

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

int Compare(HostTextView a, HostTextView b) {
  const size_t common = std::min(a.length, b.length);
  if (a.narrow != nullptr && b.narrow != nullptr) {
    const int order = std::memcmp(a.narrow, b.narrow, common);
    if (order != 0) return order;
  } else {
    for (size_t i = 0; i < common; ++i) {
      if (a.At(i) != b.At(i)) return a.At(i) < b.At(i) ? -1 : 1;
    }
  }
  return (a.length > b.length) - (a.length < b.length);
}

// Returns how many units two texts have in common at their beginning, at most `limit`.
size_t CommonUnits(HostTextView a, HostTextView b, size_t limit) {
  limit = std::min({limit, a.length, b.length});
  size_t count = 0;
  while (count < limit && a.At(count) == b.At(count)) ++count;
  return count;
}

// The units from `from` on as one number, as many as it holds.
UInt64 PrefixOf(HostTextView text, size_t from, bool anyWide) {
  const size_t left = text.length - std::min(from, text.length);
  if (!anyWide && left >= sizeof(UInt64)) return HostLoadBig64(text.narrow + from);
  const size_t unitBits = anyWide ? 16 : 8;
  const size_t room = 64 / unitBits;
  UInt64 prefix = 0;
  for (size_t i = 0; i < room; ++i) {
    prefix = prefix << unitBits | (i < left ? text.At(from + i) : 0u);
  }
  return prefix;
}

}  // namespace

// Sorts pairs by their keys. The strings are scattered in memory, so a word of each is fetched once
// and compared; keys with equal words are compared by the next word, and few of them as a whole.
struct HostPlistWalk::KeyOrder {
  SortedPair* first;
  SortedPair* last;
  bool anyWide;

  void Sort() const {
    if (last - first <= kFew) return SortFew();
    const size_t common = Common();
    TakePrefixes(first, last, common);
    if (std::is_sorted(first, last, IsBefore)) return;
    std::sort(first, last,
              [](const SortedPair& a, const SortedPair& b) { return a.prefix < b.prefix; });
    for (SortedPair *run = first, *end; run < last; run = end) {
      for (end = run + 1; end < last && end->prefix == run->prefix;) ++end;
      if (end - run > 1) SortRun(run, end, common + (anyWide ? kWideUnits : kNarrowUnits));
    }
  }

 private:
  static constexpr ptrdiff_t kFew = 8;
  static constexpr size_t kNarrowUnits = sizeof(UInt64);
  static constexpr size_t kWideUnits = sizeof(UInt64) / sizeof(UniChar);

  static bool IsBefore(const SortedPair& a, const SortedPair& b) {
    if (a.prefix != b.prefix) return a.prefix < b.prefix;
    return Compare(KeyOf(a.pair)->Text(), KeyOf(b.pair)->Text()) < 0;
  }
  // The index of each pair is the number of those before it: counted without a branch, which no
  // processor could predict. Where prefixes are equal, each pair is moved to its index.
  void SortFew() const {
    const size_t count = static_cast<size_t>(last - first);
    UInt64 prefixes[kFew];
    HostPair pairs[kFew];
    bool areApart = true;
    for (size_t i = 0; i < count; ++i) {
      pairs[i] = first[i].pair;
      prefixes[i] = PrefixOf(KeyOf(pairs[i])->Text(), 0, anyWide);
    }
    for (size_t i = 0; i < count; ++i) {
      size_t index = 0;
      for (size_t j = 0; j < count; ++j) {
        index += prefixes[j] < prefixes[i];
        areApart &= j == i || prefixes[j] != prefixes[i];
      }
      first[index] = {prefixes[i], pairs[i]};
    }
    if (areApart) return;
    for (size_t i = 0; i < count; ++i) {
      const SortedPair pair = {prefixes[i], pairs[i]};
      SortedPair* hole = first + i;
      for (; hole > first && IsBefore(pair, hole[-1]); --hole) *hole = hole[-1];
      *hole = pair;
    }
  }
  // Many keys of one dictionary tend to begin alike: the prefixes are to begin where they differ.
  size_t Common() const {
    const HostTextView model = KeyOf(first->pair)->Text();
    size_t common = model.length;
    for (const SortedPair* pair = first + 1; pair < last && common > 0; ++pair) {
      if (last - pair > kAhead) __builtin_prefetch(pair[kAhead].pair.key);
      common = CommonUnits(model, KeyOf(pair->pair)->Text(), common);
    }
    return common;
  }
  void TakePrefixes(SortedPair* begin, SortedPair* end, size_t from) const {
    for (SortedPair* pair = begin; pair < end; ++pair) {
      if (end - pair > kAhead) __builtin_prefetch(pair[kAhead].pair.key);
      pair->prefix = PrefixOf(KeyOf(pair->pair)->Text(), from, anyWide);
    }
  }
  void SortRun(SortedPair* begin, SortedPair* end, size_t from) const {
    TakePrefixes(begin, end, from);
    std::sort(begin, end, IsBefore);
  }
};

HostPlistWalk::HostPlistWalk(CFPropertyListRef root, Order order)
    : order(order), object(static_cast<const HostCFObject*>(root)) {}

bool HostPlistWalk::Fail(const char* why) {
  fault = why;
  return false;
}

// Into `sorted`, after those that are there.
bool HostPlistWalk::Sort(const HostCFDictionary& dictionary) {
  const size_t first = sorted.size();
  sorted.resize(first + dictionary.Count());
  SortedPair* next = sorted.data() + first;
  bool anyWide = false;
  const auto pairs = dictionary.Pairs();
  for (const HostPair& pair : pairs) {
    if (pairs.end() - &pair > kAhead) __builtin_prefetch((&pair)[kAhead].key);
    if (pair.key == nullptr) continue;
    const auto* text = HostCast<HostCFString>(pair.key);
    if (text == nullptr) return Fail("a dictionary key is not a string");
    anyWide |= text->Latin1() == nullptr;
    next++->pair = pair;
  }
  KeyOrder{sorted.data() + first, next, anyWide}.Sort();
  return true;
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
      if (!Sort(*dictionary)) return false;
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

// Sorted, the objects lie all over the memory: they are fetched in three steps, each of which reads
// only what the one before has brought.
[[gnu::always_inline]] inline void HostPlistWalk::FetchAhead(size_t index) const {
  constexpr size_t kStep = 4;
  const size_t end = sorted.size();
  if (index + kStep < end) FetchItems(sorted[index + kStep].pair.value);
  if (index + 2 * kStep < end) {
    __builtin_prefetch(static_cast<const UInt8*>(sorted[index + 2 * kStep].pair.value) + 64);
  }
  if (index + 3 * kStep < end) {
    __builtin_prefetch(sorted[index + 3 * kStep].pair.key);
    __builtin_prefetch(sorted[index + 3 * kStep].pair.value);
  }
}

// Goes to the next pair of an open dictionary and skips holes. Returns false at its end.
bool HostPlistWalk::NextPair(Frame& frame) {
  const auto* dictionary = static_cast<const HostCFDictionary*>(frame.container);
  while (frame.next < frame.end) {
    const size_t index = frame.next++;
    if (order == Order::kSorted) FetchAhead(frame.firstPair + index);
    const HostPair& pair = order == Order::kSorted ? sorted[frame.firstPair + index].pair
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
