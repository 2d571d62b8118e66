#include "Kiv/crashhandler/journal/CrashJournal.h"

#include <sys/mman.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <optional>
#include <type_traits>

#include "Core/Kernel/ForkTell.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Memory/Checksum.h"
#include "Core/Memory/Immortal.h"
#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Core/Text/Uuid.h"
#include "Kiv/crashhandler/journal/JournalFile.h"

// Another process reads it.
static_assert(std::is_trivially_copyable_v<JournalLayout> && std::is_standard_layout_v<JournalLayout>);
static_assert(offsetof(JournalLayout, entries) == 112 && sizeof(CrashFacts) == 224);
static_assert(offsetof(JournalLayout, snapshot) == JournalLayout::kFrontSize);
static_assert(sizeof(JournalLayout::Entry) == 224 + 16 + 256 * 8);

namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::int64_t kNanosecondsAMillisecond = 1'000'000;

std::atomic<JournalLayout*> mapped{nullptr};
core::Mutex partMutexes[kJournalPartSizes.size()];

core::Published<core::String>& directoryOfJournals() noexcept {
  static core::Immortal<core::Published<core::String>> directory;
  return *directory;
}

core::Published<core::String>& pathOfJournal() noexcept {
  static core::Immortal<core::Published<core::String>> path;
  return *path;
}

/// What is written before it must have been stored when the next store is.
void order() noexcept {
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

JournalLayout* map(int file) noexcept {
  const int kind = file >= 0 ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
  const long made = core::systemCall(SYS_mmap, nullptr, sizeof(JournalLayout), PROT_READ | PROT_WRITE, kind, file, 0);
  return made < 0 ? nullptr : reinterpret_cast<JournalLayout*>(made);
}

/// The file stays open for good: with it the lock would go.
JournalLayout* mapFile(const core::String& directory) noexcept {
  alignas(JournalFile) static std::byte held[sizeof(JournalFile)];
  auto file = JournalFile::create(directory, sizeof(JournalLayout));
  JournalLayout* journal = file ? map(file->file().descriptor()) : nullptr;
  if (journal == nullptr) {
    if (file) {
      core::removeFile(file->path());
    }
    return nullptr;
  }
  pathOfJournal().set(file->path());
  new (held) JournalFile(std::move(*file));
  return journal;
}

/// False when it is plain memory.
bool makeIn(const core::String& directory) noexcept {
  JournalLayout* journal = directory.empty() ? nullptr : mapFile(directory);
  const bool isFile = journal != nullptr;
  if (!isFile) {
    pathOfJournal().set({});
    journal = map(-1);
  }
  if (journal != nullptr) {
    JournalLayout::Head& head = journal->head;
    head.magic = JournalLayout::kMagic;
    head.version = JournalLayout::kVersion;
    head.size = sizeof(JournalLayout);
    head.processId = core::processId();
    head.created = core::wallClockNanoseconds() / kNanosecondsAMillisecond;
    for (auto& uid : head.uids) {
      const core::String made = core::generateUuid();
      made.view().copy(uid.data(), uid.size());
    }
  }
  mapped.store(journal, std::memory_order_release);
  return isFile;
}

JournalLayout::Entry* entryOf(std::uint32_t count) noexcept {
  JournalLayout* journal = CrashJournal::current();
  return journal != nullptr && count >= 1 && count <= JournalLayout::kMostEntries ? &journal->entries[count - 1]
                                                                                  : nullptr;
}

}  // namespace

bool CrashJournal::prepare(const core::String& directory) noexcept {
  if (current() != nullptr) {
    return !path().empty();
  }
  core::ForkTell::prepare();
  directoryOfJournals().set(directory);
  return makeIn(directory);
}

JournalLayout* CrashJournal::current() noexcept {
  return mapped.load(std::memory_order_acquire);
}

core::String CrashJournal::path() noexcept {
  return pathOfJournal().get();
}

void CrashJournal::keep(JournalPart part, void (*write)(JournalFieldWriter&)) noexcept {
  JournalLayout* journal = current();
  const bool isParents = core::ForkTell::isForked() && !core::CrashOwner::isCurrentThread();
  if (journal == nullptr || isParents) {
    return;
  }
  const auto index = static_cast<std::size_t>(part);
  const core::Lock lock(partMutexes[index]);
  auto& copies = journal->copies[index];
  const std::size_t newest = copies[1].generation > copies[0].generation ? 1 : 0;
  JournalLayout::Copy& copy = copies[1 - newest];
  copy.generation = 0;
  order();
  std::uint8_t* room = journal->parts.data() + journalPartPlace(part, 1 - newest);
  JournalFieldWriter writer({room, kJournalPartSizes[index]});
  write(writer);
  copy.size = static_cast<std::uint32_t>(writer.size());
  copy.check = core::checksum(room, writer.size());
  order();
  copy.generation = copies[newest].generation + 1;
}

void CrashJournal::enter(const CrashFacts& facts) noexcept {
  if (JournalLayout::Entry* entry = entryOf(facts.count)) {
    entry->factsCheck = entry->framesCheck = entry->frameCount = 0;
    order();
    entry->facts = facts;
    order();
    entry->factsCheck = core::checksum(&entry->facts, sizeof entry->facts);
  }
}

void CrashJournal::addStack(std::uint32_t count, void (*walk)(std::span<std::uint64_t, core::kMostFrames>, const void*),
                            const void* context) noexcept {
  if (JournalLayout::Entry* entry = entryOf(count)) {
    entry->frames.fill(0);
    walk(entry->frames, context);
    const auto end = std::find(entry->frames.begin(), entry->frames.end(), 0);
    entry->frameCount = static_cast<std::uint32_t>(end - entry->frames.begin());
    entry->framesCheck = core::checksum(entry->frames.data(), entry->frameCount * sizeof entry->frames[0]);
  }
}

void CrashJournal::putLog(std::string_view log, std::uint32_t count) noexcept {
  JournalLayout* journal = current();
  if (journal == nullptr || log.size() > JournalLayout::kMostLog) {
    return;
  }
  journal->log.check = 0;
  order();
  std::copy(log.begin(), log.end(), journal->log.bytes.begin());
  journal->log.size = static_cast<std::uint32_t>(log.size());
  journal->log.entries = count;
  order();
  journal->log.check = core::checksum(log.data(), log.size());
}

void CrashJournal::settle(std::uint32_t count) noexcept {
  if (JournalLayout* journal = current()) {
    journal->head.settled = std::max(journal->head.settled, count);
  }
}

core::String CrashJournal::uidOf(std::uint32_t count) noexcept {
  const JournalLayout* journal = current();
  if (journal == nullptr || count < 1 || count > JournalLayout::kMostEntries) {
    return {};
  }
  const auto& uid = journal->head.uids[count - 1];
  return std::string_view(uid.data(), uid.size());
}

bool CrashJournal::leaveToParent() noexcept {
  const JournalLayout* journal = current();
  if (journal == nullptr || !core::ForkTell::isForked() || journal->head.processId == core::processId()) {
    return false;
  }
  makeIn(directoryOfJournals().get());
  return true;
}

bool CrashJournal::mend(const siginfo_t& info) noexcept {
  const auto first = reinterpret_cast<std::uint64_t>(current());
  const auto address = reinterpret_cast<std::uint64_t>(info.si_addr);
  if (info.si_signo != SIGBUS || info.si_code <= 0 || first == 0 || address - first >= sizeof(JournalLayout)) {
    return false;
  }
  return core::systemCall(SYS_mmap, address / kPage * kPage, kPage, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) >= 0;
}
