#include "Tools/kiv/CrashLookup.h"

#include <algorithm>

namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool beginsWith(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) { return lower(a) == lower(b); });
}

}  // namespace

std::vector<FoundCrash> findCrashes(const std::vector<DataDirectory>& directories, std::string_view prefix) {
  std::vector<FoundCrash> found;
  for (const DataDirectory& directory : directories) {
    for (const StoredCrash& crash : directory.crashes) {
      if (beginsWith(crash.hash, prefix) || beginsWith(crash.uid, prefix)) {
        found.push_back({directory.path, crash});
      }
    }
  }
  const auto damaged =
      std::stable_partition(found.begin(), found.end(), [](const FoundCrash& each) { return !each.crash.isDamaged(); });
  if (damaged != found.begin()) {
    found.erase(damaged, found.end());
  }
  return found;
}
