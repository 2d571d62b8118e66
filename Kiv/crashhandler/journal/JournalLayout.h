#pragma once

#include <ucontext.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Kiv/crashhandler/journal/CrashSnapshot.h"

/// What is kept current ahead of a crash, each in a part of its own.
enum class JournalPart : std::uint32_t {
  kIdentity,   ///< who reports: program, device, user, session
  kImages,     ///< the program files in memory
  kUserData,   ///< the program's key-values
  kScenes,     ///< scene numbers and values
  kEvents,     ///< session events
  kException,  ///< the exception that nobody caught
  kSettings,   ///< what the program wants done with its crashes
};

/// Bytes that each part holds at the most; a list that is longer loses its end.
inline constexpr std::array<std::size_t, 7> kJournalPartSizes = {64 << 10,  256 << 10, 64 << 10, 64 << 10,
                                                                 128 << 10, 32 << 10,  64 << 10};

/// The signal of one entry into the handler, and the state that it met.
struct CrashFacts {
  std::int64_t time;          ///< milliseconds since 1970
  std::uint64_t address;      ///< of the fault, 0 where the signal has none
  std::int32_t signal;        ///< si_signo
  std::int32_t code;          ///< si_code
  std::int32_t error;         ///< si_errno
  std::uint32_t count;        ///< of entries into the handler, this one included
  std::uint32_t crashThread;  ///< port
  std::uint32_t unused;       ///< 0
  gregset_t registers;        ///< of the crashed thread, REG_R8 to REG_CR2
};

/// The journal of one process: what its crash would have to say, in the form in which it lies in
/// the file and in memory alike. Plain numbers and bytes at fixed places; what a checksum closes
/// counts, the rest does not. All of it is 0 at first but for the head.
struct JournalLayout {
  static constexpr std::array<char, 8> kMagic = {'K', 'I', 'V', 'J', 'R', 'N', 'L', '\n'};
  static constexpr std::uint32_t kVersion = 1;
  static constexpr std::uint32_t kMostEntries = 2;
  static constexpr std::size_t kMostLog = std::size_t{1} << 20;

  struct Head {
    std::array<char, 8> magic;
    std::uint32_t version;
    std::uint32_t size;  ///< of all of it
    std::int32_t processId;
    /// How many entries into the handler have been reported, by a stored log or by a filter's
    /// refusal: an entry behind them makes the journal an open one.
    std::uint32_t settled;
    std::int64_t created;  ///< milliseconds since 1970
    /// How often a later start has begun to report the crash in it.
    std::uint32_t attempts;
    std::uint32_t unused;  ///< 0
    /// Names of the entries' reports, made ahead: by them a report that is stored already is known.
    std::array<std::array<char, 36>, kMostEntries> uids;
  };

  /// Head of one of the two copies of a part: the whole one of the higher generation counts.
  struct Copy {
    std::uint64_t generation;  ///< 0 while it is written
    std::uint32_t size;
    std::uint32_t check;
  };

  struct Entry {
    CrashFacts facts;
    std::uint32_t factsCheck;
    std::uint32_t framesCheck;
    std::uint32_t frameCount;
    std::uint32_t unused;                                 ///< 0
    std::array<std::uint64_t, core::kMostFrames> frames;  ///< of the crashed thread, innermost first
  };

  /// The finished text.
  struct Log {
    std::uint32_t size;
    std::uint32_t check;
    std::uint32_t entries;  ///< how many of them it tells of
    std::uint32_t unused;   ///< 0
    std::array<char, kMostLog> bytes;
  };

  /// Up to here it tells whether there can be a crash in it.
  static constexpr std::size_t kFrontSize = sizeof(Head) + kMostEntries * sizeof(Entry) + 7 * 2 * sizeof(Copy);

  Head head;
  std::array<Entry, kMostEntries> entries;
  std::array<std::array<Copy, 2>, kJournalPartSizes.size()> copies;
  CrashSnapshot snapshot;
  std::array<std::uint8_t, 2 * (64 + 256 + 64 + 64 + 128 + 32 + 64) * 1024> parts;  ///< both copies of each
  Log log;
};

/// Where the bytes of one of the two copies of a part stand in JournalLayout::parts.
constexpr std::size_t journalPartPlace(JournalPart part, std::size_t copy) noexcept {
  std::size_t place = 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(part); ++i) {
    place += 2 * kJournalPartSizes[i];
  }
  return place + copy * kJournalPartSizes[static_cast<std::size_t>(part)];
}
