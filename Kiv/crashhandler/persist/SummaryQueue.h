#pragma once

#include "Core/Memory/Array.h"
#include "Kiv/common/model/KivSummaryInfo.h"

/// The summaries of program starts that wait to be sent: in memory only. Their file,
/// ".user_info.data", is read at the start and always left with an empty list.
/// KivFilePersistHandler's, under its lock, apart from write().
class SummaryQueue {
 public:
  using Summaries = core::Array<KivSummaryInfo>;

  static core::String pathIn(const core::String& folder) noexcept;

  void load(const core::String& path) noexcept;
  void append(const KivSummaryInfo& summary) noexcept { summaries_.append(summary); }
  /// Those that are equal to one of `sent`.
  void remove(const Summaries& sent) noexcept;
  void clear() noexcept { summaries_.clear(); }
  const Summaries& all() const noexcept { return summaries_; }

  /// Any thread and the crash path.
  static void write(const core::String& path) noexcept;

 private:
  Summaries summaries_;
};
