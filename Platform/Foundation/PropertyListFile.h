#pragma once

#include "Core/Memory/String.h"
#include "Core/PropertyList/Value.h"

namespace platform {

/// The content of a property-list file that this process keeps state in.
struct StoredPropertyList {
  core::ValueDictionary content;
  /// False for a file that can neither be used nor moved out of the way: it must not be written.
  bool writable = true;
};

/// Reads state that must never be lost: a file that cannot be understood is renamed to
/// "<name>.broken-<seconds>" and reported in the log. A missing file is empty state; one that
/// cannot be read for another reason, such as its permissions, is left alone. For user defaults,
/// the keychain and the reporter's own keys; any thread and the crash path.
StoredPropertyList readStoredPropertyList(const core::String& path) noexcept;

/// Replaces the file atomically, 0600, in the binary form. 0 or errno. Fit for the crash path.
int writeStoredPropertyList(const core::String& path, const core::ValueDictionary& content) noexcept;

}  // namespace platform
