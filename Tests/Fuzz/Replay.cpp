#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Feeds a fuzz target every file of a folder, for compilers without libFuzzer.
int main(int argc, char** argv) {
  int fed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argc > 1 ? argv[1] : ".")) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) {
      std::fprintf(stderr, "Cannot read %s\n", entry.path().c_str());
      return EXIT_FAILURE;
    }
    // A fault ends the program here: the last line names the file.
    std::printf("%s\n", entry.path().c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++fed;
  }
  if (fed == 0) {
    std::fprintf(stderr, "The corpus is empty\n");
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
