#pragma once

#include <cstdint>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/OwnMemory.h"

namespace core {

/// Where the tables lie in memory that name an image's exported symbols; 0 for one that is not
/// there. The addresses come from the image and are as trustworthy as it is: read them through
/// OwnMemory. Fit for the crash path.
struct DynamicSection {
  std::uint64_t symbols = 0;      ///< DT_SYMTAB, Elf64_Sym each
  std::uint64_t names = 0;        ///< DT_STRTAB
  std::uint64_t namesSize = 0;    ///< DT_STRSZ
  std::uint64_t gnuHash = 0;      ///< DT_GNU_HASH
  std::uint64_t systemVHash = 0;  ///< DT_HASH

  static DynamicSection read(const ImageHeaders& headers, const OwnMemory& memory) noexcept;
};

}  // namespace core
