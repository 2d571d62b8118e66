#include <cstdlib>
#include <cstring>
#include <memory>

#include "Core/Memory/Checksum.h"
#include "Kiv/crashhandler/journal/JournalView.h"
#include "Kiv/crashhandler/recovery/RecoveredCrash.h"

namespace {

/// Takes pieces from the front of the input.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

  bool isSpent() const { return rest_.empty(); }
  std::span<const std::uint8_t> piece(std::size_t size) {
    const auto taken = rest_.first(std::min(size, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }
  template <class T>
  T number() {
    T value{};
    const auto bytes = piece(sizeof value);
    std::memcpy(&value, bytes.data(), bytes.size());
    return value;
  }

 private:
  std::span<const std::uint8_t> rest_;
};

// Whole parts of any content, so that what reads them is reached.
void addPart(JournalLayout& journal, Input& input) {
  const std::size_t part = input.number<std::uint8_t>() % kJournalPartSizes.size();
  const auto bytes = input.piece(input.number<std::uint16_t>());
  std::uint8_t* place = journal.parts.data() + journalPartPlace(static_cast<JournalPart>(part), 0);
  std::memcpy(place, bytes.data(), bytes.size());
  journal.copies[part][0] = {1, static_cast<std::uint32_t>(bytes.size()), core::checksum(place, bytes.size())};
}

void addEntry(JournalLayout& journal, Input& input) {
  JournalLayout::Entry& entry = journal.entries[input.number<std::uint8_t>() % JournalLayout::kMostEntries];
  entry.facts = input.number<CrashFacts>();
  entry.factsCheck = core::checksum(&entry.facts, sizeof entry.facts);
  entry.frameCount = input.number<std::uint32_t>();
  const auto frames = input.piece(64);
  std::memcpy(entry.frames.data(), frames.data(), frames.size());
  entry.framesCheck = core::checksum(entry.frames.data(), std::min<std::size_t>(entry.frameCount, 256) * 8);
}

void addThread(JournalLayout& journal, Input& input) {
  const auto port = input.number<std::uint32_t>();
  const auto index = input.number<std::uint32_t>();
  const auto name = input.number<core::ThreadName>();
  std::uint64_t stack[8];
  for (std::uint64_t& address : stack) {
    address = input.number<std::uint64_t>();
  }
  journal.snapshot.threadCount %= CrashSnapshot::kMostThreads;
  journal.snapshot.addressCount %= CrashSnapshot::kMostAddresses;
  journal.snapshot.appendThread(port, index, name, stack, false);
}

void addLog(JournalLayout& journal, Input& input) {
  const auto text = input.piece(input.number<std::uint8_t>());
  std::memcpy(journal.log.bytes.data(), text.data(), text.size());
  journal.log.size = static_cast<std::uint32_t>(text.size());
  journal.log.check = core::checksum(text.data(), text.size());
  journal.log.entries = input.number<std::uint8_t>();
}

/// Any bytes at any place.
void overwrite(JournalLayout& journal, Input& input) {
  const std::size_t place = input.number<std::uint32_t>() % sizeof journal;
  const auto bytes = input.piece(input.number<std::uint8_t>());
  std::memcpy(reinterpret_cast<std::uint8_t*>(&journal) + place, bytes.data(),
              std::min(bytes.size(), sizeof journal - place));
}

constexpr void (*kChanges[])(JournalLayout&, Input&) = {addPart, addEntry, addThread, addLog, overwrite};

}  // namespace

/// A byte that names a change to an empty journal, and what that takes, again and again.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto journal = std::make_unique<JournalLayout>();
  std::memset(static_cast<void*>(journal.get()), 0, sizeof *journal);
  journal->head.magic = JournalLayout::kMagic;
  journal->head.version = JournalLayout::kVersion;
  journal->head.size = sizeof *journal;
  Input input(data, size);
  while (!input.isSpent()) {
    kChanges[input.number<std::uint8_t>() % std::size(kChanges)](*journal, input);
  }
  const JournalView view(*journal);
  if (view.fault() == JournalView::Fault::kNone && RecoveredCrash::isIn(view)) {
    const RecoveredCrash crash(view, DeadAddresses::Files::kIgnore);
    if (!crash.data().crashlog() || !crash.data().type()) {
      std::abort();
    }
  }
  return 0;
}
