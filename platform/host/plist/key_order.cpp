#include "platform/host/plist/key_order.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
#include <utility>

#include "platform/host/base/byte_order.h"
#include "platform/host/objects/cf_string.h"

// How keys are sorted.
//
// The strings are scattered over the memory, and waiting for them is most of the work. So each is
// read once, in the order in which the list has the pairs, which is mostly that in memory; its
// first units are kept in numbers that compare as the text does. A string is read again only if
// other keys begin with the same units.
//
// A run is a part of the pairs whose keys are the same before their numbers. It is sorted by the
// numbers, most significant bits first: one pass finds the highest bit in which any two differ,
// another one distributes the pairs over buckets by some bits from that one down, and each bucket
// is a run of its own. So units that all keys of a run have in common cost nothing, and no
// processor has to predict how two keys compare. Each distribution moves the pairs to the other one
// of two buffers, shifting out the units that are the same. The runs wait in a list, so that
// nothing recurses. A run of a few pairs is finished by counting for each how many are before it.
//
// The work grows with the total size of the keys, whatever they are. Lists that are in order
// already, such as those from sorted files, take one pass.

namespace {

constexpr size_t kFew = 16;         // pairs that are placed by counting those before them
constexpr ptrdiff_t kAhead = 32;    // keys that are fetched from memory meanwhile
constexpr size_t kMostKept = 4096;  // items for which memory is kept
constexpr size_t kBatch = 256;      // runs that wait for their next units
constexpr unsigned kLeastBits = 4;  // of a number that choose the bucket
constexpr unsigned kMostBits = 10;
constexpr size_t kNumberBytes = sizeof(UInt64) + sizeof(UInt32);

// Compares two texts.
int Compare(HostTextView a, HostTextView b) {
  const size_t common = std::min(a.length, b.length);
  if (a.narrow != nullptr && b.narrow != nullptr) {
    const int order = common > 0 ? std::memcmp(a.narrow, b.narrow, common) : 0;
    if (order != 0) return order;
  } else {
    for (size_t i = 0; i < common; ++i) {
      if (a.At(i) != b.At(i)) return a.At(i) < b.At(i) ? -1 : 1;
    }
  }
  return (a.length > b.length) - (a.length < b.length);
}

// Eight units of one byte each. After the end of a text are zeros, so a text with NUL characters at
// its end gives the same numbers as one without.
[[gnu::always_inline]] inline UInt64 NarrowWord(const HostTextView& text, size_t from) {
  const size_t left = text.length - std::min(from, text.length);
  if (left >= sizeof(UInt64)) return HostLoadBig64(text.narrow + from);
  if (left == 0) return 0;
  if (text.length >= sizeof(UInt64)) {
    const UInt64 last = HostLoadBig64(text.narrow + text.length - sizeof(UInt64));
    return last << (8 * (sizeof(UInt64) - left));
  }
  UInt64 word = 0;
  for (size_t i = 0; i < left; ++i) word = word << 8 | text.narrow[from + i];
  return word << (8 * (sizeof(UInt64) - left));
}

// Four units of two bytes each.
UInt64 WideWord(HostTextView text, size_t from) {
  UInt64 word = 0;
  for (size_t i = from; i < from + sizeof word / sizeof(UniChar); ++i) {
    word = word << 16 | (i < text.length ? text.At(i) : 0u);
  }
  return word;
}

}  // namespace

HostTextView HostKeyOrder::TextOf(const Item& item) const {
  const void* const key = list.first[item.position].key;
  return static_cast<const HostCFString*>(static_cast<const HostCFObject*>(key))->Text();
}

[[gnu::always_inline]] inline void HostKeyOrder::Load(Item* item, const HostTextView& text,
                                                      size_t from) const {
  const size_t units = sizeof(UInt64) / (anyWide ? sizeof(UniChar) : 1);
  item->word = anyWide ? WideWord(text, from) : NarrowWord(text, from);
  item->next = static_cast<UInt32>(
      (anyWide ? WideWord(text, from + units) : NarrowWord(text, from + units)) >> 32);
}

// The index of each pair is the number of those before it: counted without a branch, which no
// processor could predict. Pairs with the same numbers stay together, as a run.
void HostKeyOrder::PlaceFew(const Run& run) {
  assert(run.count <= kFew);
  UInt32 indexes[kFew] = {};
  bool areApart = true;
  for (UInt32 i = 1; i < run.count; ++i) {
    const Item item = run.items[i];
    UInt32 index = 0;
    for (UInt32 j = 0; j < i; ++j) {
      const Item& other = run.items[j];
      const bool isSame = (other.word == item.word) & (other.next == item.next);
      const bool isBefore =
          (other.word < item.word) | ((other.word == item.word) & (other.next <= item.next));
      index += isBefore;
      indexes[j] += !isBefore;
      areApart &= !isSame;
    }
    indexes[i] = index;
  }
  if (areApart) {
    for (size_t i = 0; i < run.count; ++i) {
      run.sorted[indexes[i]] = &list.first[run.items[i].position];
    }
    return;
  }
  for (size_t i = 0; i < run.count; ++i) run.spare[indexes[i]] = run.items[i];
  for (size_t first = 0, end; first < run.count; first = end) {
    const Item& item = run.spare[first];
    for (end = first + 1;
         end < run.count && run.spare[end].word == item.word && run.spare[end].next == item.next;) {
      ++end;
    }
    if (end - first == 1) {
      run.sorted[first] = &list.first[item.position];
    } else {
      runs.push_back({run.spare + first, run.items + first, run.sorted + first, end - first,
                      run.from + run.known, 0});
    }
  }
}

// Loads the next units of the keys of all runs that have used up theirs. Each of them may be small,
// so the strings that are fetched ahead belong to later runs, too.
void HostKeyOrder::LoadUnloaded() {
  const size_t known = kNumberBytes / (anyWide ? sizeof(UniChar) : 1);
  struct Cursor {
    const Run* run;
    size_t item = 0;
  };
  Cursor pairs{unloaded.data()}, keys{unloaded.data()};
  const Run* const end = unloaded.data() + unloaded.size();
  const auto advance = [](Cursor& cursor) {
    if (++cursor.item < cursor.run->count) return;
    cursor.item = 0;
    ++cursor.run;
  };
  const auto fetchPair = [&] {
    if (pairs.run == end) return;
    __builtin_prefetch(&list.first[pairs.run->items[pairs.item].position]);
    advance(pairs);
  };
  const auto fetchKey = [&] {
    if (keys.run == end) return;
    const Run& run = *keys.run;
    const auto* key = static_cast<const UInt8*>(list.first[run.items[keys.item].position].key);
    __builtin_prefetch(key);
    __builtin_prefetch(key + sizeof(HostCFString) + (anyWide ? 2 * run.from : run.from));
    advance(keys);
  };
  for (size_t i = 0; i < 2 * kAhead; ++i) fetchPair();
  for (size_t i = 0; i < kAhead; ++i) fetchKey();
  for (Run& run : unloaded) {
    size_t longest = 0;
    for (Item* item = run.items; item < run.items + run.count; ++item) {
      fetchPair();
      fetchKey();
      const HostTextView text = TextOf(*item);
      Load(item, text, run.from);
      longest = std::max(longest, text.length);
    }
    run.known = known;
    if (longest > run.from)
      runs.push_back(run);
    else
      PlaceByLength(run);
  }
  unloaded.clear();
}

void HostKeyOrder::Distribute(Run& run, UInt64 differing) {
  const auto top = static_cast<unsigned>(std::bit_width(differing));
  const unsigned bits =
      std::clamp(static_cast<unsigned>(std::bit_width(run.count)) - 2, kLeastBits, kMostBits);
  const unsigned shift = top > bits ? top - bits : 0;
  const size_t buckets = size_t{1} << bits;
  const auto bucketOf = [shift, buckets](UInt64 word) {
    return static_cast<size_t>(word >> shift) & (buckets - 1);
  };
  UInt32 ends[1 << kMostBits];
  std::fill_n(ends, buckets, 0);
  Item* const end = run.items + run.count;
  for (const Item* item = run.items; item < end; ++item) ++ends[bucketOf(item->word)];
  UInt32 sum = 0;
  for (size_t i = 0; i < buckets; ++i) sum += std::exchange(ends[i], sum);

  const unsigned unitBits = anyWide ? 16 : 8;
  const unsigned same = (64 - top) / unitBits;
  if (same == 0) {
    for (const Item* item = run.items; item < end; ++item) {
      run.spare[ends[bucketOf(item->word)]++] = *item;
    }
  } else {
    const unsigned gone = same * unitBits;
    for (const Item* item = run.items; item < end; ++item) {
      const UInt64 next = UInt64{item->next} << 32;
      run.spare[ends[bucketOf(item->word)]++] = {item->word << gone | next >> (64 - gone),
                                                 static_cast<UInt32>(next << gone >> 32),
                                                 item->position};
    }
  }
  assert(same < run.known);  // zeros do not differ
  const size_t known = run.known - same;
  for (size_t i = 0, first = 0; i < buckets; first = ends[i++]) {
    const size_t count = ends[i] - first;
    if (count == 0) continue;
    const Run bucket = {
        run.spare + first, run.items + first, run.sorted + first, count, run.from + same, known};
    if (count == 1)
      *bucket.sorted = &list.first[bucket.items->position];
    else if (count <= kFew)
      PlaceFew(bucket);
    else
      runs.push_back(bucket);
  }
}

// Keys that differ only in how many NUL characters they end with.
void HostKeyOrder::PlaceByLength(const Run& run) const {
  std::sort(run.items, run.items + run.count,
            [this](const Item& a, const Item& b) { return TextOf(a).length < TextOf(b).length; });
  for (size_t i = 0; i < run.count; ++i) run.sorted[i] = &list.first[run.items[i].position];
}

void HostKeyOrder::SortRun(Run run) {
  for (;;) {
    if (run.known == 0) return unloaded.push_back(run);
    if (run.count <= kFew) return PlaceFew(run);
    const UInt64 first = run.items->word;
    UInt64 differing = 0;
    for (size_t i = 1; i < run.count; ++i) differing |= run.items[i].word ^ first;
    if (differing != 0) return Distribute(run, differing);
    const size_t units = sizeof(UInt64) / (anyWide ? sizeof(UniChar) : 1);
    const size_t gone = std::min(units, run.known);
    run.from += gone;
    run.known -= gone;
    if (run.known == 0) continue;
    for (Item* item = run.items; item < run.items + run.count; ++item) {
      item->word = UInt64{item->next} << 32;
      item->next = 0;
    }
  }
}

// Stores the pairs as long as they are in order. Returns whether all are; clears `*areStrings` if a
// key is not a string.
bool HostKeyOrder::CopyAscending(const HostPair** sorted, bool* areStrings) const {
  HostTextView last;
  const HostPair** const first = sorted;
  for (const HostPair& pair : list) {
    if (list.end() - &pair > kAhead) __builtin_prefetch((&pair)[kAhead].key);
    if (pair.key == nullptr) continue;
    const auto* key = HostCast<HostCFString>(pair.key);
    *areStrings = key != nullptr;
    if (key == nullptr) return false;
    const HostTextView text = key->Text();
    if (sorted != first && Compare(last, text) > 0) return false;
    last = text;
    *sorted++ = &pair;
  }
  return true;
}

// Takes the pairs with the first units of their keys. Returns false if a key is not a string.
bool HostKeyOrder::Gather(Item* to, size_t* count) {
  Item* const first = to;
  for (const HostPair& pair : list) {
    if (list.end() - &pair > kAhead) __builtin_prefetch((&pair)[kAhead].key);
    if (pair.key == nullptr) continue;
    const auto* key = HostCast<HostCFString>(pair.key);
    if (key == nullptr) return false;
    const HostTextView text = key->Text();
    if (!anyWide && text.narrow == nullptr) {
      anyWide = true;  // so all numbers have to be made of wide units
      return Gather(first, count);
    }
    Load(to, text, 0);
    to->position = static_cast<UInt32>(&pair - list.first);
    ++to;
  }
  *count = static_cast<size_t>(to - first);
  return true;
}

bool HostKeyOrder::Sort(HostCFDictionary::PairList pairs, const HostPair** sorted) {
  list = pairs;
  Item few[2 * kFew];
  const bool areFew = list.Size() <= kFew;
  bool areStrings = true;
  if (!areFew && (CopyAscending(sorted, &areStrings) || !areStrings)) return areStrings;
  if (!areFew && capacity < list.Size()) {
    items = std::make_unique_for_overwrite<Item[]>(2 * list.Size());
    capacity = list.Size();
  }
  Item* const to = areFew ? few : items.get();
  anyWide = false;
  size_t count = 0;
  if (!Gather(to, &count)) return false;
  const size_t known = kNumberBytes / (anyWide ? sizeof(UniChar) : 1);
  SortRun({to, to + (areFew ? kFew : capacity), sorted, count, 0, known});
  for (;;) {
    if (runs.empty() || unloaded.size() >= kBatch) LoadUnloaded();
    if (runs.empty()) break;
    const Run run = runs.back();
    runs.pop_back();
    SortRun(run);
  }
  if (capacity > kMostKept) {
    items.reset();
    capacity = 0;
  }
  return true;
}
