#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/objects/cf_array.h"
#include "platform/host/objects/cf_dictionary.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/objects/cf_string.h"
#include "tests/platform/objects/support.h"

namespace {

SInt32 IntOf(const void* number) {
  SInt32 value = -1;
  CFNumberGetValue(static_cast<CFNumberRef>(number), kCFNumberIntType, &value);
  return value;
}

std::vector<SInt32> IntsOf(CFArrayRef array) {
  std::vector<SInt32> values;
  for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
    values.push_back(IntOf(CFArrayGetValueAtIndex(array, i)));
  }
  return values;
}

// Foreign items that count their references. They are equal if their letters are.
struct Letter {
  char letter;
  int held = 0;
};
const void* HoldLetter(CFAllocatorRef, const void* value) {
  ++const_cast<Letter*>(static_cast<const Letter*>(value))->held;
  return value;
}
void LetGoLetter(CFAllocatorRef, const void* value) {
  --const_cast<Letter*>(static_cast<const Letter*>(value))->held;
}
Boolean SameLetter(const void* a, const void* b) {
  return static_cast<const Letter*>(a)->letter == static_cast<const Letter*>(b)->letter;
}
CFHashCode HashLetter(const void*) { return 4; }  // all of them collide
constexpr CFArrayCallBacks kLetters = {0, HoldLetter, LetGoLetter, nullptr, SameLetter};
constexpr CFDictionaryKeyCallBacks kLetterKeys = {0,       HoldLetter, LetGoLetter,
                                                  nullptr, SameLetter, HashLetter};
constexpr CFDictionaryValueCallBacks kLetterValues = {0, HoldLetter, LetGoLetter, nullptr,
                                                      SameLetter};

}  // namespace

TEST(Array, RetainsItsValuesAndReleasesThemWhenTheyGo) {
  const OwnedRef<CFMutableArrayRef> array(MutableArray());
  for (SInt32 i = 0; i < 20; ++i) CFArrayAppendValue(array, Number(i));
  CFArrayInsertValueAtIndex(array, 0, Number(100));
  CFArrayInsertValueAtIndex(array, 21, Number(101));
  CFArraySetValueAtIndex(array, 22, Number(102));
  CFArraySetValueAtIndex(array, 1, Number(103));
  for (int i = 0; i < 18; ++i) CFArrayRemoveValueAtIndex(array, 2);
  EXPECT_EQ((std::vector<SInt32>{100, 103, 19, 101, 102}), IntsOf(array));
  EXPECT_EQ(1, CFGetRetainCount(CFArrayGetValueAtIndex(array, 0)));

  const OwnedRef<CFArrayRef> copy(CFArrayCreateCopy(nullptr, array));
  const OwnedRef<CFArrayRef> same(CFArrayCreateCopy(nullptr, copy));
  EXPECT_EQ(static_cast<CFArrayRef>(copy), static_cast<CFArrayRef>(same));
  EXPECT_TRUE(CFEqual(array, copy));
  EXPECT_EQ(CFHash(array), CFHash(copy));
  EXPECT_EQ(2, CFGetRetainCount(CFArrayGetValueAtIndex(array, 0)));
  CFArrayRemoveAllValues(array);
  EXPECT_EQ(0, CFArrayGetCount(array));
  EXPECT_FALSE(CFEqual(array, copy));
  EXPECT_EQ(5, CFArrayGetCount(copy));
}

TEST(Array, NullsWrongObjectsAndBadIndexesChangeNothing) {
  const OwnedRef<CFMutableArrayRef> array(MutableArray());
  CFArrayAppendValue(array, Number(1));
  CFArrayAppendValue(array, nullptr);
  for (CFIndex index : {-1, 2, INT32_MAX, INT32_MIN}) {
    CFArrayInsertValueAtIndex(array, index, Number(2));
    CFArraySetValueAtIndex(array, index, Number(2));
    CFArrayRemoveValueAtIndex(array, index);
    EXPECT_EQ(nullptr, CFArrayGetValueAtIndex(array, index));
  }
  const void* out[2] = {nullptr, nullptr};
  CFArrayGetValues(array, {0, 2}, out);
  EXPECT_EQ(nullptr, out[0]);
  EXPECT_EQ((std::vector<SInt32>{1}), IntsOf(array));

  const void* values[] = {CFSTR("a"), nullptr};
  EXPECT_EQ(nullptr, CFArrayCreate(nullptr, values, 2, &kCFTypeArrayCallBacks));
  const OwnedRef<CFArrayRef> fixed(CFArrayCreate(nullptr, values, 1, &kCFTypeArrayCallBacks));
  auto* forced = const_cast<CFMutableArrayRef>(static_cast<CFArrayRef>(fixed));
  CFArrayAppendValue(forced, CFSTR("b"));
  CFArrayRemoveAllValues(forced);
  EXPECT_EQ(1, CFArrayGetCount(fixed));
  auto* wrong = const_cast<CFMutableArrayRef>(reinterpret_cast<CFArrayRef>(CFSTR("no array")));
  CFArrayAppendValue(wrong, CFSTR("a"));
  EXPECT_EQ(nullptr, CFArrayCreateMutableCopy(nullptr, 0, wrong));
}

TEST(Array, ForeignValuesAreRetainedComparedAndReleasedByTheirCallbacks) {
  Letter a{'a'}, alsoA{'a'}, b{'b'};
  {
    const void* values[] = {&a, &b};
    const void* others[] = {&alsoA, &b};
    const OwnedRef<CFArrayRef> letters(CFArrayCreate(nullptr, values, 2, &kLetters));
    const OwnedRef<CFArrayRef> equal(CFArrayCreate(nullptr, others, 2, &kLetters));
    const OwnedRef<CFArrayRef> pointers(CFArrayCreate(nullptr, values, 2, nullptr));
    const OwnedRef<CFMutableArrayRef> copy(CFArrayCreateMutableCopy(nullptr, 0, letters));
    EXPECT_TRUE(CFEqual(letters, equal));
    EXPECT_EQ(CFHash(letters), CFHash(equal));
    EXPECT_FALSE(CFEqual(letters, pointers));
    EXPECT_EQ(2, a.held);
    CFArraySetValueAtIndex(copy, 0, &b);
    EXPECT_EQ(1, a.held);
    EXPECT_EQ(4, b.held);
    EXPECT_EQ(0u, DescriptionOf(letters).find("(\n    <0x"));
  }
  EXPECT_EQ(0, a.held + alsoA.held + b.held);
}

// It begins as a reader of files makes it: keys may repeat, and the index for searches is built
// only at the first search or change.
TEST(Dictionary, RandomChangesGiveTheSameEntriesAsAStdMap) {
  std::mt19937 random(1);
  for (unsigned round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    const unsigned keySpace = std::vector<unsigned>{4, 12, 40, 1000}[round % 4];
    const auto randomName = [&] { return "key " + std::to_string(random() % keySpace); };
    std::vector<HostPair> pairs;
    std::map<std::string, SInt32> model;
    for (SInt32 i = static_cast<SInt32>(random() % 60); i > 0; --i) {
      const std::string name = randomName();
      pairs.push_back({CFRetain(String(name)), CFRetain(Number(i))});
      model[name] = i;
    }
    const OwnedRef<CFMutableDictionaryRef> dictionary(
        HostCFDictionary::CreateTaking(pairs.data(), pairs.size(), true));
    for (SInt32 step = 0; step < 1000; ++step) {
      const std::string name = randomName();
      const OwnedRef<CFStringRef> key(String(name));
      const unsigned what = random() % 8;
      if (what < 2) {
        CFDictionarySetValue(dictionary, key, Number(step));
        model[name] = step;
      } else if (what == 2) {
        CFDictionaryAddValue(dictionary, key, Number(step));
        model.try_emplace(name, step);
      } else if (what == 3) {
        CFDictionaryReplaceValue(dictionary, key, Number(step));
        if (model.contains(name)) model[name] = step;
      } else if (what < 6) {
        CFDictionaryRemoveValue(dictionary, key);
        model.erase(name);
      } else if (what == 7 && random() % 500 == 0) {
        CFDictionaryRemoveAllValues(dictionary);
        model.clear();
      }
      const auto found = model.find(name);
      const void* value = nullptr;
      ASSERT_EQ(found != model.end(), CFDictionaryGetValueIfPresent(dictionary, key, &value));
      ASSERT_EQ(found != model.end() ? found->second : -1, IntOf(value));
      ASSERT_EQ(static_cast<CFIndex>(model.size()), CFDictionaryGetCount(dictionary));
    }
    std::vector<const void*> keys(model.size()), values(model.size());
    CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
    std::map<std::string, SInt32> told;
    for (size_t i = 0; i < keys.size(); ++i) {
      told[TextOf(static_cast<CFStringRef>(keys[i]))] = IntOf(values[i]);
    }
    EXPECT_EQ(model, told);

    // The same pairs in another order, and without one.
    const OwnedRef<CFMutableDictionaryRef> other(MutableDictionary());
    for (size_t i = keys.size(); i > 0; --i) {
      CFDictionarySetValue(other, keys[i - 1], values[i - 1]);
    }
    EXPECT_TRUE(CFEqual(dictionary, other));
    EXPECT_EQ(CFHash(dictionary), CFHash(other));
    CFDictionaryRemoveValue(other, keys.empty() ? CFSTR("") : keys[0]);
    EXPECT_EQ(keys.empty(), CFEqual(dictionary, other));
  }
}

// Keys sorted and unsorted, few and many, of both widths, and with a repeated one at either end.
TEST(Dictionary, ManyThreadsMaySearchANewDictionaryAtOnce) {
  for (const size_t count : {9u, 100u, 128u, 129u, 3000u}) {
    for (const bool sorted : {true, false}) {
      for (const bool wide : {false, true}) {
        std::vector<std::string> names;
        for (size_t i = 0; i < count; ++i) names.push_back("name " + std::to_string(10000 + i));
        if (!sorted) std::shuffle(names.begin(), names.end(), std::mt19937(7));
        if (wide) names[count / 2] += "\xe2\x82\xac";
        for (const size_t repeated : {size_t{0}, count - 1, count}) {
          std::vector<std::string> all = names;
          if (repeated < count) all.push_back(names[repeated]);
          std::vector<HostPair> pairs;
          for (size_t i = 0; i < all.size(); ++i) {
            pairs.push_back({CFRetain(String(all[i])), CFRetain(Number(static_cast<SInt32>(i)))});
          }
          const OwnedRef<CFDictionaryRef> dictionary(
              HostCFDictionary::CreateTaking(pairs.data(), pairs.size(), false));
          ASSERT_EQ(static_cast<CFIndex>(count), CFDictionaryGetCount(dictionary));
          std::atomic<int> wrong{0};
          auto search = [&] {
            for (size_t i = 0; i < count; ++i) {
              const size_t expected = i == repeated ? count : i;
              const SInt32 got = IntOf(CFDictionaryGetValue(dictionary, String(names[i])));
              if (got != static_cast<SInt32>(expected)) ++wrong;
            }
            if (CFDictionaryContainsKey(dictionary, CFSTR("no name"))) ++wrong;
          };
          std::vector<std::thread> threads;
          for (int i = 0; i < 3; ++i) threads.emplace_back(search);
          for (std::thread& thread : threads) thread.join();
          EXPECT_EQ(0, wrong) << count << ' ' << sorted << ' ' << wide << ' ' << repeated;
        }
      }
    }
  }
}

TEST(Dictionary, NullsWrongObjectsAndFixedOnesChangeNothing) {
  const OwnedRef<CFMutableDictionaryRef> dictionary(MutableDictionary());
  CFDictionarySetValue(dictionary, CFSTR("a"), nullptr);
  CFDictionarySetValue(dictionary, nullptr, CFSTR("a"));
  CFDictionaryRemoveValue(dictionary, nullptr);
  EXPECT_EQ(0, CFDictionaryGetCount(dictionary));

  const void* keys[] = {CFSTR("a"), nullptr};
  EXPECT_EQ(nullptr,
            CFDictionaryCreate(nullptr, keys, keys, 2, &kCFTypeDictionaryKeyCallBacks, nullptr));
  const OwnedRef<CFDictionaryRef> fixed(
      CFDictionaryCreate(nullptr, keys, keys, 1, &kCFTypeDictionaryKeyCallBacks, nullptr));
  auto* forced = const_cast<CFMutableDictionaryRef>(static_cast<CFDictionaryRef>(fixed));
  CFDictionarySetValue(forced, CFSTR("b"), CFSTR("b"));
  CFDictionaryRemoveAllValues(forced);
  EXPECT_EQ(1, CFDictionaryGetCount(fixed));

  auto* wrong = const_cast<CFMutableDictionaryRef>(reinterpret_cast<CFDictionaryRef>(CFSTR("no")));
  CFDictionarySetValue(wrong, CFSTR("a"), CFSTR("a"));
  CFDictionaryApplyFunction(
      wrong, [](const void*, const void*, void*) { ADD_FAILURE(); }, nullptr);
  EXPECT_EQ(nullptr, CFDictionaryCreateMutableCopy(nullptr, 0, wrong));
}

TEST(Dictionary, KeysAreComparedAndHashedByTheirCallbacks) {
  const OwnedRef<CFMutableDictionaryRef> copied(
      CFDictionaryCreateMutable(nullptr, 0, &kCFCopyStringDictionaryKeyCallBacks, nullptr));
  CFDictionarySetValue(copied, String("name"), "value");
  EXPECT_STREQ("value", static_cast<const char*>(CFDictionaryGetValue(copied, CFSTR("name"))));
  CFDictionarySetValue(copied, Number(1), "no string");
  EXPECT_EQ(1, CFDictionaryGetCount(copied));

  // Without callbacks keys are compared by address.
  const char text[] = "0123456789abcdefghijklmnop0";
  const OwnedRef<CFMutableDictionaryRef> pointers(
      CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr));
  for (const char& c : text) CFDictionarySetValue(pointers, &c, &c);
  EXPECT_EQ(static_cast<CFIndex>(sizeof text), CFDictionaryGetCount(pointers));
  for (const char& c : text) EXPECT_EQ(&c, CFDictionaryGetValue(pointers, &c));

  std::vector<Letter> letters;
  for (char c = 'a'; c <= 'z'; ++c) letters.push_back({c});
  Letter alsoC{'c'}, alsoD{'d'};
  {
    const OwnedRef<CFMutableDictionaryRef> foreign(
        CFDictionaryCreateMutable(nullptr, 0, &kLetterKeys, &kLetterValues));
    for (Letter& letter : letters) CFDictionarySetValue(foreign, &letter, &letters[0]);
    EXPECT_EQ(&letters[0], CFDictionaryGetValue(foreign, &alsoC));
    CFDictionarySetValue(foreign, &alsoC, &alsoC);
    EXPECT_EQ(&alsoC, CFDictionaryGetValue(foreign, &letters[2]));
    CFDictionaryRemoveValue(foreign, &alsoD);
    EXPECT_EQ(25, CFDictionaryGetCount(foreign));
    EXPECT_EQ(0, letters[3].held);
    EXPECT_EQ(25, letters[0].held);
  }
  for (const Letter& letter : letters) EXPECT_EQ(0, letter.held) << letter.letter;
  EXPECT_EQ(0, alsoC.held);
}

// Each call removes its pair and adds another. In the second round one call adds many and a later
// one removes all. The last dictionary is released in the call for the first of its two pairs.
TEST(Dictionary, AFunctionThatIsAppliedMayChangeTheDictionary) {
  struct Context {
    CFMutableDictionaryRef dictionary;
    int turn, newest;  // `newest` is the largest key that may be passed
  };
  const auto change = [](const void* key, const void* value, void* given) {
    auto* context = static_cast<Context*>(given);
    const auto add = [context](int i) {
      CFDictionarySetValue(context->dictionary, Number(i), Number(i));
    };
    CFDictionaryRemoveValue(context->dictionary, key);
    add(1000 + ++context->turn);
    for (int i = 2000; context->turn == 110 && i < 2500; ++i) add(i);
    if (context->turn == 115) CFDictionaryRemoveAllValues(context->dictionary);
    EXPECT_EQ(IntOf(key), IntOf(value));  // both are alive
    EXPECT_LE(IntOf(key), context->newest);
  };
  const OwnedRef<CFMutableDictionaryRef> dictionary(MutableDictionary());
  for (int i = 0; i < 20; ++i) CFDictionarySetValue(dictionary, Number(i), Number(i));
  Context context = {dictionary, 0, 19};
  CFDictionaryApplyFunction(dictionary, change, &context);
  EXPECT_EQ(20, context.turn);
  EXPECT_EQ(20, CFDictionaryGetCount(dictionary));
  context.turn = 100;
  context.newest = 1020;
  CFDictionaryApplyFunction(dictionary, change, &context);
  EXPECT_EQ(115, context.turn);
  EXPECT_EQ(0, CFDictionaryGetCount(dictionary));

  CFMutableDictionaryRef last = CFDictionaryCreateMutable(
      nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
  CFDictionarySetValue(last, CFSTR("a"), Number(1));
  CFDictionarySetValue(last, CFSTR("b"), Number(2));
  CFDictionaryApplyFunction(
      last,
      [](const void* key, const void*, void* dictionary) {
        if (CFEqual(key, CFSTR("a"))) CFRelease(dictionary);
      },
      last);
}

// With equal hashes a file of these keys would take 2 * 10^10 comparisons.
TEST(Dictionary, KeysThatAMultiplyingHashPutsTogetherHaveDifferentHashes) {
  constexpr UInt32 kPrime = 16777619;
  constexpr size_t kKeys = 200000;
  std::set<UInt32> hashes;
  std::mt19937 random(3);
  for (size_t i = 0; i < kKeys; ++i) {
    // The last two units undo what the others did to a multiplying hash.
    UniChar units[8];
    UInt32 hash = 2166136261u;
    for (size_t u = 0; u < 6; ++u) {
      units[u] = static_cast<UniChar>(0x100 + random() % 0x4000);
      hash = (hash ^ units[u]) * kPrime;
    }
    units[6] = static_cast<UniChar>(hash & 0xFFFF);
    units[7] = static_cast<UniChar>(hash >> 16);
    const OwnedRef<CFStringRef> key(CFStringCreateWithCharacters(nullptr, units, 8));
    hashes.insert(CFHash(key));
  }
  EXPECT_GT(hashes.size(), kKeys * 99 / 100);
}
