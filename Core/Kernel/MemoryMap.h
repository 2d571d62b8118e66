#pragma once

#include <cstdint>
#include <string_view>

#include "Core/Files/File.h"
#include "Core/Memory/String.h"

namespace core {

/// One line of the process's memory map.
struct Mapping {
  std::uint64_t start;
  std::uint64_t end;
  bool executable;
  std::uint64_t offset;   ///< in the mapped file
  std::string_view path;  ///< as the kernel writes it, empty for anonymous memory
};

/// The memory map of the own process, line by line in address order, read in the blocks in
/// which the kernel makes it. Fit for the crash path.
class MemoryMap {
 public:
  /// Answers errno where there is no process file system or no free descriptor.
  static Result<MemoryMap, int> open() noexcept;

  /// False after the last. The path stays valid until the next call.
  bool next(Mapping& mapping) noexcept;

 private:
  static constexpr std::size_t kBlock = 4096;
  explicit MemoryMap(File file) noexcept : file_(std::move(file)), block_(kBlock) {}

  File file_;
  StringBuilder block_;
  StringBuilder line_;
  std::string_view rest_;  // of the block
};

}  // namespace core
