#pragma once

#include <string>

#include "Kiv/crashhandler/journal/JournalView.h"
#include "Tools/kiv/Document.h"

/// What a process's journal holds: the state of each part, the crash as it was noted, and the log that the next
/// start would make of it.
struct JournalContent {
  Document facts;
  std::string log;        ///< "" where there is no crash in it, or one that is reported already
  std::string ownModule;  ///< short name of the program's own image
};

/// Throws BrokenDocument for what is no journal, or one of another version.
JournalContent readJournal(ByteView bytes);
