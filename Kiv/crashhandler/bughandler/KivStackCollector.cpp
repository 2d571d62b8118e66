#include "Kiv/crashhandler/bughandler/KivStackCollector.h"

#include <algorithm>
#include <array>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/Symbols/SymbolTables.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashDescription.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivRegisterDataCollector.h"
#include "Kiv/crashhandler/bughandler/ThreadCapture.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"

namespace {

constexpr std::size_t kMostTraceLines = 128;

void bringImagesUpToDate(const CrashSnapshot& snapshot) noexcept {
  KivBinaryImageCollector::sharedInstance().bringUpToDate({snapshot.addresses, snapshot.addressCount});
}

void logCrashedStack(const KivStack& stack) noexcept {
  if (kiv_log_enabled(kKivLogWarnLevel)) {
    core::Array<const KivCrashAddrInfo*> frames;
    for (const auto& frame : stack) {
      frames.append(&*frame);
    }
    kiv_log_warn("Crashed thread stacks:\n%@\n", frames);
  }
}

}  // namespace

KivStackCollector& KivStackCollector::sharedInstance() noexcept {
  static core::Immortal<KivStackCollector> collector;
  return *collector;
}

void KivStackCollector::prepare() noexcept {
  if (isPrepared_.exchange(true)) {
    return;
  }
  core::ThreadList::prepare();
  if (core::ThreadSuspension::install() != 0) {
    kiv_log_warn("no signal to stop threads with");
  }
  KivBinaryImageCollector::sharedInstance();
  KivRegisterDataCollector::sharedInstance();
  KivCrashData::expData();
  procName();
}

void KivStackCollector::refresh() noexcept {
  core::CodeImages::refresh();
  core::SymbolTables::refresh();
  KivBinaryImageCollector::sharedInstance().reloadBinarysIfChanged();
}

KivStackCollector::Text KivStackCollector::procName() noexcept {
  Text name = procName_.get();
  if (!name) {
    name = KivModelBase::getDefualtAnaModel().processName();
    procName_.set(name);
  }
  return name;
}

void KivStackCollector::collectThreads(const mcontext_t* context, std::uint32_t crashThread,
                                       const std::uint32_t* resumedThreads, std::uint32_t resumedThreadCount) noexcept {
  KivCrashData& data = KivCrashData::expData();
  data.allThreadInfos().clear();
  const core::ThreadList list = core::ThreadList::read();
  if (!list.isComplete()) {
    kiv_log_always("<KIV> task_threads: %s", "no process file system");
  }
  JournalLayout* journal = CrashJournal::current();
  if (journal == nullptr) {
    return;
  }
  const std::span running(resumedThreads, resumedThreadCount);
  ThreadCapture(journal->snapshot, {context, crashThread, running}).run(list.threads());
  bringImagesUpToDate(journal->snapshot);
  LiveAddresses source = addresses();
  describeThreads(data, journal->snapshot, crashThread, source);
  crashThreadInfo_ = data.crashThreadInfo();
  if (crashThreadInfo_ && data.exp() == nullptr) {
    logCrashedStack(crashThreadInfo_->threadStacks);
  }
}

void KivStackCollector::collectAllThreadsWithCrashThread(std::uint32_t port) noexcept {
  const CrashSnapshot::Mapped snapshot = CrashSnapshot::map();
  if (snapshot == nullptr) {
    return;
  }
  KivCrashData& data = KivCrashData::expData();
  ThreadCapture(*snapshot, {.crashThread = port}).run(core::ThreadList::read().threads());
  Threads threads = threadsOf(*snapshot);
  for (std::size_t i = 0; i < threads.size(); ++i) {
    if (snapshot->threads[i].port == port) {
      threads[i].isCrashThread = true;
      data.setCrashThreadInfo(threads[i]);
      crashThreadInfo_ = threads[i];
    }
  }
  if (data.allThreadInfos().empty()) {
    data.setAllThreadInfos(std::move(threads));
  }
}

KivStackCollector::Threads KivStackCollector::liveThreads() noexcept {
  const CrashSnapshot::Mapped snapshot = CrashSnapshot::map();
  if (snapshot == nullptr) {
    return {};
  }
  ThreadCapture(*snapshot, {}).run(core::ThreadList::read().threads());
  return threadsOf(*snapshot);
}

KivStackCollector::Threads KivStackCollector::threadsOf(const CrashSnapshot& snapshot) noexcept {
  bringImagesUpToDate(snapshot);
  LiveAddresses source = addresses();
  Threads threads;
  threads.reserve(snapshot.threadCount);
  for (const CrashSnapshot::Thread& captured : snapshot.allThreads()) {
    threads.append(describedThread(snapshot, captured, source));
  }
  return threads;
}

core::Array<core::String> KivStackCollector::traceOfCaller(unsigned skip) noexcept {
  std::array<std::uint64_t, core::kMostFrames> addresses{};
  kiv_backtrace_fetch(nullptr, core::threadPort(core::threadId()), addresses, false);
  const auto* end = std::find(addresses.begin(), addresses.begin() + kMostTraceLines, 0);
  core::Array<core::String> lines;
  for (const auto& frame : createAddrInfos({addresses.begin(), end})) {
    if (skip != 0) {
      --skip;
    } else {
      lines.append(frame->getFullStackLine());
    }
  }
  return lines;
}

KivStack KivStackCollector::createAddrInfos(std::span<const std::uint64_t> addressesOfStack, StackTop top) noexcept {
  LiveAddresses source = addresses();
  return framesOf(source, addressesOfStack, top);
}

std::optional<core::Shared<KivCrashAddrInfo>> KivStackCollector::createAddrInfo(std::uint64_t address,
                                                                                std::uint32_t index) noexcept {
  LiveAddresses source = addresses();
  return frameOf(source, address, index);
}

bool KivStackCollector::needCheckFirstLineOcMsg() const noexcept {
  return kiv_first_line_is_message(crashThreadInfo_);
}
