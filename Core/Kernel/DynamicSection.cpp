#include "Core/Kernel/DynamicSection.h"

#include <algorithm>
#include <array>
#include <span>

namespace core {
namespace {

constexpr std::size_t kMostTags = 512;
constexpr std::size_t kTagsAtOnce = 32;

/// The loader adds the bias to the addresses of most images, but not to the kernel's.
std::uint64_t placed(std::uint64_t address, const ImageHeaders& headers) noexcept {
  const bool isPlaced = address - headers.base() < headers.end() - headers.base();
  return isPlaced ? address : address + headers.bias();
}

/// False at the tag that ends the section.
bool take(const Elf64_Dyn& tag, const ImageHeaders& headers, DynamicSection& section) noexcept {
  switch (tag.d_tag) {
    case DT_NULL:
      return false;
    case DT_SYMTAB:
      section.symbols = placed(tag.d_un.d_ptr, headers);
      break;
    case DT_STRTAB:
      section.names = placed(tag.d_un.d_ptr, headers);
      break;
    case DT_STRSZ:
      section.namesSize = tag.d_un.d_val;
      break;
    case DT_GNU_HASH:
      section.gnuHash = placed(tag.d_un.d_ptr, headers);
      break;
    case DT_HASH:
      section.systemVHash = placed(tag.d_un.d_ptr, headers);
      break;
    default:
      break;
  }
  return true;
}

}  // namespace

DynamicSection DynamicSection::read(const ImageHeaders& headers, const OwnMemory& memory) noexcept {
  DynamicSection section;
  const AddressRange range = headers.segmentOfType(PT_DYNAMIC);
  const std::size_t count = std::min(range.size() / sizeof(Elf64_Dyn), kMostTags);
  std::array<Elf64_Dyn, kTagsAtOnce> tags;
  for (std::size_t first = 0; first < count; first += tags.size()) {
    const std::size_t taken = std::min(tags.size(), count - first);
    if (!memory.read(range.start + first * sizeof tags[0], tags.data(), taken * sizeof tags[0])) {
      break;
    }
    for (const Elf64_Dyn& tag : std::span(tags).first(taken)) {
      if (!take(tag, headers, section)) {
        return section;
      }
    }
  }
  return section;
}

}  // namespace core
