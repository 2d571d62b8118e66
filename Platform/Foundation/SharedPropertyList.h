#pragma once

#include "Core/Memory/Block.h"
#include "Core/Memory/String.h"
#include "Core/PropertyList/Value.h"
#include "Platform/Foundation/PropertyListFile.h"

namespace platform {

/// State in a property-list file that several processes change: user defaults, the keychain.
/// Each access is made under the record lock of "<path>.lock", so that no change is lost and
/// no file is moved aside but the one that was looked at. Any thread; the owner of a crash
/// tries the lock once and goes on without it.

/// The content as it stands. Makes nothing where there is no file.
StoredPropertyList readSharedPropertyList(const core::String& path) noexcept;

/// Hands the content to `change` and writes the file when that answers true, making its
/// directory (0700). 0 or errno, ECANCELED for a file that must not be written, which was logged.
int changeSharedPropertyList(const core::String& path,
                             const core::Block<bool(core::ValueDictionary&)>& change) noexcept;

}  // namespace platform
