#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/Symbols/SymbolTables.h"

// Looking a function up, beside the loader's dladdr, and making the index of libraries as they are
// and of a table of 44,000 functions.

namespace {

core::ImageHeaders headersAround(const void* code) {
  const core::Array<core::LoadedImage> images = core::readLoadedImages();
  core::ImageHeaders headers;
  headers.read(core::imageCovering(images, reinterpret_cast<std::uint64_t>(code))->base);
  return headers;
}

const void* const kCLibrary = reinterpret_cast<void*>(&std::qsort);
const void* const kCppLibrary = dlsym(RTLD_DEFAULT, "__cxa_throw");

/// Addresses all over the code of the C++ library, in no order.
std::vector<std::uint64_t> places() {
  const core::ImageHeaders headers = headersAround(kCppLibrary);
  std::vector<std::uint64_t> made(4096);
  std::minstd_rand random(1);
  for (std::uint64_t& place : made) {
    place = headers.codeStart() + random() % (headers.codeEnd() - headers.codeStart());
  }
  return made;
}

template <class Lookup>
void lookUp(benchmark::State& state, Lookup&& lookup) {
  const std::vector<std::uint64_t> addresses = places();
  std::size_t next = 0;
  for (auto _ : state) {
    lookup(addresses[next++ % addresses.size()]);
  }
}

void lookupOfTables(benchmark::State& state) {
  core::SymbolTables::refresh();
  lookUp(state, [](std::uint64_t address) {
    const core::SymbolTables::View view;
    benchmark::DoNotOptimize(view.lookup(address));
  });
}
BENCHMARK(lookupOfTables);

void lookupOfLoader(benchmark::State& state) {
  lookUp(state, [](std::uint64_t address) {
    Dl_info info;
    benchmark::DoNotOptimize(dladdr(reinterpret_cast<void*>(address), &info));
  });
}
BENCHMARK(lookupOfLoader);

void makeIndex(benchmark::State& state, const core::ImageHeaders& headers, const core::String& path) {
  std::size_t size = 0;
  for (auto _ : state) {
    const core::SymbolIndex index = core::SymbolIndex::of(headers, path);
    size = index.size();
  }
  state.counters["functions"] = static_cast<double>(size);
}

void indexOfCLibrary(benchmark::State& state) {
  makeIndex(state, headersAround(kCLibrary), {});
}
BENCHMARK(indexOfCLibrary);

void indexOfCppLibrary(benchmark::State& state) {
  makeIndex(state, headersAround(kCppLibrary), {});
}
BENCHMARK(indexOfCppLibrary);

/// A file of 44,000 functions in no order, with names as long as C++ has them.
class LargeFile {
 public:
  static constexpr std::size_t kFunctions = 44000;

  LargeFile() : descriptor_(memfd_create("symbols", MFD_CLOEXEC)) {
    std::string names(1, '\0');
    std::vector<Elf64_Sym> symbols(kFunctions);
    for (std::size_t i = 0; i < kFunctions; ++i) {
      symbols[i] = {static_cast<std::uint32_t>(names.size()),
                    ELF64_ST_INFO(STB_LOCAL, STT_FUNC),
                    0,
                    1,
                    kStart + i * kStep,
                    kStep - 8};
      names += "_ZN7service7network10connection" + std::to_string(i) + "EPKcRKNS_6detailE";
      names += '\0';
    }
    std::shuffle(symbols.begin(), symbols.end(), std::minstd_rand(1));
    const std::uint64_t symbolBytes = symbols.size() * sizeof symbols[0];
    front_.sections[1] = {0, SHT_SYMTAB, 0, 0, sizeof front_, symbolBytes, 2, 0, 8, sizeof symbols[0]};
    front_.sections[2] = {0, SHT_STRTAB, 0, 0, sizeof front_ + symbolBytes, names.size(), 0, 0, 1, 0};
    front_.header.e_shoff = offsetof(Front, sections);
    const auto bytes = std::bit_cast<std::array<char, sizeof(Front)>>(front_);
    write(bytes.data(), bytes.size());
    write(symbols.data(), symbolBytes);
    write(names.data(), names.size());
  }
  ~LargeFile() { close(descriptor_); }

  core::ImageHeaders headers() const {
    core::ImageHeaders made;
    made.read(reinterpret_cast<std::uint64_t>(&front_));
    return made;
  }
  core::String path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  static constexpr std::uint64_t kStart = 0x4000;
  static constexpr std::uint64_t kStep = 0x100;

  struct alignas(4096) Front {
    Elf64_Ehdr header{{0x7F, 'E', 'L', 'F', ELFCLASS64, ELFDATA2LSB, EV_CURRENT},
                      ET_DYN,
                      EM_X86_64,
                      EV_CURRENT,
                      0,
                      sizeof header,
                      0,
                      0,
                      sizeof header,
                      sizeof(Elf64_Phdr),
                      1,
                      sizeof(Elf64_Shdr),
                      3,
                      0};
    Elf64_Phdr segment{PT_LOAD, PF_R | PF_X, 0, 0, 0, kFunctions* kStep + kStart, kFunctions* kStep + kStart, 4096};
    Elf64_Shdr sections[3]{};
  };

  void write(const void* bytes, std::size_t size) const {
    if (::write(descriptor_, bytes, size) != static_cast<ssize_t>(size)) {
      std::abort();
    }
  }

  Front front_;
  int descriptor_;
};

void indexOfLargeFile(benchmark::State& state) {
  const LargeFile file;
  makeIndex(state, file.headers(), file.path());
}
BENCHMARK(indexOfLargeFile);

void lookupInLargeFile(benchmark::State& state) {
  const LargeFile file;
  const core::ImageHeaders headers = file.headers();
  const core::SymbolIndex index = core::SymbolIndex::of(headers, file.path());
  std::minstd_rand random(1);
  std::vector<std::uint64_t> addresses(4096);
  for (std::uint64_t& address : addresses) {
    address = headers.base() + random() % (headers.end() - headers.base());
  }
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(index.lookup(addresses[next++ % addresses.size()]));
  }
}
BENCHMARK(lookupInLargeFile);

void refreshWithoutChange(benchmark::State& state) {
  core::SymbolTables::refresh();
  for (auto _ : state) {
    core::SymbolTables::refresh();
  }
}
BENCHMARK(refreshWithoutChange);

}  // namespace
