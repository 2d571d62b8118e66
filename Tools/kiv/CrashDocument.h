#pragma once

#include <string>

#include "Tools/kiv/Document.h"
#include "Tools/kiv/StoredCrashes.h"
#include "Tools/kiv/StoredRecord.h"

/// One stored crash of a data directory as `kiv show --json` lists it.
Document documentOf(const std::string& directory, const StoredCrash& crash);

/// The same with all that the record holds under "record", and its log, if it has one, under "log".
Document documentOf(const std::string& directory, const StoredCrash& crash, const StoredRecord& record);

/// The document as JSON that a terminal can be shown.
std::string jsonOf(const Document& document);
