#include "Tools/kiv/JournalDocument.h"

#include <array>
#include <cstddef>

#include "Core/Text/Format.h"
#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Kiv/crashhandler/bughandler/KivSignalNames.h"
#include "Kiv/crashhandler/recovery/RecoveredCrash.h"

namespace {

constexpr std::array<const char*, kJournalPartSizes.size()> kPartNames = {
    "identity", "images", "user data", "scenes", "events", "exception", "settings"};

std::string timeText(std::int64_t milliseconds) {
  return KivDeviceUtil::getFullTimeMsStrBy(milliseconds).str();
}

std::string addressText(std::uint64_t address) {
  return core::kiv_format("%#018llx", address).str();
}

Document addresses(std::span<const std::uint64_t> stack) {
  Document list = Document::array();
  for (const std::uint64_t address : stack) {
    list.push_back(addressText(address));
  }
  return list;
}

const char* stateText(const JournalView& journal) {
  if (RecoveredCrash::isIn(journal)) {
    return "a crash that nobody has reported";
  }
  return journal.entries().empty() ? "no crash" : "a crash that has been reported";
}

Document headOf(const JournalView& journal) {
  const JournalLayout::Head& head = journal.head();
  return {{"state", stateText(journal)},
          {"process", head.processId},
          {"made", timeText(head.created)},
          {"version", head.version},
          {"attempts to report", head.attempts}};
}

Document partsOf(const JournalView& journal) {
  Document parts;
  for (std::size_t i = 0; i < kPartNames.size(); ++i) {
    const auto part = static_cast<JournalPart>(i);
    switch (journal.state(part)) {
      case JournalView::Part::kAbsent:
        parts[kPartNames[i]] = "nothing";
        break;
      case JournalView::Part::kWhole:
        parts[kPartNames[i]] = std::to_string(journal.bytesOf(part).size()) + " bytes";
        break;
      case JournalView::Part::kDamaged:
        parts[kPartNames[i]] = "damaged";
        break;
    }
  }
  parts["log"] = journal.log().empty() ? "nothing" : std::to_string(journal.log().size()) + " bytes";
  return parts;
}

Document entryOf(const JournalLayout::Entry& entry) {
  siginfo_t info{};
  info.si_signo = entry.facts.signal;
  info.si_code = entry.facts.code;
  char buffer[32];
  const char* name;
  const char* code;
  kiv_map_sig_name(&info, buffer, name, code);
  return {{"time", timeText(entry.facts.time)},
          {"signal", name},
          {"code", code},
          {"address", addressText(entry.facts.address)},
          {"thread", entry.facts.crashThread},
          {"stack", addresses(JournalView::stackOf(entry))}};
}

Document threadsOf(const CrashSnapshot& snapshot) {
  Document threads = Document::array();
  for (const CrashSnapshot::Thread& thread : snapshot.allThreads()) {
    if (snapshot.isWhole(thread)) {
      threads.push_back({{"index", thread.index},
                         {"port", thread.port},
                         {"name", std::string(thread.name.view())},
                         {"stack", addresses(snapshot.stackOf(thread))}});
    } else {
      threads.push_back("damaged");
    }
  }
  return threads;
}

}  // namespace

JournalContent readJournal(ByteView bytes) {
  const JournalView journal(bytes);
  switch (journal.fault()) {
    case JournalView::Fault::kForeign:
      throw BrokenDocument(0, "no journal");
    case JournalView::Fault::kOtherVersion:
      throw BrokenDocument(offsetof(JournalLayout::Head, version),
                           "a journal of version " + std::to_string(journal.head().version) + ", not " +
                               std::to_string(JournalLayout::kVersion));
    case JournalView::Fault::kNone:
      break;
  }
  JournalContent content;
  content.facts = headOf(journal);
  content.facts["parts"] = partsOf(journal);
  content.facts["entries"] = Document::array();
  for (const JournalLayout::Entry& entry : journal.entries()) {
    content.facts["entries"].push_back(entryOf(entry));
  }
  content.facts["threads"] = threadsOf(journal.snapshot());
  if (RecoveredCrash::isIn(journal)) {
    const RecoveredCrash crash(journal);
    content.log = crash.data().crashlog().value_or(core::String()).str();
    content.ownModule = crash.identity().processName.value_or(core::String()).str();
  }
  return content;
}
