#pragma once

#include <cstdint>

#include "Core/Memory/String.h"

/// One program file in memory. A plain value; see KivBinaryImageCollector.
struct KivMachImageInfo {
  core::String name;        ///< its path
  core::String sname;       ///< the last part of it
  std::uint64_t base = 0;   ///< load address of the first segment
  std::uint64_t size = 0;   ///< from there to the end of the last executable segment
  core::String uuid;        ///< 32 lower-case hexadecimal digits
  core::String cpu;         ///< name of its architecture
  std::uint32_t index = 0;  ///< position in the process's list of images

  core::String description() const noexcept;

  template <class Self, class Each>
  static void fields(Self& self, Each&& each) noexcept {
    each(self.name, self.sname, self.base, self.size, self.uuid, self.cpu, self.index);
  }
};
