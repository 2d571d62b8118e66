#pragma once

#include <cstdint>
#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/Shared.h"
#include "Core/Memory/String.h"

/// One frame of a stack, as reports show it. Made by KivStackCollector, which hands out the
/// same frame again for the same address.
struct KivCrashAddrInfo {
  using Text = std::optional<core::String>;

  std::uint32_t index = 0;   ///< position in the stack in which the address was met first
  std::uint64_t addr = 0;    ///< as walked
  Text moduleName;           ///< last part of the path of the image around it
  std::uint64_t offset = 0;  ///< of the address, aligned down to 16, from the image's base
  Text lineStr;              ///< symbol and distance, or the image's base and the offset
  core::String fullLine{};   ///< getFullStackLine() made ahead, once the rest is final; else empty

  /// "0  module                         0x00007f12ab34cd56 symbol + 12"
  core::String getFullStackLine() const noexcept;
  void appendFullStackLine(core::StringBuilder& text) const noexcept;
  core::String description() const noexcept;
};

/// A stack, innermost frame first.
using KivStack = core::Array<core::Shared<KivCrashAddrInfo>>;
