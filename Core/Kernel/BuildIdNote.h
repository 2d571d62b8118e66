#pragma once

#include <elf.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Core/Kernel/ImageHeaders.h"

namespace core {

/// The longest build id that is believed.
inline constexpr std::size_t kMostBuildIdBytes = 64;

/// Where the GNU build id lies in the `size` bytes of a segment of notes, as distances from its
/// start; empty where there is none. `read(distance, into, size)` fetches bytes and answers
/// whether it could. Fit for the crash path if `read` is.
template <class Read>
AddressRange findBuildId(const Elf64_Phdr& notes, std::uint64_t size, Read&& read) noexcept {
  constexpr std::size_t kMostNotes = 64;
  struct Head {
    Elf64_Nhdr sizes;
    char name[4];
  } head;
  const std::uint64_t alignment = notes.p_align == 8 ? 8 : 4;
  const auto padded = [alignment](std::uint64_t bytes) { return (bytes + alignment - 1) & ~(alignment - 1); };
  std::uint64_t at = 0;
  for (std::size_t i = 0; i < kMostNotes && at + sizeof head <= size && read(at, &head, sizeof head); ++i) {
    const std::uint64_t content = at + padded(sizeof head.sizes + head.sizes.n_namesz);
    const std::uint64_t contentSize = head.sizes.n_descsz;
    if (head.sizes.n_type == NT_GNU_BUILD_ID && head.sizes.n_namesz == sizeof head.name &&
        std::memcmp(head.name, ELF_NOTE_GNU, sizeof head.name) == 0 && contentSize <= kMostBuildIdBytes) {
      return {content, content + contentSize};
    }
    at = content + padded(contentSize);
  }
  return {};
}

}  // namespace core
