#pragma once

#include <elf.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <span>
#include <string>

namespace test {

/// A small program file that is loaded as it stands, with exported and local functions. Tests
/// change what they like.
struct SymbolImage {
  static Elf64_Sym function(std::uint32_t name, std::uint64_t start, std::uint64_t size, unsigned binding = STB_GLOBAL,
                            unsigned type = STT_FUNC, std::uint16_t section = 1) {
    return {name, static_cast<unsigned char>(ELF64_ST_INFO(binding, type)), 0, section, start, size};
  }

  Elf64_Ehdr header{{0x7F, 'E', 'L', 'F', ELFCLASS64, ELFDATA2LSB, EV_CURRENT},
                    ET_DYN,
                    EM_X86_64,
                    EV_CURRENT,
                    0,
                    sizeof header,
                    offsetof(SymbolImage, sections),
                    0,
                    sizeof header,
                    sizeof(Elf64_Phdr),
                    3,
                    sizeof(Elf64_Shdr),
                    3,
                    0};
  Elf64_Phdr segments[3]{
      {PT_LOAD, PF_R | PF_X, 0, 0, 0, 0x10000, 0x10000, 0x1000},
      {PT_DYNAMIC, PF_R, offsetof(SymbolImage, dynamic), offsetof(SymbolImage, dynamic), 0, sizeof dynamic,
       sizeof dynamic, 8},
      {PT_NOTE, PF_R, offsetof(SymbolImage, note), offsetof(SymbolImage, note), 0, sizeof note, sizeof note, 4}};
  struct {
    Elf64_Nhdr sizes{4, 20, NT_GNU_BUILD_ID};
    char name[4]{'G', 'N', 'U', 0};
    unsigned char id[20]{1, 2, 3};
  } note;
  Elf64_Dyn dynamic[5]{{DT_SYMTAB, {offsetof(SymbolImage, exported)}},
                       {DT_STRTAB, {offsetof(SymbolImage, exportedNames)}},
                       {DT_STRSZ, {sizeof exportedNames}},
                       {DT_GNU_HASH, {offsetof(SymbolImage, gnuHash)}},
                       {DT_NULL, {0}}};
  char exportedNames[32]{"\0outer\0other"};
  Elf64_Sym exported[3]{{}, function(1, 0x2000, 0x100), function(7, 0x3000, 0x10)};
  /// One bucket, symbols from 1 on, one bloom word; the chain ends at the odd hash.
  std::uint32_t gnuHash[9]{1, 1, 1, 6, 0, 0, 1, 2, 3};
  char names[64]{"\0outer\0other\0inner\0alias\0label\0local\0object"};
  Elf64_Sym all[10]{{},
                    function(31, 0x4000, 0x20, STB_LOCAL),
                    function(13, 0x2040, 0x10, STB_LOCAL),
                    function(19, 0x2000, 0x100, STB_WEAK),
                    function(1, 0x2000, 0x100),
                    function(25, 0x3800, 0),
                    function(7, 0x3000, 0x10, STB_GLOBAL, STT_GNU_IFUNC),
                    function(37, 0x5000, 8, STB_GLOBAL, STT_OBJECT),
                    function(25, 0x6000, 8, STB_GLOBAL, STT_FUNC, SHN_UNDEF),
                    function(25, 0xFFF0, 0x1000)};
  Elf64_Shdr sections[3]{{},
                         {0, SHT_SYMTAB, 0, 0, offsetof(SymbolImage, all), sizeof all, 2, 1, 8, sizeof(Elf64_Sym)},
                         {0, SHT_STRTAB, 0, 0, offsetof(SymbolImage, names), sizeof names, 0, 0, 1, 0}};

  std::span<const std::uint8_t> bytes() const { return {reinterpret_cast<const std::uint8_t*>(this), sizeof *this}; }
};

/// Bytes as an image in memory (followed by zeros, then by nothing that can be read) and bytes
/// as its file, both changed at will.
class LoadedBytes {
 public:
  static constexpr std::size_t kRoom = 1 << 16;

  LoadedBytes()
      : pages_(::mmap(nullptr, 2 * kRoom, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)),
        file_(::memfd_create("symbols", MFD_CLOEXEC)) {
    ::mprotect(pages_, kRoom, PROT_READ | PROT_WRITE);
  }
  LoadedBytes(const LoadedBytes&) = delete;
  LoadedBytes& operator=(const LoadedBytes&) = delete;
  ~LoadedBytes() {
    ::munmap(pages_, 2 * kRoom);
    ::close(file_);
  }

  void load(std::span<const std::uint8_t> bytes) {
    std::memset(pages_, 0, kRoom);
    std::memcpy(pages_, bytes.data(), bytes.size());
  }
  bool writeFile(std::span<const std::uint8_t> bytes) const {
    return ::ftruncate(file_, 0) == 0 && ::pwrite(file_, bytes.data(), bytes.size(), 0) >= 0;
  }

  std::uint64_t base() const { return reinterpret_cast<std::uint64_t>(pages_); }
  std::string filePath() const { return "/proc/self/fd/" + std::to_string(file_); }

 private:
  void* pages_;
  int file_;
};

}  // namespace test
