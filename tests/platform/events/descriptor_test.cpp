#include <atomic>
#include <memory>
#include <set>
#include <thread>

#include "platform/host/events/event.h"
#include "tests/platform/events/support.h"
#include "tests/support/rounds.h"

namespace {

using Descriptor = DescTest;
using DescriptorThreads = DescTest;

TEST_F(Descriptor, RefusesWhatItCannotHold) {
  AEDesc desc = {typeChar, reinterpret_cast<AEDataStorage>(1)};
  EXPECT_EQ(paramErr, AECreateDesc(typeChar, "a", -1, &desc));
  EXPECT_EQ(paramErr, AECreateDesc(typeChar, nullptr, 1, &desc));
  EXPECT_EQ(errAEWrongDataType, AECreateDesc(typeAEList, "a", 1, &desc));
  EXPECT_EQ(errAEWrongDataType, AECreateDesc(typeAppleEvent, nullptr, 0, &desc));
  EXPECT_EQ(DescType{typeNull}, desc.descriptorType);
  EXPECT_EQ(nullptr, desc.dataHandle);
}

TEST_F(Descriptor, StaleNumbersNameNothing) {
  AEDesc desc, copy;
  Make(Long(7), &desc);
  copy = desc;
  EXPECT_EQ(0, AEDisposeDesc(&desc));
  EXPECT_EQ(nullptr, desc.dataHandle);
  EXPECT_EQ(0, AEDisposeDesc(&desc));

  // The storage is used again, under other numbers.
  std::vector<std::unique_ptr<StDesc>> others;
  for (int i = 0; i < 3000; ++i) {
    others.push_back(std::make_unique<StDesc>());
    Make(Long(i), others.back().get());
    EXPECT_NE(copy.dataHandle, others.back()->dataHandle);
  }
  AEDesc out = desc;
  char byte;
  EXPECT_EQ(errAENotAEDesc, AEGetDescData(&copy, &byte, 1));
  EXPECT_EQ(0, AEGetDescDataSize(&copy));
  EXPECT_EQ(errAENotAEDesc, AEDuplicateDesc(&copy, &out));
  EXPECT_EQ(errAENotAEDesc, AEReplaceDescData(typeChar, "x", 1, &copy));
  EXPECT_EQ(errAENotAEDesc, AEPutParamDesc(&copy, keyDirectObject, &desc));
  EXPECT_EQ(errAENotAEDesc, AECreateAppleEvent(1, 1, &copy, 1, 0, &out));
  EXPECT_EQ(0, AEDisposeDesc(&copy));
  for (int i = 0; i < 3000; ++i) EXPECT_EQ(Long(i), Contents(*others[i]));
}

TEST_F(Descriptor, ForgedNumbersNameNothing) {
  for (const uintptr_t number : {uintptr_t{1}, uintptr_t{0xfffff}, uintptr_t{0x12345678},
                                 ~uintptr_t{0}, uintptr_t{1} << 31}) {
    AEDesc forged = {typeChar, reinterpret_cast<AEDataStorage>(number)};
    AEDesc out;
    SInt32 count = 0;
    EXPECT_EQ(errAENotAEDesc, AEDuplicateDesc(&forged, &out)) << number;
    EXPECT_EQ(errAENotAEDesc, AECountItems(&forged, &count)) << number;
    EXPECT_EQ(0, AEDisposeDesc(&forged));
  }
}

TEST_F(Descriptor, ARecordsTypeCodeMustFitItsStorage) {
  StDesc value;
  StList list;
  Make(Text("abcd"), &value);
  AEDesc asText = {typeChar, list.dataHandle};
  AEDesc asList = {typeAEList, value.dataHandle};
  AEDesc asData = {FourCC('d', 'a', 't', 'a'), value.dataHandle};
  AEDesc out = {typeNull, nullptr};
  EXPECT_EQ(errAENotAEDesc, AEDuplicateDesc(&asText, &out));
  EXPECT_EQ(errAENotAEDesc, AEDuplicateDesc(&asList, &out));
  ASSERT_EQ(0, AEDuplicateDesc(&asData, &out));
  EXPECT_EQ(FourCC('d', 'a', 't', 'a'), out.descriptorType);
  AEDisposeDesc(&out);
}

TEST_F(Descriptor, WrittenByHandWithoutStorageIsAnEmptyValue) {
  AEDesc emptyText = {typeChar, nullptr};
  AEDesc noList = {typeAEList, nullptr};
  StDesc copy;
  EXPECT_EQ(0, AEDuplicateDesc(&emptyText, &copy));
  EXPECT_EQ(Text(""), Contents(copy));
  EXPECT_EQ(errAENotAEDesc, AECoerceDesc(&noList, typeWildCard, &emptyText));
}

TEST_F(Descriptor, ReplacingKeepsTheNumber) {
  StDesc desc;
  Make(Text(std::string(300, 'a')), &desc);
  AEDesc copy = desc;
  EXPECT_EQ(0, AEReplaceDescData(typeSInt32, "\1\2\3\4", 4, &desc));
  EXPECT_EQ(copy.dataHandle, desc.dataHandle);
  EXPECT_EQ(4, AEGetDescDataSize(&copy));
  EXPECT_EQ(paramErr, AEReplaceDescData(typeSInt32, nullptr, 4, &desc));
  EXPECT_EQ((Raw{typeSInt32, "\1\2\3\4"}), Contents(desc));

  EXPECT_EQ(0, AEReplaceDescData(typeNull, nullptr, 0, &desc));
  EXPECT_TRUE(desc.IsNull());
}

// Two threads dispose of one descriptor at once. Its slot must not be handed out twice.
TEST_F(DescriptorThreads, RacingDisposalsFreeASlotOnce) {
  constexpr int kRounds = 5000;
  std::vector<AEDesc> shared(kRounds);
  for (int i = 0; i < kRounds; ++i) Make(Long(i), &shared[i]);
  std::atomic<int> arrived = 0, end = kRounds;
  const auto disposeAll = [&](Rounds* rounds) {
    for (int i = 0; i < kRounds; ++i) {
      if (rounds != nullptr && !rounds->Next()) end = i;
      // They meet at each one, so that they go for it together.
      ++arrived;
      while (arrived < 2 * (i + 1)) std::this_thread::yield();
      if (i >= end) break;
      AEDesc desc = shared[i];
      AEDisposeDesc(&desc);
    }
  };
  Rounds rounds(kRounds);
  std::thread other(disposeAll, nullptr);
  disposeAll(&rounds);
  other.join();
  for (int i = end; i < kRounds; ++i) AEDisposeDesc(&shared[i]);

  std::set<AEDataStorage> numbers;
  std::vector<std::unique_ptr<StDesc>> descs;
  for (int i = 0; i < 2 * kRounds; ++i) {
    descs.push_back(std::make_unique<StDesc>());
    Make(Long(i), descs.back().get());
    EXPECT_TRUE(numbers.insert(descs.back()->dataHandle).second);
  }
  for (int i = 0; i < 2 * kRounds; ++i) EXPECT_EQ(Long(i), Contents(*descs[i]));
}

TEST_F(DescriptorThreads, MayDisposeOfEventsThatAnotherThreadMade) {
  for (int round = 0; round < 20; ++round) {
    std::vector<AEDesc> made(500);
    std::thread([&made] {
      for (AEDesc& desc : made) {
        ASSERT_EQ(0, AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, 1, 2, &desc));
        ASSERT_EQ(0, AEPutParamPtr(&desc, keyDirectObject, typeChar, "0123456789abcdefghij", 20));
      }
    }).join();
    std::thread([&made] {
      for (AEDesc& desc : made) {
        Size size = 0;
        EXPECT_EQ(0, AESizeOfParam(&desc, keyDirectObject, nullptr, &size));
        EXPECT_EQ(20, size);
        AEDisposeDesc(&desc);
      }
    }).join();
  }
}

}  // namespace
