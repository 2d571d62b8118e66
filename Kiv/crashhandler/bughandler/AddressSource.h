#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "Core/Kernel/Symbols/SymbolIndex.h"
#include "Kiv/crashhandler/bughandler/KivCrashAddrInfo.h"
#include "Kiv/crashhandler/bughandler/KivMachImageInfo.h"
#include "Kiv/crashhandler/bughandler/KivSymbolicate.h"

/// What addresses mean in one process, this one or one that has died, and the frames that were made
/// of them so far. For one thread at a time.
class AddressSource {
 public:
  using Frame = core::Shared<KivCrashAddrInfo>;

  /// Where an address lies.
  struct Place {
    core::String moduleName;
    std::uint64_t base;
  };
  /// In the first image of the list around it.
  virtual std::optional<Place> placeOf(std::uint64_t address) const noexcept = 0;

  /// Whether functions of the image with that short name are named.
  virtual bool namesFunctionsOf(const core::String& moduleName) noexcept = 0;
  /// The function around an address; its name lives until the next call.
  virtual std::optional<core::Symbol> functionAt(std::uint64_t address) const noexcept = 0;
  /// As kiv_symbolicate().
  virtual std::size_t symbolicate(std::uint64_t address, std::span<char, kKivSymbolBuffer> buffer) const noexcept = 0;

  /// Whether it is what a signal handler returns to.
  virtual bool isSignalReturn(std::uint64_t address) const noexcept = 0;

  virtual std::optional<Frame> kept(std::uint64_t address) noexcept = 0;
  /// Keeps a frame, unless there is one of its address by now; answers the one that is kept.
  virtual Frame keep(const Frame& frame) noexcept = 0;

 protected:
  ~AddressSource() = default;
};
