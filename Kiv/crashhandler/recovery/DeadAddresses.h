#pragma once

#include "Core/Kernel/Symbols/MappedProgram.h"
#include "Kiv/crashhandler/bughandler/AddressSource.h"
#include "Kiv/crashhandler/bughandler/FrameCache.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"

/// The addresses of a process that has died: what its list of images says, and what the files of
/// those still tell. A file that is another one by now tells nothing. Normal running only.
class DeadAddresses final : public AddressSource {
 public:
  using Images = KivBinaryImageCollector::Images;
  enum class Files { kRead, kIgnore };

  /// Functions of the program itself are named if `namesOwn`. `images` outlives the object.
  DeadAddresses(const Images& images, const std::optional<core::String>& processName, bool namesOwn,
                Files files) noexcept;

  std::optional<Place> placeOf(std::uint64_t address) const noexcept override;
  bool namesFunctionsOf(const core::String& moduleName) noexcept override;
  std::optional<core::Symbol> functionAt(std::uint64_t address) const noexcept override;
  std::size_t symbolicate(std::uint64_t address, std::span<char, kKivSymbolBuffer> buffer) const noexcept override;
  bool isSignalReturn(std::uint64_t address) const noexcept override;
  std::optional<Frame> kept(std::uint64_t address) noexcept override;
  Frame keep(const Frame& frame) noexcept override;

 private:
  /// An image's file, once it was looked for.
  struct Program {
    bool isLookedFor = false;
    std::optional<core::MappedProgram> file;
    std::optional<core::SymbolIndex> symbols;
  };

  const KivMachImageInfo* imageAround(std::uint64_t address) const noexcept;
  const Program& programOf(const KivMachImageInfo& image) const noexcept;

  const Images& images_;
  const std::optional<core::String> processName_;
  const bool namesOwn_;
  const Files files_;
  mutable core::Array<Program> programs_;  // of each image
  FrameCache frames_;
};
