#include "platform/host/plist/walk.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <memory>
#include <utility>

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
// 64-bit words first (KeyOrder), because the strings are scattered in memory and most keys
// differ early.
//
// Most of the time is spent waiting for memory, so objects that the next steps need are prefetched.

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

// Compares two texts whose first `from` units are the same.
int Compare(HostTextView a, HostTextView b, size_t from) {
  const size_t common = std::min(a.length, b.length);
  if (a.narrow != nullptr && b.narrow != nullptr) {
    const int order =
        common > from ? std::memcmp(a.narrow + from, b.narrow + from, common - from) : 0;
    if (order != 0) return order;
  } else {
    for (size_t i = from; i < common; ++i) {
      if (a.At(i) != b.At(i)) return a.At(i) < b.At(i) ? -1 : 1;
    }
  }
  return (a.length > b.length) - (a.length < b.length);
}

// Returns how many units two texts have in common at their beginning, at most `limit`. The first
// `count` are known to be the same.
size_t CommonUnits(HostTextView a, HostTextView b, size_t count, size_t limit) {
  limit = std::min({limit, a.length, b.length});
  while (count < limit && a.At(count) == b.At(count)) ++count;
  return count;
}

// Returns the units from `from` on, as many as fit, as one number.
UInt64 PrefixOf(HostTextView text, size_t from, bool anyWide) {
  const size_t left = text.length - std::min(from, text.length);
  if (!anyWide && text.length >= sizeof(UInt64)) {
    if (left >= sizeof(UInt64)) return HostLoadBig64(text.narrow + from);
    if (left == 0) return 0;
    const UInt64 last = HostLoadBig64(text.narrow + text.length - sizeof(UInt64));
    return last << (8 * (sizeof(UInt64) - left));
  }
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
// and compared: the units from where the keys of a run begin to differ. Keys with equal words make
// a run that is sorted by the next word; only the keys of small runs are compared as a whole. Large
// runs are sorted by counting the values of each digit, which needs no branch that a processor
// could mispredict. The work grows with the total size of the keys.
class HostPlistWalk::KeyOrder {
 public:
  // `anyWide`: at least one key has units of two bytes.
  explicit KeyOrder(bool anyWide) : anyWide(anyWide) {}

  void Sort(SortedPair* first, SortedPair* last) {
    if (last - first <= kFew) return SortFew(first, last);
    runs.push_back({first, last, 0});
    while (!runs.empty()) {
      const Run run = runs.back();
      runs.pop_back();
      SortRun(run);
    }
  }

 private:
  static constexpr ptrdiff_t kFew = 8;
  static constexpr ptrdiff_t kSmall = 32;         // a run that is compared text by text
  static constexpr ptrdiff_t kDigitsLeast = 256;  // pairs for which counting digits is faster
  static constexpr size_t kNarrowUnits = sizeof(UInt64);
  static constexpr size_t kWideUnits = sizeof(UInt64) / sizeof(UniChar);

  // Pairs of which the first `from` units of the keys are the same.
  struct Run {
    SortedPair* first;
    SortedPair* last;
    size_t from;
  };

  static bool IsBefore(const SortedPair& a, const SortedPair& b, size_t from) {
    if (a.prefix != b.prefix) return a.prefix < b.prefix;
    return Compare(KeyOf(a.pair)->Text(), KeyOf(b.pair)->Text(), from) < 0;
  }
  // The index of each pair is the number of those before it: counted without a branch, which no
  // processor could predict. Where prefixes are equal, each pair is moved to its index.
  void SortFew(SortedPair* first, SortedPair* last) const {
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
      for (; hole > first && IsBefore(pair, hole[-1], 0); --hole) *hole = hole[-1];
      *hole = pair;
    }
  }

  void SortRun(const Run& run) {
    const size_t from = Common(run);
    const size_t longest = TakePrefixes(run.first, run.last, from);
    const auto isBefore = [from](const SortedPair& a, const SortedPair& b) {
      return IsBefore(a, b, from);
    };
    if (std::is_sorted(run.first, run.last, isBefore)) return;
    // The second: keys that differ only in how many NUL characters they end with.
    if (run.last - run.first <= kSmall || longest <= from) {
      return std::sort(run.first, run.last, isBefore);
    }
    SortByPrefix(run.first, run.last);
    const size_t next = from + (anyWide ? kWideUnits : kNarrowUnits);
    for (SortedPair *first = run.first, *end; first < run.last; first = end) {
      for (end = first + 1; end < run.last && end->prefix == first->prefix;) ++end;
      if (end - first > 1) runs.push_back({first, end, next});
    }
  }

  // Many keys of one dictionary tend to begin alike: the words are to begin where they differ.
  // Returns how many units all keys of the run have in common.
  size_t Common(const Run& run) const {
    const HostTextView model = KeyOf(run.first->pair)->Text();
    size_t common = model.length;
    for (const SortedPair* pair = run.first + 1; pair < run.last && common > run.from; ++pair) {
      if (run.last - pair > kAhead) __builtin_prefetch(pair[kAhead].pair.key);
      common = CommonUnits(model, KeyOf(pair->pair)->Text(), run.from, common);
    }
    return std::max(common, run.from);
  }

  // Returns the length of the longest key.
  size_t TakePrefixes(SortedPair* first, SortedPair* last, size_t from) const {
    size_t longest = 0;
    for (SortedPair* pair = first; pair < last; ++pair) {
      if (last - pair > kAhead) __builtin_prefetch(pair[kAhead].pair.key);
      const HostTextView text = KeyOf(pair->pair)->Text();
      pair->prefix = PrefixOf(text, from, anyWide);
      longest = std::max(longest, text.length);
    }
    return longest;
  }

  // By the upper half of the words first: then most pairs have their places.
  void SortByPrefix(SortedPair* first, SortedPair* last) {
    if (last - first < kDigitsLeast) return SortByComparing(first, last);
    SortByHalf(first, last, 32);
    for (SortedPair *run = first, *end; run < last; run = end) {
      for (end = run + 1; end < last && end->prefix >> 32 == run->prefix >> 32;) ++end;
      if (end - run >= kDigitsLeast)
        SortByHalf(run, end, 0);
      else if (end - run > 1)
        SortByComparing(run, end);
    }
  }

  static void SortByComparing(SortedPair* first, SortedPair* last) {
    std::sort(first, last,
              [](const SortedPair& a, const SortedPair& b) { return a.prefix < b.prefix; });
  }

  // By four digits of eight bits, of which the lowest is at bit `shift`, the lowest first. Each
  // pass keeps the order of the one before among pairs whose digits are equal.
  void SortByHalf(SortedPair* first, SortedPair* last, unsigned shift) {
    constexpr size_t kDigits = 4, kValues = 256;
    const auto count = static_cast<size_t>(last - first);
    UInt32 counts[kDigits][kValues] = {};
    for (const SortedPair* pair = first; pair < last; ++pair) {
      for (size_t i = 0; i < kDigits; ++i) {
        ++counts[i][static_cast<UInt8>(pair->prefix >> (shift + 8 * i))];
      }
    }
    if (scratchSize < count) {
      scratch = std::make_unique_for_overwrite<SortedPair[]>(count);
      scratchSize = count;
    }
    SortedPair *from = first, *to = scratch.get();
    for (size_t i = 0; i < kDigits; ++i) {
      const unsigned at = shift + 8 * static_cast<unsigned>(i);
      if (counts[i][static_cast<UInt8>(from->prefix >> at)] == count) continue;
      UInt32 sum = 0;
      for (UInt32& value : counts[i]) sum += std::exchange(value, sum);
      for (size_t j = 0; j < count; ++j) {
        to[counts[i][static_cast<UInt8>(from[j].prefix >> at)]++] = from[j];
      }
      std::swap(from, to);
    }
    if (from != first) std::copy(from, from + count, first);
  }

  const bool anyWide;
  std::vector<Run> runs;
  std::unique_ptr<SortedPair[]> scratch;
  size_t scratchSize = 0;
};

HostPlistWalk::HostPlistWalk(CFPropertyListRef root, Order order)
    : order(order), object(static_cast<const HostCFObject*>(root)) {}

bool HostPlistWalk::Fail(const char* why) {
  fault = why;
  return false;
}

// Appends the dictionary's pairs to `sorted` and sorts them.
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
  KeyOrder(anyWide).Sort(sorted.data() + first, next);
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
