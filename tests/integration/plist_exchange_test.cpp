#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/platform/plist/random_list.h"
#include "tests/platform/plist/support.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_folder.h"
#include "tools/values/json_value.h"
#include "tools/values/port_text.h"

// Property lists to and from another implementation: Python's plistlib, run by plist_exchange.py in
// a time zone that must not matter.

namespace {

constexpr int kLists = 300;

class PlistExchange : public testing::Test {
 protected:
  void RunPython(const std::string& verb) {
    ChildProcess python;
    ChildOptions options;
    options.arguments = {"/usr/bin/python3", VLT_PLIST_EXCHANGE, verb, folder.Path(),
                         std::to_string(kLists)};
    options.environment = {{"TZ", "Pacific/Chatham"}};
    options.capture = true;
    ASSERT_TRUE(python.Start(options));
    ASSERT_EQ(0, python.Wait(60s)) << python.Errors();
  }

  const ScratchFolder folder;
};

TEST_F(PlistExchange, ReadsAndWritesBackWhatPythonWrites) {
  ASSERT_NO_FATAL_FAILURE(RunPython("make"));
  for (int i = 0; i < kLists; ++i) {
    for (const char* form : {".xml", ".bin"}) {
      const std::string name = std::to_string(i) + form;
      const ReadList list(ReadFile(folder.Path(name)));
      ASSERT_NE(nullptr, list.Get()) << name << ": " << list.error.Sentence();
      folder.File(name + ".x.out", WriteXML(list.Get()));
      folder.File(name + ".b.out", WriteBinary(list.Get()));
    }
  }
  RunPython("check");
}

TEST_F(PlistExchange, IsReadAndWrittenBackByPython) {
  const auto listOf = [](int i) {
    return RandomList(static_cast<UInt32>(i), RandomList::Text::kWellFormed).Value(5);
  };
  for (int i = 0; i < kLists; ++i) {
    CFTypeRef list = listOf(i);
    folder.File(std::to_string(i) + ".xml", WriteXML(list));
    folder.File(std::to_string(i) + ".bin", WriteBinary(list));
    CFRelease(list);
  }
  ASSERT_NO_FATAL_FAILURE(RunPython("rewrite"));
  for (int i = 0; i < kLists; ++i) {
    CFTypeRef list = listOf(i);
    for (const char* form : {".xml.out", ".bin.out"}) {
      const ReadList again(ReadFile(folder.Path(std::to_string(i) + form)));
      EXPECT_EQ(WriteXML(list), WriteXML(again.Get())) << i << form;
    }
    CFRelease(list);
  }
}

TEST_F(PlistExchange, AnyBytesMakeJsonThatPythonReads) {
  std::minstd_rand random(2);
  std::string lines;
  for (int i = 0; i < 5000; ++i) {
    std::string bytes(random() % 12, 0);
    for (char& byte : bytes) byte = static_cast<char>(random() | (random() % 2 ? 0x80u : 0u));
    lines += JsonText(JsonValue::Array{HexText(bytes), bytes}) + "\n";
  }
  folder.File("lines.json", lines);
  RunPython("lines");
}

}  // namespace
