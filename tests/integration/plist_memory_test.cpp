#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/platform/plist/support.h"

// The most memory that reading takes: 8 times the file (binary: 16 times), the file included, and 4
// MiB. Measured as resident memory, in a program of its own.

namespace {

using namespace std::literals;

constexpr size_t kMiB = size_t{1} << 20;

// Returns a value of /proc/self/status in bytes.
size_t StatusBytes(const char* name) {
  std::ifstream file("/proc/self/status");
  std::string word;
  size_t kilobytes = 0;
  while (file >> word) {
    if (word == name && file >> kilobytes) return kilobytes * 1024;
  }
  return 0;
}

// Returns by how much `work` raised the peak of the resident memory.
size_t PeakOf(const std::function<void()>& work) {
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5" << std::flush;  // forgets the earlier peak
  const size_t before = StatusBytes("VmRSS:");
  EXPECT_LE(StatusBytes("VmHWM:"), before + kMiB);
  work();
  return StatusBytes("VmHWM:") - before;
}

std::string Filled(std::string_view begin, std::string_view part, std::string_view end,
                   size_t size) {
  return std::string(begin) + Repeat(part, size / part.size()) + std::string(end);
}

std::string Counted(std::string_view begin, std::string_view before, std::string_view after,
                    std::string_view end, size_t count) {
  std::string text(begin);
  for (size_t i = 0; i < count; ++i) (text += before) += std::to_string(i).append(after);
  return text.append(end);
}

// An array of `references` to `object`. The table has `count` objects, all but the first at the
// same offset.
std::string Binary(size_t references, size_t count, std::string_view object, bool oneEach) {
  std::string bytes = "bplist00\xAF\x12" + Big(references, 4);
  for (size_t i = 0; i < references; ++i) bytes += Big(oneEach ? 1 + i % (count - 1) : 1, 4);
  const size_t at = bytes.size();
  bytes += object;
  const size_t table = bytes.size();
  bytes += Big(8, 4);
  for (size_t i = 1; i < count; ++i) bytes += Big(at, 4);
  return bytes + std::string(6, '\0') + "\4\4" + Big(count, 8) + Big(0, 8) + Big(table, 8);
}

void ExpectBounded(const std::string& bytes, size_t factor) {
  std::string outcome = "accepted";
  const size_t peak = PeakOf([&] {
    const ReadList list(bytes, kCFPropertyListMutableContainersAndLeaves);
    if (list.Get() == nullptr) outcome = list.error.Sentence();
  });
  EXPECT_LE(peak, (factor - 1) * bytes.size() + 4 * kMiB) << outcome;
}

TEST(PlistMemory, TextIsBounded) {
  constexpr size_t kSize = 10 * kMiB;
  constexpr size_t kLong = 50 * kMiB;
  const std::pair<const char*, std::function<std::string()>> rows[] = {
      {"empty dictionaries", [] { return Filled("<array>", "<dict/>", "</array>", kSize); }},
      {"empty arrays", [] { return Filled("<array>", "<array/>", "</array>", kSize); }},
      {"never closed", [] { return Filled("", "<array>", "", kSize); }},
      {"empty strings", [] { return Filled("<array>", "<string/>", "</array>", kSize); }},
      {"empty data", [] { return Filled("<array>", "<data/>", "</array>", kSize); }},
      {"truth", [] { return Filled("<array>", "<true/>", "</array>", kSize); }},
      {"integers", [] { return Filled("<array>", "<integer>1</integer>", "</array>", kSize); }},
      {"one key", [] { return Filled("<dict>", "<key>a</key><dict/>", "</dict>", kSize); }},
      {"keys", [] { return Counted("<dict>", "<key>", "</key><true/>", "</dict>", 400000); }},
      {"strings", [] { return Counted("<array>", "<string>", "</string>", "</array>", 400000); }},
      {"long string", [] { return Filled("<string>", "a", "</string>", kLong); }},
      {"long wide string", [] { return Filled("<string>", "\xE2\x82\xAC", "</string>", kLong); }},
      {"long Latin string", [] { return Filled("<string>", "\xC3\xA9", "</string>", kLong); }},
      {"entities", [] { return Filled("<string>", "&lt;", "</string>", kLong); }},
      {"wide entities", [] { return Filled("<string>a", "&#9999;", "</string>", kLong); }},
      {"sections", [] { return Filled("<key>", "<![CDATA[a]]>", "</key>", kLong); }},
      {"long data", [] { return Filled("<data>", "AAAA", "</data>", kLong); }},
      {"long number", [] { return Filled("<real>", "1", "</real>", kLong); }},
      {"comment", [] { return Filled("<!--", "- ", "--><true/>", kLong); }},
      {"attributes", [] { return Filled("<true a='", "&amp;", "'/>", kLong); }},
      {"open tags", [] { return Filled("", "<", "", kLong); }},
      {"UTF-16", [] { return Filled("\xFE\xFF", "\0<\0d\0i\0c\0t\0/\0>"sv, "", kSize); }},
      {"wide UTF-16", [] { return Filled("\xFF\xFE\"\0"sv, "\x20\x20", "\"\0"sv, kSize); }},
      {"text arrays", [] { return Filled("(", "(),", ")", kSize); }},
      {"text letters", [] { return Filled("(", "a,", ")", kSize); }},
      {"text pairs", [] { return Filled("{", "a=b;", "}", kSize); }},
      {"text escapes", [] { return Filled("'", "\\U20ac", "'", kLong); }},
      {"text data", [] { return Filled("<", "00", ">", kLong); }},
  };
  for (const auto& [name, bytes] : rows) {
    SCOPED_TRACE(name);
    ExpectBounded(bytes(), 8);
  }
}

TEST(PlistMemory, BinaryIsBounded) {
  const std::pair<const char*, std::string> rows[] = {
      {"empty arrays", Binary(2000000, 2, "\xA0", false)},
      {"dictionaries of one place", Binary(1000000, 1000000, "\xD0", true)},
      {"strings of one place", Binary(1000000, 1000000, "\x50", true)},
      {"integers of one place", Binary(1000000, 1000000, "\x10\x01", true)},
      {"unused objects", Binary(1, 2000000, "\x50", false)},
      {"true", Binary(4000000, 2, "\x09", false)},
      {"a long string of many",
       Binary(1000, 1000, "\x5F\x12" + Big(kMiB, 4) + std::string(kMiB, 'a'), true)},
      {"a long wide string",
       Binary(1, 2, "\x6F\x12" + Big(10 * kMiB, 4) + std::string(20 * kMiB, '\x20'), false)},
  };
  for (const auto& [name, bytes] : rows) {
    SCOPED_TRACE(name);
    ExpectBounded(bytes, 16);
  }
}

// A reader keeps one value of each version of a file. The other values of those versions are freed.
TEST(PreferencesMemory, KeptValuesKeepNothingElse) {
  const std::string folder = std::string(std::getenv("XDG_CONFIG_HOME")) + "/veltrane/preferences";
  std::filesystem::create_directories(folder);
  const std::string rest =
      Counted("", "<key>key ", "</key><string>a value of some length</string>", "", 300);
  constexpr int kChanges = 200;
  std::vector<CFTypeRef> kept;
  size_t before = 0;
  for (int i = 0; i < kChanges; i++) {
    if (i == 20) before = mallinfo2().uordblks;
    std::ofstream(folder + "/memory.plist")
        << "<dict>" << rest << "<key>n</key><string>" << i << "</string></dict>";
    kept.push_back(CFPreferencesCopyValue(CFSTR("n"), CFSTR("memory"), kCFPreferencesCurrentUser,
                                          kCFPreferencesAnyHost));
    ASSERT_NE(nullptr, kept.back());
  }
  EXPECT_LE(mallinfo2().uordblks, before + kChanges * 512);
  for (const CFTypeRef value : kept) CFRelease(value);
}

}  // namespace
