// Plays every file of the named folders through the target that it is linked with, in the order of
// their names. It needs no fuzzer, so every compiler can replay the inputs that one has found.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/target.h"

namespace {

std::vector<std::filesystem::path> files_of(const char* folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void play(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
  std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
}

}  // namespace

int main(int count, char** folders) {
  std::size_t played = 0;
  for (int i = 1; i < count; ++i) {
    for (const auto& file : files_of(folders[i])) {
      std::printf("%s\n", file.filename().c_str());
      std::fflush(stdout);
      play(file);
      ++played;
    }
  }
  std::printf("%zu inputs played\n", played);
  return played == 0 ? 1 : 0;
}
