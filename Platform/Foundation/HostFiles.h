#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Core/Memory/String.h"

namespace platform {

/// Where the kernel's and the distribution's files are looked for; a test points them at a
/// directory of its own.
struct HostFiles {
  core::String proc = "/proc";
  core::String etc = "/etc";
};

/// The whole text of `name` under `directory`; nothing when it cannot be read.
std::optional<core::String> readHostFile(const core::String& directory, std::string_view name) noexcept;

/// What follows `key` on the first line of `text` that begins with it, without white space at
/// both ends: the value of "key: value", "key value" and "key=value" lines, `key` including
/// its separator.
std::optional<std::string_view> valueOfLine(std::string_view text, std::string_view key) noexcept;

/// The next decimal number of `text`, which is cut behind it; nothing where none begins after
/// white space.
std::optional<std::uint64_t> takeNumber(std::string_view& text) noexcept;

}  // namespace platform
