#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Core/Memory/Result.h"

/// What one line tells of a stored crash or stall, or of what is damaged in its place.
struct StoredCrash {
  std::string file;    ///< path below the data directory
  std::string damage;  ///< what follows the file in a sentence: "is damaged: …"; empty for a good one
  std::string hash;    ///< by which equal crashes are merged; stalls have none
  std::string uid;
  std::int64_t time = 0;  ///< milliseconds since 1970, of the first time and of the last
  std::int64_t lastTime = 0;
  std::int64_t seen = 0;
  std::string crashType;
  std::string kind = "damaged";
  std::string type;   ///< of the exception
  std::string frame;  ///< the first in the program itself, as it stands in the call stack
  std::string user;
  std::string ownModule;
  bool isStall = false;
  bool isIndexed = false;  ///< stalls never are
  bool isUploaded = false;

  const std::string& id() const { return hash.empty() ? uid : hash; }
  bool isDamaged() const { return !damage.empty(); }
};

/// All of one data directory, newest first. Records are read one after the other and not kept:
/// their logs may be long. Answers errno for a directory that cannot be listed.
///
/// Reads only, waits for no lock, and expects the program to go on storing and removing
/// meanwhile: a file that was listed and is gone was never there.
core::Result<std::vector<StoredCrash>, int> readStoredCrashes(const std::string& directory);

/// The data directories of all programs of this user, sorted; errno where they cannot be listed.
core::Result<std::vector<std::string>, int> dataDirectories();

/// Where those lie; not made by asking.
std::string dataRoot();
