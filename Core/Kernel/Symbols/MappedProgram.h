#pragma once

#include <cstdint>
#include <optional>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Memory/String.h"

namespace core {

/// A program file laid out in memory as the loader would, for reading only and without running
/// anything of it: what there is to know of an image is then read as from a loaded one. To look at
/// it, take checked reads (OwnMemory): the file may be cut meanwhile. Normal running only.
class MappedProgram {
 public:
  /// Nothing for what is no program file, or cannot be opened or mapped.
  static std::optional<MappedProgram> open(const String& path) noexcept;

  MappedProgram(MappedProgram&& other) noexcept;
  MappedProgram& operator=(MappedProgram&&) = delete;
  ~MappedProgram();

  /// Of the image at its place in this process.
  const ImageHeaders& headers() const noexcept { return headers_; }

 private:
  MappedProgram(std::uint64_t start, std::uint64_t size) noexcept : start_(start), size_(size) {}

  std::uint64_t start_;
  std::uint64_t size_;
  ImageHeaders headers_;
};

}  // namespace core
