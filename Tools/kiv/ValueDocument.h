#pragma once

#include "Core/PropertyList/Value.h"
#include "Tools/kiv/Document.h"

/// A property list, keyed archives opened, also those that stand in it as data.
Document documentOfValue(const core::Value& value);

/// The content of a keyed archive. Throws BrokenDocument.
Document documentOfArchive(ByteView bytes);

/// Whether a property list is a keyed archive.
bool isKeyedArchive(const core::Value& value);
