#pragma once

#include <array>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Symbols/SymbolTables.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Memory/Mutex.h"
#include "Kiv/crashhandler/bughandler/AddressSource.h"
#include "Kiv/crashhandler/bughandler/FrameCache.h"

/// The addresses of this process, as its tables stand while the object lives; made for one piece of work.
/// Fit for the crash path.
class LiveAddresses final : public AddressSource {
 public:
  /// Frames of normal running, which any thread keeps, and those of the owner of a crash.
  struct Kept {
    core::Mutex mutex;
    FrameCache frames;  // under the mutex
    FrameCache framesOfCrash;
  };

  /// Functions of the program itself, the image called `procName`, are named if `needSymbol`.
  LiveAddresses(Kept& kept, bool needSymbol, std::optional<core::String> procName) noexcept;

  std::optional<Place> placeOf(std::uint64_t address) const noexcept override;
  bool namesFunctionsOf(const core::String& moduleName) noexcept override;
  std::optional<core::Symbol> functionAt(std::uint64_t address) const noexcept override;
  std::size_t symbolicate(std::uint64_t address, std::span<char, kKivSymbolBuffer> buffer) const noexcept override;
  bool isSignalReturn(std::uint64_t address) const noexcept override;
  std::optional<Frame> kept(std::uint64_t address) noexcept override;
  Frame keep(const Frame& frame) noexcept override;

 private:
  template <class Use>
  auto withFrames(Use&& use) noexcept;

  Kept& kept_;
  const bool isCrash_;
  const bool needSymbol_;
  const std::optional<core::String> procName_;
  const core::SymbolTables::View symbols_;
  const core::CodeImages::View images_;
  const core::OwnMemory memory_;
  mutable std::array<char, kKivSymbolBuffer> name_;  // of a function that has no index yet
};
