#pragma once

#include <optional>
#include <ostream>
#include <vector>

#include "Tools/kiv/StoredCrashes.h"

/// How a table is to look.
struct TableLook {
  std::optional<std::size_t> columns;  ///< it is cut to them; as wide as it gets without
  bool colored = false;
};

/// Prints a line for each stored crash under headings, and what the marks in it mean.
void printCrashTable(std::ostream& out, const std::vector<StoredCrash>& crashes, const TableLook& look);
