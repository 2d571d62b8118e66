#pragma once

#include "Tools/kiv/Document.h"

/// Tagged fields of whatever record, by tag and type: "3 string4". Throws BrokenDocument.
Document documentOfFields(ByteView bytes);
