#pragma once

#include <elf.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "Core/Memory/Bytes.h"

namespace core {

/// A piece of the address space; empty where something is not there.
struct AddressRange {
  std::uint64_t start = 0;
  std::uint64_t end = 0;

  bool empty() const noexcept { return start >= end; }
  std::uint64_t size() const noexcept { return end - start; }
};

/// What the ELF headers of a program file in the own memory say, as addresses of this
/// process. Every read is checked and every count bounded: the memory may hold anything and
/// may vanish meanwhile. Fit for the crash path.
class ImageHeaders {
 public:
  /// False where the page at `start` (the file's first) begins no image with code, or its
  /// headers contradict themselves.
  bool read(std::uint64_t start) noexcept;

  std::uint64_t base() const noexcept { return base_; }
  std::uint64_t end() const noexcept { return end_; }              ///< of the last segment
  std::uint64_t codeStart() const noexcept { return codeStart_; }  ///< of the first executable segment
  std::uint64_t codeEnd() const noexcept { return codeEnd_; }      ///< of the last executable segment

  /// What has to be added to an address in the program file.
  std::uint64_t bias() const noexcept { return bias_; }

  /// The first segment of a type (PT_DYNAMIC, PT_GNU_EH_FRAME ...), as far as it lies in the image.
  AddressRange segmentOfType(std::uint32_t type) const noexcept;

  /// The loaded segment that covers an address.
  AddressRange segmentCovering(std::uint64_t address) const noexcept;

  /// The GNU build id, empty where there is none.
  Data buildId() const noexcept;
  AddressRange buildIdPlace() const noexcept;

 private:
  bool fetch(std::uint64_t address, void* into, std::size_t size) const noexcept;
  bool segment(std::size_t index, Elf64_Phdr& into) const noexcept;
  bool placeSegment(const Elf64_Phdr& segment) noexcept;
  AddressRange rangeOf(const Elf64_Phdr& segment) const noexcept;
  AddressRange buildIdIn(const Elf64_Phdr& notes) const noexcept;

  std::uint64_t base_ = 0;
  std::uint64_t bias_ = 0;
  std::uint64_t end_ = 0;
  std::uint64_t codeStart_ = 0;
  std::uint64_t codeEnd_ = 0;
  std::uint64_t table_ = 0;
  std::size_t count_ = 0;
  /// The first bytes of the file, which nearly always hold the notes too: one read an image.
  std::array<std::uint8_t, 2048> front_;
};

}  // namespace core
