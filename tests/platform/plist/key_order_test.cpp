#include "platform/host/plist/key_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/host/objects/cf_string.h"
#include "tests/platform/objects/support.h"

namespace {

using Texts = std::vector<std::u16string>;

// So many different texts that begin with `start`, in no order. With few letters many begin alike,
// are the beginning of others, and end with NUL characters.
Texts MakeTexts(size_t count, const std::u16string& start, std::u16string_view letters) {
  std::mt19937 engine(static_cast<UInt32>(count));
  std::set<std::u16string> texts;
  while (texts.size() < count) {
    std::u16string text = start;
    for (size_t left = engine() % 40; left > 0; --left) text += letters[engine() % letters.size()];
    texts.insert(text);
  }
  Texts mixed(texts.begin(), texts.end());
  std::shuffle(mixed.begin(), mixed.end(), engine);
  return mixed;
}

OwnedRef<CFStringRef> StringOf(const std::u16string& text) {
  return HostCFString::Create(
      HostTextView{nullptr, reinterpret_cast<const UniChar*>(text.data()), text.size()});
}

// The keys of a dictionary that got them in this order, after they have been sorted. Between them
// is a hole.
Texts SortedKeys(HostKeyOrder& order, const Texts& texts) {
  const OwnedRef<CFMutableDictionaryRef> dictionary = MutableDictionary();
  for (size_t i = 0; i < texts.size(); ++i) {
    if (i == texts.size() / 2) CFDictionarySetValue(dictionary, CFSTR("hole"), CFSTR("hole"));
    const OwnedRef<CFStringRef> key = StringOf(texts[i]);
    CFDictionarySetValue(dictionary, key, key);
  }
  CFDictionaryRemoveValue(dictionary, CFSTR("hole"));
  const auto* object = HostCast<HostCFDictionary>(dictionary);
  std::vector<const HostPair*> pairs(object->Count());
  EXPECT_TRUE(order.Sort(object->Pairs(), pairs.data()));
  Texts sorted;
  for (const HostPair* pair : pairs) {
    EXPECT_EQ(pair->key, pair->value);
    const HostTextView text = HostCast<HostCFString>(pair->key)->Text();
    sorted.emplace_back();
    for (size_t i = 0; i < text.length; ++i) sorted.back() += static_cast<char16_t>(text.At(i));
  }
  return sorted;
}

TEST(KeyOrder, ComparesUnitsForAnyNumberOfKeysInAnyOrder) {
  using namespace std::string_view_literals;
  HostKeyOrder order;
  for (const size_t count : {0, 1, 2, 8, 15, 16, 17, 60, 300, 5000}) {
    for (const auto letters : {u"ab\0"sv, u"aBcDeFgHiJ01234\x7F\xFF"sv, u"a\xE9\x100\xFFFF"sv}) {
      for (const size_t common : {0, 7, 16, 21}) {
        SCOPED_TRACE(testing::Message() << count << ' ' << letters.size() << ' ' << common);
        Texts texts = MakeTexts(count, std::u16string(common, u'p'), letters);
        const Texts shuffled = SortedKeys(order, texts);
        std::sort(texts.begin(), texts.end());
        ASSERT_EQ(texts, shuffled);
        ASSERT_EQ(texts, SortedKeys(order, texts));
        Texts turned = texts;
        if (count > 1) std::swap(turned[count - 2], turned[count - 1]);
        ASSERT_EQ(texts, SortedKeys(order, turned));
      }
    }
  }
}

TEST(KeyOrder, RefusesAKeyThatIsNoString) {
  HostKeyOrder order;
  for (const size_t count : {2, 40}) {
    for (const bool isSorted : {true, false}) {
      SCOPED_TRACE(count);
      Texts texts = MakeTexts(count, u"", u"abcdefgh");
      if (isSorted) std::sort(texts.begin(), texts.end());
      const OwnedRef<CFMutableDictionaryRef> dictionary = MutableDictionary();
      for (const std::u16string& text : texts) {
        CFDictionarySetValue(dictionary, StringOf(text), kCFBooleanTrue);
      }
      CFDictionarySetValue(dictionary, kCFBooleanTrue, kCFBooleanTrue);
      const auto* object = HostCast<HostCFDictionary>(dictionary);
      std::vector<const HostPair*> pairs(object->Count());
      EXPECT_FALSE(order.Sort(object->Pairs(), pairs.data()));
    }
  }
}

}  // namespace
