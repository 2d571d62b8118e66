#include "Core/Kernel/Unwind/FileSections.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include "Core/Files/File.h"
#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

constexpr std::size_t kMostSections = 0xFF00;
constexpr std::size_t kMostNameBytes = std::size_t{16} << 20;

bool readAt(const File& file, std::uint64_t offset, void* into, std::size_t size) noexcept {
  const long count = restartedSystemCall(SYS_pread64, file.descriptor(), into, size, offset);
  return count >= 0 && static_cast<std::size_t>(count) == size;
}

Bytes bytesAt(const File& file, std::uint64_t offset, std::size_t size) noexcept {
  bool isRead = false;
  Bytes bytes = Bytes::filled(size, [&](char* into) { isRead = readAt(file, offset, into, size); });
  return isRead ? bytes : Bytes();
}

bool isHeaderOf(const ImageHeaders& headers, const Elf64_Ehdr& header) noexcept {
  Elf64_Ehdr loaded;
  return readOwnMemory(headers.base(), &loaded, sizeof loaded) && std::memcmp(&loaded, &header, sizeof loaded) == 0;
}

Elf64_Shdr sectionAt(const Bytes& table, std::size_t index) noexcept {
  Elf64_Shdr section;
  std::memcpy(&section, table.data() + index * sizeof section, sizeof section);
  return section;
}

}  // namespace

AddressRange sectionInFile(const ImageHeaders& headers, const String& path, std::string_view name) noexcept {
  const auto file = File::open(path, O_RDONLY | O_CLOEXEC);
  Elf64_Ehdr header;
  if (!file || !readAt(*file, 0, &header, sizeof header) || !isHeaderOf(headers, header) ||
      header.e_shentsize != sizeof(Elf64_Shdr) || header.e_shnum >= kMostSections ||
      header.e_shstrndx >= header.e_shnum) {
    return {};
  }
  const Bytes table = bytesAt(*file, header.e_shoff, header.e_shnum * sizeof(Elf64_Shdr));
  if (table.size() == 0) {
    return {};
  }
  const Elf64_Shdr nameSection = sectionAt(table, header.e_shstrndx);
  if (nameSection.sh_size > kMostNameBytes) {
    return {};
  }
  const Bytes names = bytesAt(*file, nameSection.sh_offset, nameSection.sh_size);
  for (std::size_t i = 0; i < header.e_shnum; ++i) {
    const Elf64_Shdr section = sectionAt(table, i);
    const bool isNamed = section.sh_name < names.size() && name == names.data() + section.sh_name;
    if (isNamed && (section.sh_flags & SHF_ALLOC) != 0) {
      const std::uint64_t start = headers.bias() + section.sh_addr;
      const std::uint64_t end = start + section.sh_size;
      return start >= headers.base() && end <= headers.end() && start <= end ? AddressRange{start, end}
                                                                             : AddressRange{};
    }
  }
  return {};
}

}  // namespace core
