#include "Core/Kernel/ImageHeaders.h"

#include <algorithm>
#include <cstring>

#include "Core/Kernel/BuildIdNote.h"
#include "Core/Kernel/OwnMemory.h"

namespace core {
namespace {

constexpr std::size_t kMostSegments = 128;
/// User addresses end below this; a header that says more is corrupt.
constexpr std::uint64_t kAddressLimit = std::uint64_t{1} << 56;

}  // namespace

bool ImageHeaders::read(std::uint64_t start) noexcept {
  base_ = start;
  end_ = codeStart_ = codeEnd_ = 0;
  Elf64_Ehdr header;
  if (!readOwnMemory(start, front_.data(), front_.size()) || !fetch(start, &header, sizeof header) ||
      std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
      header.e_phentsize != sizeof(Elf64_Phdr) || header.e_phnum > kMostSegments || header.e_phoff > kAddressLimit) {
    return false;
  }
  table_ = start + header.e_phoff;
  count_ = header.e_phnum;
  Elf64_Phdr loaded;
  for (std::size_t i = 0; i < count_; ++i) {
    if (!segment(i, loaded) || (loaded.p_type == PT_LOAD && !placeSegment(loaded))) {
      return false;
    }
  }
  return codeEnd_ > base_;
}

AddressRange ImageHeaders::segmentOfType(std::uint32_t type) const noexcept {
  Elf64_Phdr found;
  for (std::size_t i = 0; i < count_ && segment(i, found); ++i) {
    if (found.p_type == type) {
      return rangeOf(found);
    }
  }
  return {};
}

AddressRange ImageHeaders::segmentCovering(std::uint64_t address) const noexcept {
  Elf64_Phdr loaded;
  for (std::size_t i = 0; i < count_ && segment(i, loaded); ++i) {
    const AddressRange range = rangeOf(loaded);
    if (loaded.p_type == PT_LOAD && address - range.start < range.size()) {
      return range;
    }
  }
  return {};
}

AddressRange ImageHeaders::buildIdPlace() const noexcept {
  Elf64_Phdr notes;
  for (std::size_t i = 0; i < count_ && segment(i, notes); ++i) {
    if (notes.p_type == PT_NOTE) {
      if (const AddressRange place = buildIdIn(notes); !place.empty()) {
        return place;
      }
    }
  }
  return {};
}

Data ImageHeaders::buildId() const noexcept {
  const AddressRange place = buildIdPlace();
  std::uint8_t id[kMostBuildIdBytes];
  return !place.empty() && fetch(place.start, id, place.size()) ? Data(id, place.size()) : Data();
}

bool ImageHeaders::fetch(std::uint64_t address, void* into, std::size_t size) const noexcept {
  const std::uint64_t offset = address - base_;
  if (offset <= front_.size() - size) {
    std::memcpy(into, front_.data() + offset, size);
    return true;
  }
  return readOwnMemory(address, into, size);
}

bool ImageHeaders::segment(std::size_t index, Elf64_Phdr& into) const noexcept {
  return fetch(table_ + index * sizeof into, &into, sizeof into);
}

bool ImageHeaders::placeSegment(const Elf64_Phdr& segment) noexcept {
  if (segment.p_vaddr > kAddressLimit || segment.p_memsz > kAddressLimit || segment.p_offset > kAddressLimit) {
    return false;
  }
  if (end_ == 0) {
    bias_ = base_ + segment.p_offset - segment.p_vaddr;
  }
  const std::uint64_t start = bias_ + segment.p_vaddr;
  const std::uint64_t end = start + segment.p_memsz;
  if (start < base_ || end > kAddressLimit) {
    return false;
  }
  end_ = std::max(end_, end);
  if ((segment.p_flags & PF_X) != 0) {
    codeStart_ = codeStart_ == 0 ? start : codeStart_;
    codeEnd_ = std::max(codeEnd_, end);
  }
  return true;
}

AddressRange ImageHeaders::rangeOf(const Elf64_Phdr& segment) const noexcept {
  const std::uint64_t start = bias_ + segment.p_vaddr;
  const std::uint64_t end = start + segment.p_memsz;
  return start >= base_ && end <= end_ && start <= end ? AddressRange{start, end} : AddressRange{};
}

AddressRange ImageHeaders::buildIdIn(const Elf64_Phdr& notes) const noexcept {
  const std::uint64_t start = bias_ + notes.p_vaddr;
  const AddressRange found =
      findBuildId(notes, notes.p_memsz, [this, start](std::uint64_t distance, void* into, std::size_t size) {
        return fetch(start + distance, into, size);
      });
  return found.empty() ? AddressRange{} : AddressRange{start + found.start, start + found.end};
}

}  // namespace core
