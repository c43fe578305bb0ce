#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

// Runs a fuzz target, in a build without libFuzzer, with each seed of the folders that the
// arguments name. Fails if a folder has no seeds, because then nothing would be tried.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

size_t ReplayFolder(const char* folder) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ++count;
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const size_t count = ReplayFolder(argv[i]);
    std::printf("%s: %zu seeds\n", argv[i], count);
    if (count == 0) return 1;
  }
  return argc > 1 ? 0 : 1;
}
