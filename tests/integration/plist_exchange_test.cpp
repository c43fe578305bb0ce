#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/platform/plist_random.h"
#include "tests/platform/plist_support.h"
#include "tests/support/child_process.h"

// Property lists to and from another implementation: Python's plistlib, run by plist_exchange.py.
// Its time zone, which is an odd one, plays no part.

namespace {

constexpr int kLists = 300;

class PlistExchange : public testing::Test {
 protected:
  void SetUp() override {
    folder =
        std::filesystem::temp_directory_path() / ("plist_exchange." + std::to_string(::getpid()));
    std::filesystem::create_directory(folder);
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  void RunPython(const std::string& verb) {
    ChildProcess python;
    ChildOptions options;
    options.arguments = {"/usr/bin/python3", VLT_PLIST_EXCHANGE, verb, folder.string(),
                         std::to_string(kLists)};
    options.environment = {{"TZ", "Pacific/Chatham"}};
    options.capture = true;
    ASSERT_TRUE(python.Start(options));
    ASSERT_EQ(0, python.Wait(60s)) << python.Errors();
  }

  std::string Load(const std::string& name) {
    std::ifstream file(folder / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void Store(const std::string& name, const std::string& bytes) {
    std::ofstream(folder / name, std::ios::binary) << bytes;
  }

  std::filesystem::path folder;
};

TEST_F(PlistExchange, ReadsAndWritesBackWhatPythonWrites) {
  ASSERT_NO_FATAL_FAILURE(RunPython("make"));
  for (int i = 0; i < kLists; ++i) {
    for (const char* form : {".xml", ".bin"}) {
      const std::string name = std::to_string(i) + form;
      const ReadList list(Load(name));
      ASSERT_NE(nullptr, list.Get()) << name << ": " << list.error.Sentence();
      Store(name + ".x.out", WriteXML(list.Get()));
      Store(name + ".b.out", WriteBinary(list.Get()));
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
    Store(std::to_string(i) + ".xml", WriteXML(list));
    Store(std::to_string(i) + ".bin", WriteBinary(list));
    CFRelease(list);
  }
  ASSERT_NO_FATAL_FAILURE(RunPython("rewrite"));
  for (int i = 0; i < kLists; ++i) {
    CFTypeRef list = listOf(i);
    for (const char* form : {".xml.out", ".bin.out"}) {
      const ReadList again(Load(std::to_string(i) + form));
      EXPECT_EQ(WriteXML(list), WriteXML(again.Get())) << i << form;
    }
    CFRelease(list);
  }
}

}  // namespace
