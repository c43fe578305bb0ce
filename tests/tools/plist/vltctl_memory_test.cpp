#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "tests/support/failing_allocations.h"
#include "tests/support/scratch_folder.h"
#include "tools/output.h"
#include "tools/tool.h"

// vltctl plist, in this process, while each of its allocations fails.

namespace {

// Standard input, output and error are a file, another one and nothing while it lives.
class Redirection {
 public:
  Redirection(const std::string& in, const std::string& out) {
    std::fflush(stdout);
    std::rewind(stdin);
    const int files[] = {open(in.c_str(), O_RDONLY | O_CLOEXEC),
                         open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600),
                         open("/dev/null", O_WRONLY | O_CLOEXEC)};
    for (int i = 0; i < 3; ++i) {
      before[static_cast<size_t>(i)] = fcntl(i, F_DUPFD_CLOEXEC, 3);
      dup2(files[i], i);
      close(files[i]);
    }
    std::rewind(stdin);
  }
  ~Redirection() {
    std::fflush(stdout);
    for (int i = 0; i < 3; ++i) {
      dup2(before[static_cast<size_t>(i)], i);
      close(before[static_cast<size_t>(i)]);
    }
  }
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

 private:
  std::array<int, 3> before = {};
};

// As main does it.
int Vltctl(const std::vector<std::string>& words) {
  try {
    const int status = RunTool(words);
    return TakeOutputError() == 0 ? status : -1;
  } catch (const std::bad_alloc&) {
    return 1;
  }
}

TEST(VltctlMemory, AFailedAllocationIsStatusOneAndNeverAnotherResult) {
  const ScratchFolder folder;
  const std::string json =
      folder.File("a.json", "{\"a\":[1,-2.5,{\"b\":\"text\"}],\"d\":\"2005-03-01T12:34:56Z\"}");
  const std::string list = folder.Path("list"), other = folder.File("other", "( a, { b = c; } )");
  const std::string out = folder.Path("out");
  {
    const Redirection redirection(json, list);
    ASSERT_EQ(0, Vltctl({"plist", "convert", "xml", "-"}));
  }
  const std::vector<std::string> rows[] = {
      {"set", "-", "a.2.c", "[true,{\"e\":-1}]"},
      {"set", "-", "new", "{ a = (b, c); }"},
      {"set", "-", "d", "--type", "date", "2024-02-29T00:00:00Z"},
      {"set", "-", "d", "--type", "data", "AAEC/w=="},
      {"insert", "-", "a.0", "5"},
      {"remove", "-", "d"},
      {"convert", "binary", "-"},
      {"convert", "json", "-"},
      {"convert", "xml", json},
      {"print", "-"},
      {"print", other, "--json"},
      {"extract", "-", "a"},
      {"lint", "-", other, "--json"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> words = {"plist"};
    words.insert(words.end(), row.begin(), row.end());
    {
      const Redirection redirection(list, out);
      ASSERT_EQ(0, Vltctl(words));
    }
    const std::string expected = ReadFile(out);
    const std::string name = row[0] + " " + row[1];
    SweepAllocations({
        .name = name.c_str(),
        .work =
            [&] {
              const Redirection redirection(list, out);
              return Vltctl(words);
            },
        .refusals = {1},
        .check =
            [&](OSStatus status) {
              if (status != 0) return;
              EXPECT_EQ(expected, ReadFile(out));
            },
    });
  }
}

}  // namespace
