// SPDX-License-Identifier: Apache-2.0
// Runs a harness over files and folders: the corpus in script/test, without a fuzzing engine.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      std::ifstream stream(entry.path(), std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
      ++files;
    }
  }
  std::printf("%d inputs replayed\n", files);
  return files > 0 ? 0 : 1;
}
