#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "Kiv/crashhandler/bughandler/AddressSource.h"

/// The frames of a report, made of the addresses of a stack. A frame is made once for an address and
/// handed out again, with the index that it had first. All of it is fit for the crash path.

/// What stands at the top of a stack: where a thread was stopped, or a return address too, as in the stack
/// that an exception carries.
enum class StackTop { kStopped, kReturn };

/// An address outside every image has no frame, its number is left out.
KivStack framesOf(AddressSource& source, std::span<const std::uint64_t> addresses,
                  StackTop top = StackTop::kStopped) noexcept;

/// One frame, of an address at a place in a stack.
std::optional<AddressSource::Frame> frameOf(AddressSource& source, std::uint64_t address, std::uint32_t index) noexcept;
