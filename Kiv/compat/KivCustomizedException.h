#pragma once

#include <memory>
#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/Dictionary.h"
#include "Core/Memory/String.h"

class NSError;
class NSException;

/// An error that the program reports itself. None can be made yet: every maker answers nothing.
class KivCustomizedException {
 public:
  using Text = std::optional<core::String>;
  using Lines = core::Array<core::String>;
  using Map = core::Dictionary<core::String>;

  static std::unique_ptr<KivCustomizedException> exceptionWithNSException(const NSException&, const Text& /*reason*/,
                                                                          const Map& /*extraInfo*/) noexcept {
    return nullptr;
  }
  static std::unique_ptr<KivCustomizedException> exceptionWithNSError(const NSError&, const Text& /*reason*/,
                                                                      const Map& /*extraInfo*/) noexcept {
    return nullptr;
  }
  static std::unique_ptr<KivCustomizedException> exceptionWithType(unsigned long /*type*/, const Text& /*name*/,
                                                                   const Text& /*reason*/,
                                                                   const std::optional<Lines>& /*callStack*/,
                                                                   const Map& /*extraInfo*/) noexcept {
    return nullptr;
  }

  bool setCallStackSymbols(const Lines& /*lines*/, unsigned /*skipFrame*/) noexcept { return false; }
  void reportExceptionAndQuit(bool /*quit*/) noexcept {}
};
