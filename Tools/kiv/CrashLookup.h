#pragma once

#include <string>
#include <vector>

#include "Tools/kiv/StoredCrashes.h"

/// What is stored in one data directory.
struct DataDirectory {
  std::string path;
  std::vector<StoredCrash> crashes;
};

/// A stored crash and where it is.
struct FoundCrash {
  std::string directory;
  StoredCrash crash;
};

/// The crashes whose hash or identifier begins with `prefix`, in whatever case. What is damaged
/// counts only where nothing else does.
std::vector<FoundCrash> findCrashes(const std::vector<DataDirectory>& directories, std::string_view prefix);
