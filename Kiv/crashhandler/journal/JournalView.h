#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "Core/Memory/Bytes.h"
#include "Kiv/crashhandler/journal/JournalLayout.h"

/// What another process's journal holds, whatever its bytes are: a part is shown when it is whole,
/// and costs nothing but itself when it is not. A value; copies share the bytes.
class JournalView {
 public:
  enum class Fault {
    kNone,
    kForeign,      ///< not a journal
    kOtherVersion  ///< one that this version of the library cannot read
  };
  enum class Part {
    kAbsent,
    kWhole,
    kDamaged  ///< something was written there, and neither of its copies is whole
  };

  /// Of the file's bytes; missing ones count as 0.
  explicit JournalView(std::span<const std::uint8_t> bytes) noexcept;
  /// Of one in memory, which must stay.
  explicit JournalView(const JournalLayout& journal) noexcept : layout_(&journal) {}

  /// False where the first JournalLayout::kFrontSize bytes, or as many as there are, tell that no crash
  /// was noted in it.
  static bool mayHoldCrash(std::span<const std::uint8_t> front) noexcept;

  Fault fault() const noexcept;
  const JournalLayout::Head& head() const noexcept { return layout().head; }

  /// The entries into the handler that are whole, in their order, the last of which nobody reported;
  /// none for a process that did not crash or whose crash was reported.
  std::span<const JournalLayout::Entry> openEntries() const noexcept;
  /// The same without a look at what was reported.
  std::span<const JournalLayout::Entry> entries() const noexcept;
  /// The crashed thread's addresses at that entry: no more than where it stood, if they are damaged.
  static std::span<const std::uint64_t> stackOf(const JournalLayout::Entry& entry) noexcept;

  Part state(JournalPart part) const noexcept;
  /// Empty for one that is absent or damaged.
  std::span<const std::uint8_t> bytesOf(JournalPart part) const noexcept;

  const CrashSnapshot& snapshot() const noexcept { return layout().snapshot; }

  /// The finished text of all the entries, empty where there is none.
  std::string_view log() const noexcept;

 private:
  const JournalLayout& layout() const noexcept { return *layout_; }
  std::span<const std::uint8_t> copyOf(JournalPart part, std::size_t copy) const noexcept;

  core::Data bytes_;
  const JournalLayout* layout_;  // shared by copies
};
