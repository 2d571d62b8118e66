#include "Core/Kernel/Symbols/ProgramFile.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <array>
#include <cstring>

#include "Core/Kernel/BuildIdNote.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

constexpr std::size_t kMostSections = 0xFF00;

}  // namespace

std::optional<ProgramFile> ProgramFile::open(const String& path, const ImageHeaders& headers) noexcept {
  // Not blocking, as a pipe may lie there by now.
  auto opened = File::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (!opened) {
    return std::nullopt;
  }
  ProgramFile file(std::move(*opened));
  const Data id = headers.buildId();
  if (!file.readHeader() || !(id.empty() ? file.hasHeadersOf(headers) : file.hasBuildId(id))) {
    return std::nullopt;
  }
  return file;
}

bool ProgramFile::read(std::uint64_t offset, void* into, std::size_t size) const noexcept {
  const long count = restartedSystemCall(SYS_pread64, file_.descriptor(), into, size, offset);
  return count >= 0 && static_cast<std::size_t>(count) == size;
}

SymbolSections ProgramFile::symbols() const noexcept {
  if (header_.e_shentsize != sizeof(Elf64_Shdr) || header_.e_shnum >= kMostSections) {
    return {};
  }
  bool isRead = false;
  const std::size_t size = header_.e_shnum * sizeof(Elf64_Shdr);
  const Bytes table = Bytes::filled(size, [&](char* into) { isRead = read(header_.e_shoff, into, size); });
  const auto sectionAt = [&table](std::size_t index) {
    Elf64_Shdr section;
    std::memcpy(&section, table.data() + index * sizeof section, sizeof section);
    return section;
  };
  for (std::size_t i = 0; isRead && i < header_.e_shnum; ++i) {
    const Elf64_Shdr symbols = sectionAt(i);
    if (symbols.sh_type == SHT_SYMTAB && symbols.sh_entsize == sizeof(Elf64_Sym) && symbols.sh_link < header_.e_shnum) {
      const Elf64_Shdr names = sectionAt(symbols.sh_link);
      return {symbols.sh_offset, symbols.sh_size / sizeof(Elf64_Sym), names.sh_offset, names.sh_size};
    }
  }
  return {};
}

bool ProgramFile::readHeader() noexcept {
  return read(0, &header_, sizeof header_) && std::memcmp(header_.e_ident, ELFMAG, SELFMAG) == 0 &&
         header_.e_ident[EI_CLASS] == ELFCLASS64 && header_.e_phentsize == sizeof(Elf64_Phdr);
}

bool ProgramFile::readSegment(std::size_t index, Elf64_Phdr& into) const noexcept {
  return read(header_.e_phoff + index * sizeof into, &into, sizeof into);
}

bool ProgramFile::hasBuildId(const Data& id) const noexcept {
  Elf64_Phdr segment;
  for (std::size_t i = 0; i < header_.e_phnum && readSegment(i, segment); ++i) {
    if (segment.p_type == PT_NOTE && hasBuildIdIn(segment, id)) {
      return true;
    }
  }
  return false;
}

bool ProgramFile::hasBuildIdIn(const Elf64_Phdr& notes, const Data& id) const noexcept {
  const auto readNotes = [&](std::uint64_t distance, void* into, std::size_t size) {
    return read(notes.p_offset + distance, into, size);
  };
  const AddressRange place = findBuildId(notes, notes.p_filesz, readNotes);
  std::array<std::uint8_t, kMostBuildIdBytes> found;
  return !place.empty() && place.size() == id.size() && readNotes(place.start, found.data(), id.size()) &&
         std::memcmp(found.data(), id.data(), id.size()) == 0;
}

bool ProgramFile::hasHeadersOf(const ImageHeaders& headers) const noexcept {
  const OwnMemory memory;
  Elf64_Ehdr loaded;
  if (!memory.read(headers.base(), &loaded, sizeof loaded) || std::memcmp(&loaded, &header_, sizeof loaded) != 0) {
    return false;
  }
  Elf64_Phdr segment;
  Elf64_Phdr loadedSegment;
  for (std::size_t i = 0; i < header_.e_phnum; ++i) {
    const std::uint64_t place = headers.base() + header_.e_phoff + i * sizeof segment;
    if (!readSegment(i, segment) || !memory.read(place, &loadedSegment, sizeof loadedSegment) ||
        std::memcmp(&segment, &loadedSegment, sizeof segment) != 0) {
      return false;
    }
  }
  return true;
}

}  // namespace core
