#include "Kiv/crashhandler/recovery/JournalRecovery.h"

#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "Core/Files/Directory.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Memory/Mutex.h"
#include "Core/Text/Format.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"
#include "Kiv/crashhandler/journal/JournalFile.h"

namespace {

constexpr std::uint32_t kMostAttempts = 3;
constexpr std::string_view kBrokenMark = ".broken-";
constexpr std::int64_t kNanosecondsASecond = 1'000'000'000;
/// By then whoever writes a file has given it its name.
constexpr std::string_view kUnfinishedPrefix = "~";
constexpr std::int64_t kUnfinishedAge = 60 * kNanosecondsASecond;

core::Mutex running;

void setAside(const core::String& path, const char* reason) noexcept {
  kiv_log_warn("%s: %@", reason, path);
  core::renameFile(path,
                   core::kiv_format("%@%@%lld", path, kBrokenMark, core::wallClockNanoseconds() / kNanosecondsASecond));
}

/// A crash that ends whoever reports it is not tried for ever.
bool countAttempt(const core::File& file, const JournalView& journal) noexcept {
  const std::uint32_t attempts = journal.head().attempts + 1;
  core::restartedSystemCall(SYS_pwrite64, file.descriptor(), &attempts, sizeof attempts,
                            offsetof(JournalLayout::Head, attempts));
  return attempts <= kMostAttempts;
}

bool isEmpty(const core::Data& bytes) noexcept {
  return std::all_of(bytes.data(), bytes.data() + bytes.size(), [](std::uint8_t byte) { return byte == 0; });
}

void recover(const JournalFile& file, const core::Data& bytes, JournalRecovery::Report report) noexcept {
  const JournalView journal({bytes.data(), bytes.size()});
  switch (journal.fault()) {
    case JournalView::Fault::kForeign:
      return setAside(file.path(), "no journal");
    case JournalView::Fault::kOtherVersion:
      return setAside(file.path(), "a journal of another version");
    case JournalView::Fault::kNone:
      break;
  }
  if (RecoveredCrash::isIn(journal)) {
    if (!countAttempt(file.file(), journal)) {
      return setAside(file.path(), "a journal that could not be reported");
    }
    kiv_log_warn("process %d left a crash that it had not reported", journal.head().processId);
    if (!report(RecoveredCrash(journal))) {
      return;
    }
  }
  core::removeFile(file.path());
}

/// Most do not, and are large.
bool mayHoldCrash(const core::File& file) noexcept {
  std::array<std::uint8_t, JournalLayout::kFrontSize> front;
  const long size = core::restartedSystemCall(SYS_pread64, file.descriptor(), front.data(), front.size(), 0);
  return size < 0 || JournalView::mayHoldCrash(std::span(front).first(static_cast<std::size_t>(size)));
}

/// Only a whole read may say that there is nothing in it.
void recover(const core::String& path, JournalRecovery::Report report) noexcept {
  const auto file = JournalFile::take(path);
  if (!file) {
    if (file.error() != EAGAIN && file.error() != ENOENT) {
      kiv_log_warn("cannot look into the journal %@: error %d", path, file.error());
    }
    return;
  }
  if (!mayHoldCrash(file->file())) {
    core::removeFile(path);
    return;
  }
  const auto bytes = file->file().readAll(sizeof(JournalLayout));
  if (!bytes) {
    if (bytes.error() == EFBIG) {
      setAside(path, "no journal");
    } else {
      kiv_log_warn("cannot read the journal %@: error %d", path, bytes.error());
    }
  } else if (isEmpty(*bytes)) {
    core::removeFile(path);
  } else {
    recover(*file, *bytes, report);
  }
}

/// What is left of a process that died while it wrote a file.
void removeUnfinished(const core::String& path) noexcept {
  const auto facts = core::fileFacts(path);
  if (facts && facts->isRegular && core::wallClockNanoseconds() - facts->modified > kUnfinishedAge) {
    core::removeFile(path);
  }
}

}  // namespace

void JournalRecovery::run(const core::String& directory, Report report) noexcept {
  const core::Lock lock(running);
  const core::String own = CrashJournal::path();
  const std::string_view ownName = core::lastPathComponent(own);
  const auto names = core::listDirectory(directory);
  for (std::size_t i = 0; names && i < names->size(); ++i) {
    const std::string_view name = (*names)[i];
    const core::String path = core::joinPath(directory, name);
    if (name.starts_with(kUnfinishedPrefix)) {
      removeUnfinished(path);
    } else if (name.starts_with(JournalFile::kPrefix) && name.find(kBrokenMark) == std::string_view::npos &&
               name != ownName) {
      recover(path, report);
    }
  }
}
