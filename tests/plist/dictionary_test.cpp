#include "plist/dictionary.h"

#include <gtest/gtest.h>

#include <cstring>

#include "plist/type_ref.h"

namespace {

char* NoMemory(SInt32) { return nullptr; }

SInt32 sAskedSize = -1;
char* CountingAllocator(SInt32 size) {
  sAskedSize = size;
  return VLTDictionaryBase::PtrAllocator(size);
}

// Makes the slots public, as for another kind of storage.
struct OpenDictionary : VLTDictionary {
  using VLTDictionary::_get;
  using VLTDictionary::_set;
};

TEST(Dictionary, SettersStoreTheDocumentedTypes) {
  VLTDictionary dictionary;
  const CFTypeID boolean = CFBooleanGetTypeID(), number = CFNumberGetTypeID();
  const std::tuple<const char*, OSStatus, CFTypeID, CFNumberType> rows[] = {
      {"bool", dictionary.setBoolean("bool", true), boolean, 0},
      {"byte", dictionary.setBoolean("byte", static_cast<unsigned char>(7)), boolean, 0},
      {"short", dictionary.setShort("short", -2), number, kCFNumberSInt16Type},
      {"int", dictionary.setInteger("int", 70000), number, kCFNumberSInt32Type},
      {"long", dictionary.setLong("long", -3), number, kCFNumberSInt32Type},
      {"wide", dictionary.setLongLong("wide", SInt64{1} << 40), number, kCFNumberSInt64Type},
      {"float", dictionary.setFloat("float", 0.5f), number, kCFNumberFloat32Type},
      {"double", dictionary.setDouble("double", 0.1), number, kCFNumberFloat64Type},
  };
  for (const auto& [key, err, expectedType, expectedNumber] : rows) {
    SCOPED_TRACE(key);
    UInt32 type = 0;
    CFNumberType stored = 0;
    EXPECT_EQ(0, err);
    EXPECT_EQ(0, dictionary.getType(key, type, &stored));
    EXPECT_EQ(expectedType, type);
    EXPECT_EQ(expectedNumber, stored);
  }
  unsigned char byte = 0;
  EXPECT_EQ(0, dictionary.getBoolean("byte", byte));
  EXPECT_EQ(1, byte);
  EXPECT_EQ(8, dictionary.getCount());
}

TEST(Dictionary, NumbersAreExactOrRefused) {
  VLTDictionary dictionary;
  dictionary.setInteger("int", 70000);
  dictionary.setDouble("half", 0.5);
  dictionary.setCString("text", "7");
  SInt16 small = 1;
  int integer = 1;
  float real = 1;
  EXPECT_EQ(paramErr, dictionary.getShort("int", small));
  EXPECT_EQ(32767, small);  // the nearest
  EXPECT_EQ(0, dictionary.getInteger("int", integer));
  EXPECT_EQ(70000, integer);
  EXPECT_EQ(paramErr, dictionary.getInteger("half", integer));
  EXPECT_EQ(0, integer);
  EXPECT_EQ(0, dictionary.getFloat("half", real));
  EXPECT_EQ(0.5f, real);
  integer = 5;
  EXPECT_EQ(paramErr, dictionary.getInteger("text", integer));
  EXPECT_EQ(errAEDescNotFound, dictionary.getInteger("absent", integer));
  EXPECT_EQ(5, integer);
}

TEST(Dictionary, NumberValueComparesTheStoredWidth) {
  VLTDictionary dictionary;
  dictionary.setInteger("int", 70000);
  SInt64 buffer = 0;
  UInt32 stored = 99;
  EXPECT_EQ(paramErr, dictionary.getNumberValue("int", kCFNumberSInt64Type, &buffer, 8, stored));
  EXPECT_EQ(99u, stored);
  SInt16 two = 0;
  EXPECT_EQ(0, dictionary.getNumberValue("int", kCFNumberSInt16Type, &two, 2, stored));
  EXPECT_EQ(4u, stored);
  EXPECT_EQ(32767, two);
  dictionary.setCString("text", "7");
  EXPECT_EQ(paramErr, dictionary.getNumberValue("text", kCFNumberSInt16Type, &two, 2, stored));
}

TEST(Dictionary, TextAndDataFillBuffersExactlyAndAreCutToFit) {
  VLTDictionary dictionary;
  const unsigned char pascal[] = "\5hello";
  dictionary.setPString("text", pascal);
  dictionary.setData("data", pascal, 3);
  dictionary.setCString(FourCC('S', 'm', 'o', 'N'), "by code");

  UInt32 length = 0;
  char buffer[16] = "";
  EXPECT_EQ(0, dictionary.getCString("text", nullptr, 0, length));
  EXPECT_EQ(5u, length);
  EXPECT_EQ(0, dictionary.getCString("text", buffer, 4, length));
  EXPECT_EQ(3u, length);
  EXPECT_STREQ("hel", buffer);
  EXPECT_EQ(0, dictionary.getCString("'SmoN'", buffer, sizeof buffer, length));
  EXPECT_STREQ("by code", buffer);
  EXPECT_EQ(paramErr, dictionary.getCString("data", buffer, sizeof buffer, length));

  EXPECT_EQ(0, dictionary.getData("data", nullptr, 0, length));
  EXPECT_EQ(3u, length);
  EXPECT_EQ(0, dictionary.getData("data", buffer, 2, length));
  EXPECT_EQ(2u, length);
  EXPECT_EQ(0, memcmp(pascal, buffer, 2));
  EXPECT_EQ(0, dictionary.getData("data", buffer, 0xFFFFFFFF, length));  // signed: -1
  EXPECT_EQ(0xFFFFFFFF, length);
  EXPECT_EQ(0, dictionary.getData("text", buffer, 2, length));  // no bytes in a string
  EXPECT_EQ(0u, length);
  EXPECT_EQ(errAEDescNotFound, dictionary.getData("absent", buffer, 2, length));

  char* block = nullptr;
  EXPECT_EQ(0, dictionary.getCStringAlloc("text", block, nullptr));
  EXPECT_STREQ("hello", block);
  VLTDictionaryBase::PtrFree(block);
  EXPECT_EQ(0, dictionary.getDataAlloc("data", block, CountingAllocator));
  EXPECT_EQ(3, sAskedSize);
  VLTDictionaryBase::PtrFree(block);
  // Meant: two errors for one reason, because callers rely on them.
  block = buffer;
  EXPECT_EQ(memFullErr, dictionary.getCStringAlloc("text", block, NoMemory));
  EXPECT_EQ(mFulErr, dictionary.getDataAlloc("data", block, NoMemory));
  EXPECT_EQ(buffer, block);
  EXPECT_EQ(nullptr, VLTDictionaryBase::PtrAllocator(-1));
}

TEST(Dictionary, ContainersAreSharedAndCopiedOut) {
  VLTDictionary outer, inner, copy;
  inner.setInteger("n", 1);
  EXPECT_EQ(0, outer.setDictionary("inner", inner));
  CFDictionaryRef borrowed = nullptr;
  EXPECT_EQ(0, outer.getDictionary("inner", borrowed));
  EXPECT_EQ(static_cast<const void*>(inner), borrowed);
  EXPECT_EQ(2, CFGetRetainCount(borrowed));
  copy.setInteger("gone", 1);
  EXPECT_EQ(0, outer.getDictionary("inner", copy));
  inner.setInteger("n", 2);
  int n = 0;
  EXPECT_EQ(errAEDescNotFound, copy.getInteger("gone", n));
  EXPECT_EQ(0, copy.getInteger("n", n));
  EXPECT_EQ(1, n);
  CFArrayRef array = nullptr;
  EXPECT_EQ(paramErr, outer.getArray("inner", array));
  EXPECT_EQ(0, outer.remove("inner"));
  EXPECT_EQ(0, outer.remove("inner"));
  EXPECT_EQ(0, outer.getCount());
}

TEST(Dictionary, NullsAreNotStored) {
  OpenDictionary dictionary;
  EXPECT_EQ(0, dictionary.setString("key", nullptr));
  EXPECT_EQ(0, dictionary.setCString(static_cast<const char*>(nullptr), "value"));
  EXPECT_EQ(0, dictionary.getCount());
  dictionary.setCString("key", "value");
  const void* value = nullptr;
  EXPECT_EQ(0, dictionary._get(CFSTR("key"), value));
  EXPECT_EQ(dictionary._get(CFSTR("key")), value);
  EXPECT_EQ(paramErr, dictionary._get(CFSTR("absent"), value));
}

TEST(Dictionary, ReplaceContentsCopiesAndIgnoresItself) {
  VLTCFTypeDictionary source;
  source.SetValue(StackCFString("a"), kCFBooleanTrue);
  VLTDictionary first(source.PreflightModify()), second;
  source.SetValue(StackCFString("b"), kCFBooleanTrue);
  EXPECT_EQ(1, first.getCount());  // a copy
  first.replaceContents(first);
  EXPECT_EQ(1, first.getCount());
  second = first;
  EXPECT_EQ(1, second.getCount());
  EXPECT_NE(static_cast<const void*>(first), static_cast<const void*>(second));
  second.destroyContents();
  EXPECT_EQ(nullptr, static_cast<const void*>(second));
  EXPECT_EQ(0, second.getCount());
  EXPECT_EQ(0, second.setInteger("a", 1));
  EXPECT_EQ(paramErr, second.save("/nowhere", kCFPropertyListXMLFormat_v1_0));
}

// Its name is in tests/leaks.supp, since copyContents leaks the old contents.
[[gnu::noinline]] void LeaveContentsBehind(CFIndex* count) {
  VLTDictionary dictionary, other;
  const void* const old = dictionary;
  CFRetain(old);
  dictionary.copyContents(other);
  *count = CFGetRetainCount(old);
  CFRelease(old);
}

// Meant: the old contents are not released, because callers rely on it.
TEST(Dictionary, CopyContentsDoesNotReleaseTheOldOnes) {
  CFIndex count = 0;
  LeaveContentsBehind(&count);
  EXPECT_EQ(2, count);
}

}  // namespace
