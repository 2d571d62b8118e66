#pragma once

#include <optional>
#include <string>

#include "Core/Memory/Result.h"
#include "Kiv/common/model/KivExpObj.h"

/// Why a record's file could not be shown: what follows its path in a sentence.
struct RecordFault {
  bool isMissing;
  std::string text;  ///< "is damaged: …", "cannot be read: …"
};

struct StoredRecord {
  KivExpObj content;
  core::Data bytes;  ///< of the file
};

/// The record in a file. Reads only, and logs nothing.
core::Result<StoredRecord, RecordFault> readStoredRecord(const std::string& path);

/// "cannot be read: Permission denied", from errno.
std::string cannotBeRead(int error);

inline std::string textOf(const std::optional<core::String>& text) {
  return text ? text->str() : std::string();
}

/// "crash", "stall", "reported" by the program itself, "merged" of several; a code that is not known
/// stands for itself.
std::string kindOf(const KivExpObj& record);

/// The crash's log, nothing for a record without.
std::optional<std::string> logOf(const KivExpObj& record);

/// The name that frames of the crashed program itself have for their module.
std::string ownModuleOf(const KivExpObj& record);

/// The first line of the call stack in the program itself, else the first line.
std::string firstOwnFrame(const KivExpObj& record);

/// How often and when last the crash was seen. Merging counts in `dcount`, which an upload sets
/// back to 0, and adds the times to an attachment, which stays.
struct Occurrences {
  std::int64_t count;
  std::int64_t lastTime;  ///< milliseconds since 1970, by the clock of `time`
};
Occurrences occurrencesOf(const KivExpObj& record);
