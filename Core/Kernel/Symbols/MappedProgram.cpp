#include "Core/Kernel/Symbols/MappedProgram.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "Core/Files/File.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Memory/Array.h"

namespace core {
namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::size_t kMostSegments = 128;
/// Larger than any program; a header that says more is corrupt.
constexpr std::uint64_t kMostSize = std::uint64_t{1} << 32;

constexpr std::uint64_t pageStart(std::uint64_t address) noexcept {
  return address / kPage * kPage;
}

bool readAt(const File& file, std::uint64_t offset, void* into, std::size_t size) noexcept {
  const long count = restartedSystemCall(SYS_pread64, file.descriptor(), into, size, offset);
  return count >= 0 && static_cast<std::size_t>(count) == size;
}

/// The segments to be mapped, in the file's order; none for what is no program file.
Array<Elf64_Phdr> loadedSegments(const File& file) noexcept {
  Elf64_Ehdr header;
  if (!readAt(file, 0, &header, sizeof header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
      header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_phentsize != sizeof(Elf64_Phdr) ||
      header.e_phnum > kMostSegments) {
    return {};
  }
  Array<Elf64_Phdr> segments;
  for (std::size_t i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    if (!readAt(file, header.e_phoff + i * sizeof segment, &segment, sizeof segment)) {
      return {};
    }
    if (segment.p_type == PT_LOAD) {
      segments.append(segment);
    }
  }
  return segments;
}

/// Whether the segment can be mapped at all: as the loader asks of it.
bool isSound(const Elf64_Phdr& segment) noexcept {
  return segment.p_vaddr < kMostSize && segment.p_memsz < kMostSize && segment.p_offset < kMostSize &&
         segment.p_filesz <= segment.p_memsz && segment.p_vaddr % kPage == segment.p_offset % kPage;
}

bool mapSegment(const File& file, const Elf64_Phdr& segment, std::uint64_t bias) noexcept {
  const std::uint64_t inPage = segment.p_vaddr % kPage;
  return segment.p_filesz == 0 ||
         systemCall(SYS_mmap, bias + segment.p_vaddr - inPage, segment.p_filesz + inPage, PROT_READ,
                    MAP_PRIVATE | MAP_FIXED, file.descriptor(), segment.p_offset - inPage) >= 0;
}

}  // namespace

std::optional<MappedProgram> MappedProgram::open(const String& path) noexcept {
  const auto file = File::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file) {
    return std::nullopt;
  }
  const Array<Elf64_Phdr> segments = loadedSegments(*file);
  std::uint64_t end = 0;
  for (const Elf64_Phdr& segment : segments) {
    if (!isSound(segment) || segment.p_vaddr < segments[0].p_vaddr) {
      return std::nullopt;
    }
    end = std::max(end, segment.p_vaddr + segment.p_memsz);
  }
  if (segments.empty()) {
    return std::nullopt;
  }
  // What lies between the segments belongs to nobody, and cannot be read.
  const std::uint64_t first = pageStart(segments[0].p_vaddr);
  const long reserved = systemCall(SYS_mmap, nullptr, end - first, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (reserved < 0) {
    return std::nullopt;
  }
  MappedProgram program(static_cast<std::uint64_t>(reserved), end - first);
  for (const Elf64_Phdr& segment : segments) {
    if (!mapSegment(*file, segment, program.start_ - first)) {
      return std::nullopt;
    }
  }
  return program.headers_.read(program.start_) ? std::optional(std::move(program)) : std::nullopt;
}

MappedProgram::MappedProgram(MappedProgram&& other) noexcept
    : start_(other.start_), size_(std::exchange(other.size_, 0)), headers_(other.headers_) {}

MappedProgram::~MappedProgram() {
  if (size_ != 0) {
    systemCall(SYS_munmap, start_, size_);
  }
}

}  // namespace core
