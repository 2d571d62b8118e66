#include "Kiv/crashhandler/recovery/RecoveredCrash.h"

#include <algorithm>

#include "Core/Text/Format.h"
#include "Kiv/crashhandler/bughandler/CrashDescription.h"
#include "Kiv/crashhandler/bughandler/CrashLog.h"
#include "Kiv/crashhandler/bughandler/KivRegisterDataCollector.h"
#include "Kiv/crashhandler/bughandler/StackFrames.h"
#include "Kiv/crashhandler/bughandler/ThreadCapture.h"

namespace {

constexpr std::string_view kHandler = "Signal Handler (recovered)";

bool hasException(const JournalView& journal) noexcept {
  return journal.state(JournalPart::kException) == JournalView::Part::kWhole;
}

}  // namespace

bool RecoveredCrash::isIn(const JournalView& journal) noexcept {
  const bool isUnreported = journal.entries().empty() && journal.head().settled == 0;
  return !journal.openEntries().empty() || (isUnreported && hasException(journal));
}

RecoveredCrash::RecoveredCrash(const JournalView& journal, DeadAddresses::Files files) noexcept
    : journal_(journal),
      identity_(read<ReporterIdentity>(JournalPart::kIdentity)),
      images_(read<KivBinaryImageCollector::Images>(JournalPart::kImages)) {
  if (identity_.processId == 0) {
    identity_.processId = journal.head().processId;
  }
  data_.setUserMaps(read<CrashUserData::Map>(JournalPart::kUserData));
  data_.setSceneData(read<CrashUserData::Map>(JournalPart::kScenes));
  for (const core::String& event : read<CrashUserData::Texts>(JournalPart::kEvents)) {
    data_.appendSessionEvent(event);
  }
  const auto thrown = read<ThrownException>(JournalPart::kException);
  if (hasException(journal)) {
    data_.setTime(thrown.time);
    data_.setType(thrown.name);
    data_.setError(thrown.reason);
  }
  for (const JournalLayout::Entry& entry : journal.entries()) {
    describeEntry(data_, entry.facts, identity_.sdkVersion.value_or(core::String()));
  }
  data_.setHandler(core::String(kHandler));
  DeadAddresses source(images_, identity_.processName, identity_.namesOwnFunctions, files);
  if (!thrown.addresses.empty()) {
    describeException(data_, {thrown.addresses.data(), thrown.addresses.size()}, source);
  }
  if (!journal.entries().empty()) {
    addThreads(source);
  }
  describeModules(data_);
  KivBinaryImageCollector::collectBinaryInfos(data_, images_, identity_.processName);
  addLog();
}

// Where the threads were not read to the end, the crashed one's stack stands with its entry; so does the
// newer one of two.
void RecoveredCrash::addThreads(DeadAddresses& source) noexcept {
  const JournalLayout::Entry& last = journal_.entries().back();
  describeThreads(data_, journal_.snapshot(), last.facts.crashThread, source);
  if (!data_.crashThreadInfo()) {
    KivThreadInfo crashed;
    crashed.threadIndex = static_cast<std::uint32_t>(data_.allThreadInfos().size());
    crashed.threadName = core::String();
    data_.allThreadInfos().append(std::move(crashed));
    setCrashedThread(data_, data_.allThreadInfos().back());
  }
  const auto stack = JournalView::stackOf(last);
  if (journal_.entries().size() > 1 || data_.crashThreadInfo()->threadStacks.empty()) {
    for (KivThreadInfo& thread : data_.allThreadInfos()) {
      if (thread.isCrashThread) {
        thread.threadStacks = framesOf(source, stack);
        data_.setCrashThreadInfo(thread);
      }
    }
  }
  const std::uint32_t index = data_.crashThreadInfo()->threadIndex;
  data_.setRegisterDatas(KivRegisterDataCollector::textOf(index, last.facts.registers));
}

// The text that the process itself made has names that its files may not tell any more.
void RecoveredCrash::addLog() noexcept {
  const std::string_view made = journal_.log();
  const std::size_t lineEnd = made.find('\n');
  if (lineEnd == std::string_view::npos) {
    data_.setCrashlog(crashLogOf(data_, identity_, images_, data_.time()));
    return;
  }
  core::StringBuilder log(made.size() + kHandler.size());
  core::kiv_append(log, "Handler: %@", kHandler);
  log.append(made.substr(lineEnd));
  data_.setCrashlog(log.str());
}

core::String RecoveredCrash::uid() const noexcept {
  const std::size_t last = journal_.entries().empty() ? 0 : journal_.entries().size() - 1;
  const auto& uid = journal_.head().uids[last];
  return std::string_view(uid.data(), uid.size());
}
