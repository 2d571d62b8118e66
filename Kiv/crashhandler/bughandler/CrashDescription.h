#pragma once

#include "Kiv/crashhandler/bughandler/AddressSource.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/journal/JournalLayout.h"

// From what was captured to the crash data of a report: the same for a crash of this process and
// for one that the journal of another tells of. All of it is fit for the crash path.

/// An exception that nobody caught.
struct ThrownException {
  core::String name;
  core::String reason;
  core::Array<std::uint64_t> addresses;  ///< return addresses of the throwing place, innermost first
  std::int64_t time = 0;                 ///< milliseconds since 1970

  template <class Self, class Each>
  static void fields(Self& self, Each&& each) noexcept {
    each(self.name, self.reason, self.time, self.addresses);
  }
};

/// One entry into the handler, the first or, while that was handled, the second. In their order.
void describeEntry(KivCrashData& data, const CrashFacts& facts, const core::String& sdkVersion) noexcept;

/// The stack of the exception that ended the process.
void describeException(KivCrashData& data, std::span<const std::uint64_t> addresses, AddressSource& source) noexcept;

/// The threads, the crashed one among them: the one whose port differs from `crashThread` in the low 8
/// bits at most. Damaged entries are left out.
void describeThreads(KivCrashData& data, const CrashSnapshot& snapshot, std::uint32_t crashThread,
                     AddressSource& source) noexcept;
KivThreadInfo describedThread(const CrashSnapshot& snapshot, const CrashSnapshot::Thread& captured,
                              AddressSource& source) noexcept;
void setCrashedThread(KivCrashData& data, KivThreadInfo& thread) noexcept;

/// The modules of the stacks: of all, and of the one that the report is about.
void describeModules(KivCrashData& data) noexcept;
