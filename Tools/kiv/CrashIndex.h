#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::string_view kCrashIndexFile = ".crash_meta.data";

/// What the index of a data directory says of one crash.
struct IndexEntry {
  std::string hash;
  std::string file;  ///< a name in the directory
  std::int64_t time = 0;
  bool isUploaded = false;
};

/// The index, and what of it could not be read: what follows the index file's name in a sentence,
/// and the hash where one entry alone is meant.
struct CrashIndex {
  struct Fault {
    std::string hash;
    std::string text;
  };
  std::vector<IndexEntry> entries;
  std::vector<Fault> faults;

  /// The index of a directory, an empty one where there is none. Reads only, and logs nothing.
  static CrashIndex read(const std::string& directory);
};
