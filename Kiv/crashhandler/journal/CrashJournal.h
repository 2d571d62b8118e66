#pragma once

#include <signal.h>

#include <string_view>

#include "Core/Memory/String.h"
#include "Kiv/crashhandler/journal/JournalFields.h"
#include "Kiv/crashhandler/journal/JournalLayout.h"

/// The journal of this process: a file mapped at installation, which normal running keeps current and
/// a crash completes by memory stores alone, so that the next start of the program can report what
/// this one could not. Where there is no room for a file it is plain memory, and a crash that is not
/// handled to its end is lost.
///
/// A forked child has its parent's in view and does not touch it.
class CrashJournal {
 public:
  /// Makes it in `directory`; once a process, in normal running. False when it is plain memory, as for a
  /// directory of no name.
  static bool prepare(const core::String& directory) noexcept;

  /// nullptr before prepare(), and where there was no address space.
  static JournalLayout* current() noexcept;
  /// Name of its file in the directory that it was made in, "" for plain memory.
  static core::String path() noexcept;

  /// Replaces a part by what `write` puts; of two at once, the one that comes later sees the newer
  /// state. A kill at any moment leaves the part as it was before or after. Any thread.
  static void keep(JournalPart part, void (*write)(JournalFieldWriter&)) noexcept;

  // The owner of a crash.

  /// Notes an entry into the handler: from here on the crash is in the journal. No system call.
  static void enter(const CrashFacts& facts) noexcept;
  /// The crashed thread's stack: addresses up to the first 0 are written by `walk`.
  static void addStack(std::uint32_t count, void (*walk)(std::span<std::uint64_t, core::kMostFrames>, const void*),
                       const void* context) noexcept;
  /// The finished text of all entries so far. One that is too long is left out: it can be made again.
  static void putLog(std::string_view log, std::uint32_t count) noexcept;
  /// The entries up to that one have been reported, or are not to be.
  static void settle(std::uint32_t count) noexcept;

  /// The name that the report of an entry goes by; "" for none, and where there is no journal.
  static core::String uidOf(std::uint32_t count) noexcept;

  /// In a forked child: makes a journal of its own, empty but for its head. False where this process has its own.
  static bool leaveToParent() noexcept;

  /// True when the fault is one of the mapping itself, whose file was cut or whose disk is full: the
  /// page is then memory, lost with the process, and whoever touched it goes on. Any thread.
  static bool mend(const siginfo_t& info) noexcept;
};
