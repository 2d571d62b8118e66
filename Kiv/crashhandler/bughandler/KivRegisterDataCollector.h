#pragma once

#include <ucontext.h>

#include <cstdint>

#include "Core/Memory/String.h"

/// Writes the crashed thread's registers into the crash data. Stateless; fit for the crash path.
class KivRegisterDataCollector {
 public:
  static KivRegisterDataCollector& sharedInstance() noexcept;

  /// `index` is the thread's; the last argument is not used.
  void collectAllRegisterInfos(std::uint32_t index, const mcontext_t& context, bool needCheckFirstLineOcMsg) noexcept;
  /// The same as a text, of registers that were read elsewhere.
  static core::String textOf(std::uint32_t index, const gregset_t& registers) noexcept;
};
