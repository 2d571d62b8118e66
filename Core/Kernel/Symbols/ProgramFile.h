#pragma once

#include <elf.h>

#include <optional>

#include "Core/Files/File.h"
#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/Symbols/SymbolSections.h"

namespace core {

/// The file that a loaded image came from, for what is not loaded. Every read is checked: the
/// file may be corrupt, and may be cut or written to meanwhile. Normal running only.
class ProgramFile {
 public:
  /// Nothing where the path leads to no file or to another one by now: its build id differs from
  /// the image's, or, for an image without an id, its headers do.
  static std::optional<ProgramFile> open(const String& path, const ImageHeaders& headers) noexcept;

  /// False when the file does not have all of the bytes.
  bool read(std::uint64_t offset, void* into, std::size_t size) const noexcept;

  /// All symbols, the local ones too; none in a stripped file.
  SymbolSections symbols() const noexcept;

 private:
  explicit ProgramFile(File file) noexcept : file_(std::move(file)) {}
  bool readHeader() noexcept;
  bool readSegment(std::size_t index, Elf64_Phdr& into) const noexcept;
  bool hasBuildId(const Data& id) const noexcept;
  bool hasBuildIdIn(const Elf64_Phdr& notes, const Data& id) const noexcept;
  bool hasHeadersOf(const ImageHeaders& headers) const noexcept;

  File file_;
  Elf64_Ehdr header_{};
};

}  // namespace core
