#include "aeport/param_copy.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/platform/events/support.h"

namespace {

using ParamCopy = DescTest;

constexpr AEKeyword kKey = FourCC('d', 'a', 't', 'a');
constexpr AEKeyword kListKey = FourCC('l', 'i', 's', 't');
constexpr SInt32 kUnset = -77;

// Allocates with malloc and stores the size.
SInt32 sAsked = 0;
char* TestAllocator(SInt32 size) {
  sAsked = size;
  return static_cast<char*>(std::malloc(static_cast<size_t>(size)));
}
char* NoMemory(SInt32 size) {
  sAsked = size;
  return nullptr;
}

void MakeEvent(const Raw& value, AEDesc* event) {
  ASSERT_EQ(0, AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, 1, 0, event));
  ASSERT_EQ(0, AEPutParamPtr(event, kKey, value.type, value.bytes.data(), value.ByteCount()));
  StList list;
  ASSERT_EQ(0, AEPutPtr(&list, 0, typeSInt16, &value, 2));
  ASSERT_EQ(0, AEPutParamDesc(event, kListKey, &list));
}

struct Row {
  const char* what;
  AEKeyword key;
  Raw held;
  DescType desired;
  bool asksType;
  OSStatus err;
  bool isDelivered;  // a block, and in it:
  std::string bytes;
  DescType actual;
};

const Row kRows[] = {
    {"own type", kKey, Long(7), typeSInt32, true, 0, true, Long(7).bytes, typeSInt32},
    {"as it is", kKey, Text("abc"), typeWildCard, false, 0, true, "abc", typeChar},
    {"empty", kKey, Text(""), typeChar, true, 0, true, "", typeChar},
    {"coerced", kKey, Short(-7), typeSInt32, true, 0, true, Long(-7).bytes, typeSInt16},
    // Meant: delivered and yet refused, because callers that do not ask for the own type rely on
    // it.
    {"coerced, unasked", kKey, Short(-7), typeSInt32, false, errAECoercionFail, true,
     Long(-7).bytes, typeSInt16},
    {"impossible", kKey, Text("abc"), typeSInt32, true, errAECoercionFail, false, "", typeChar},
    {"absent", FourCC('n', 'o', 'n', 'e'), Long(7), typeSInt32, true, errAEDescNotFound, false, "",
     typeNull},
    {"a list has no bytes", kListKey, Long(7), typeAEList, true, 0, true, "", typeAEList},
    {"nor what becomes one", kKey, Long(7), typeAEList, true, errAEWrongDataType, true, "",
     typeSInt32},
};

TEST_F(ParamCopy, ABlockHasTheSizeOfTheCoercedValue) {
  for (const Row& row : kRows) {
    for (const AEPtrAllocator allocator : {TestAllocator, static_cast<AEPtrAllocator>(nullptr)}) {
      SCOPED_TRACE(testing::Message() << row.what << (allocator != nullptr ? ", malloc" : ""));
      StDesc event;
      MakeEvent(row.held, &event);
      void* data = &event;
      SInt32 size = kUnset;
      DescType actual = 1;
      EXPECT_EQ(row.err, AECopyParamData(&event, row.key, row.desired, data, &size,
                                         row.asksType ? &actual : nullptr, allocator));
      EXPECT_EQ(row.isDelivered, data != nullptr);
      EXPECT_EQ(static_cast<SInt32>(row.bytes.size()), size);
      EXPECT_EQ(row.asksType ? row.actual : 1, actual);
      if (data == nullptr) continue;
      EXPECT_EQ(Hex(row.bytes), Hex({static_cast<char*>(data), row.bytes.size()}));
      if (allocator == nullptr) {
        EXPECT_EQ(std::max<SInt32>(size, 1), GetPtrSize(static_cast<Ptr>(data)));
        DisposePtr(static_cast<Ptr>(data));
      } else {
        EXPECT_EQ(std::max<SInt32>(size, 1), sAsked);
        std::free(data);
      }
    }
  }
}

TEST_F(ParamCopy, AHandleGetsTheSizeOfTheValueAndZeroAfterAFailure) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    StDesc event;
    MakeEvent(row.held, &event);
    Handle handle = NewHandle(3);
    DescType actual = 1;
    EXPECT_EQ(row.err, AECopyParamDataToHandle(&event, row.key, row.desired, handle,
                                               row.asksType ? &actual : nullptr));
    // Unlike a block, a handle keeps no refused value.
    const std::string left = row.err == 0 ? row.bytes : "";
    ASSERT_EQ(static_cast<Size>(left.size()), GetHandleSize(handle));
    EXPECT_EQ(Hex(left), Hex({*handle, left.size()}));
    EXPECT_EQ(0, HGetState(handle));
    EXPECT_EQ(row.asksType ? row.actual : 1, actual);
    DisposeHandle(handle);
  }
}

TEST_F(ParamCopy, ALockedOrNullHandleGivesItsError) {
  StDesc event;
  MakeEvent(Text(std::string(100000, 'x')), &event);
  EXPECT_EQ(nilHandleErr, AECopyParamDataToHandle(&event, kKey, typeChar, nullptr, nullptr));
  Handle handle = NewHandle(16);
  EmptyHandle(handle);
  EXPECT_EQ(nilHandleErr, AECopyParamDataToHandle(&event, kKey, typeChar, handle, nullptr));
  ReallocateHandle(handle, 16);
  EXPECT_EQ(0, AECopyParamDataToHandle(&event, kKey, typeChar, handle, nullptr));
  EXPECT_EQ(100000, GetHandleSize(handle));
  EXPECT_EQ('x', (*handle)[99999]);
  DisposeHandle(handle);
  EXPECT_EQ(memWZErr, AECopyParamDataToHandle(&event, kKey, typeChar, handle, nullptr));
}

TEST_F(ParamCopy, NoMemoryAndNoEventGiveTheirErrors) {
  StDesc event;
  MakeEvent(Short(7), &event);
  const StDesc none;
  for (const DescType desired : {typeSInt16, typeSInt32}) {
    void* data = &event;
    SInt32 size = kUnset;
    DescType actual = 1;
    EXPECT_EQ(memFullErr, AECopyParamData(&event, kKey, desired, data, &size, &actual, NoMemory));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(0, size);
    EXPECT_EQ(typeSInt16, actual);
    EXPECT_EQ(desired == typeSInt16 ? 2 : 4, sAsked);
    EXPECT_EQ(memFullErr, AECopyParamData(&event, kKey, desired, data, nullptr, nullptr, NoMemory));
    data = &event;
    EXPECT_EQ(errAENotAEDesc, AECopyParamData(&none, kKey, desired, data, &size, &actual, nullptr));
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(typeNull, actual);
  }
}

}  // namespace
