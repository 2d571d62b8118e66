#pragma once

#include <optional>

#include "Tools/kiv/Document.h"

/// Whether the bytes begin as an envelope does: a length, and the packet's first field.
bool looksLikeEnvelope(ByteView bytes);

/// A request's or response's envelope with the records in it. Throws BrokenDocument.
Document documentOfEnvelope(ByteView bytes);
