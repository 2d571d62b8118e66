#pragma once

#include "Tools/kiv/Document.h"

/// A file of the reporter's, recognised by its content.
struct FileDocument {
  std::string kind;  ///< "crash or stall record", "envelope" ...
  Document content;
};

/// Throws BrokenDocument for what is damaged, or is nothing that is known.
FileDocument readFileDocument(ByteView bytes);
