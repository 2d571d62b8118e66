#pragma once

#include "Core/Memory/String.h"

namespace platform {

/// The user's directories; absolute paths, not made by asking. For normal running, any thread:
/// what a crash needs is asked for at installation.
///
/// The XDG variables name them where they hold an absolute path; any other content is ignored
/// with one line of the log a process.

/// $HOME, or the home directory of the password database when that is not an absolute path.
core::String homeDirectory() noexcept;

/// Application data: $XDG_DATA_HOME, else ".local/share" of the home directory. The user has
/// this one place, so it is the last one found as well.
core::String applicationSupportDirectory() noexcept;
/// Settings: $XDG_CONFIG_HOME, else ".config".
core::String configurationDirectory() noexcept;
/// What may be lost, such as logs: $XDG_STATE_HOME, else ".local/state".
core::String stateDirectory() noexcept;
/// "Documents" of the home directory where there is one, else the home directory.
core::String documentsDirectory() noexcept;

}  // namespace platform
