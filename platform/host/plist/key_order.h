#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/host/base/text_codec.h"
#include "platform/host/objects/cf_dictionary.h"

// HostKeyOrder sorts the pairs of dictionaries by their keys: by UTF-16 code units, a key before
// all longer ones that begin with it. The keys of a dictionary differ. It keeps its buffers for the
// next dictionary. One thread.
class HostKeyOrder {
 public:
  // Stores the addresses of the pairs of `list`, without its holes, in order at `sorted`, which has
  // room for them. Returns false if a key is not a string; what was stored is then undefined.
  [[nodiscard]] bool Sort(HostCFDictionary::PairList list, const HostPair** sorted);

 private:
  // A pair with some units of its key, as numbers that compare as the text does.
  struct Item {
    UInt64 word;
    UInt32 next;      // the units after `word`
    UInt32 position;  // of the pair in the list
  };
  // Items whose keys are the same before the units in `word`.
  struct Run {
    Item* items;
    Item* spare;  // room for as many
    const HostPair** sorted;
    size_t count;
    size_t from;   // the index of the first unit in `word`
    size_t known;  // units in `word` and `next`; after them are zeros
  };

  bool CopyAscending(const HostPair** sorted, bool* areStrings) const;
  bool Gather(Item* to, size_t* count);
  void Load(Item* item, const HostTextView& text, size_t from) const;
  HostTextView TextOf(const Item& item) const;
  void SortRun(Run run);
  void PlaceFew(const Run& run);
  void LoadUnloaded();
  void Distribute(Run& run, UInt64 differing);
  void PlaceByLength(const Run& run) const;

  HostCFDictionary::PairList list;
  bool anyWide = false;  // a key has units of two bytes
  std::vector<Run> runs;
  std::vector<Run> unloaded;      // of which no units are known
  std::unique_ptr<Item[]> items;  // twice `capacity`
  size_t capacity = 0;
};
