#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Feeds a fuzz target every file of a folder, whole, cut off at every byte of its front and with bits
/// turned over, for compilers without libFuzzer. A fault ends the program: its last line names the file.
int main(int argc, char** argv) {
  int fed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : ".")) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<std::uint8_t> whole{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    std::printf("%s\n", entry.path().c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(whole.data(), whole.size());
    std::minstd_rand random(20261);
    for (std::size_t size = 0; size < 1500; ++size) {
      std::vector<std::uint8_t> bytes = whole;
      bytes.resize(std::min(size, whole.size()));
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      bytes = whole;
      for (auto flips = random() % 4; flips != 0; --flips) {
        bytes[random() % bytes.size()] ^= static_cast<std::uint8_t>(1U << random() % 8);
      }
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    ++fed;
  }
  std::printf("%d files\n", fed);
  return fed != 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
