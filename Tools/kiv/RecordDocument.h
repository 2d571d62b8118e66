#pragma once

#include <string>
#include <vector>

#include "Tools/kiv/Document.h"

/// The names of the records that documentOfRecord knows, as "kiv.AppInfo".
std::vector<std::string> recordTypes();

/// A record of a type by its fields' names: framed, a list of them, or its bare fields. Throws
/// BrokenDocument, and std::out_of_range for a type that is not known.
Document documentOfRecord(const std::string& type, ByteView bytes);
