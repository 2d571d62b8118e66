#include "Kiv/crashhandler/bughandler/KivStackCollector.h"

#include <algorithm>
#include <array>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/Symbols/SymbolTables.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Kernel/Unwind/CodeBytes.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Text/Format.h"
#include "Core/Text/Utf8.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivRegisterDataCollector.h"
#include "Kiv/crashhandler/bughandler/KivSymbolicate.h"
#include "Kiv/crashhandler/bughandler/ThreadCapture.h"

namespace {

constexpr std::uint64_t kAlignment = 16;
constexpr std::size_t kMostTraceLines = 128;
constexpr std::string_view kHiddenName = "<redacted>";

/// Functions are looked up by the aligned address, unless that brings up one that ends before the
/// code which was executing.
KivCrashAddrInfo::Text symbolText(std::uint64_t aligned, std::uint64_t executing) noexcept {
  const core::SymbolTables::View symbols;
  const auto nearby = symbols.lookup(aligned);
  const bool covers = nearby && executing - nearby->start < nearby->size;
  std::array<char, kKivSymbolBuffer> buffer;
  const std::string_view text(buffer.data(), kiv_symbolicate(covers ? aligned : executing, buffer));
  if (text.empty() || text.starts_with(kHiddenName)) {
    return std::nullopt;
  }
  return core::String(text);
}

/// What a stack's frames were executing. A return address lies behind its call, perhaps in the next
/// function; where a thread was stopped or interrupted, the address itself was next.
class ExecutingAddresses {
 public:
  ExecutingAddresses(std::span<const std::uint64_t> stack, KivStackCollector::Top top) noexcept
      : stack_(stack), top_(top) {}

  std::uint64_t operator[](std::size_t index) const noexcept {
    const bool isExact = index == 0 ? top_ == KivStackCollector::Top::kStopped || isSignalReturn(0)
                                    : isSignalReturn(index) || isSignalReturn(index - 1);
    return stack_[index] - (isExact ? 0 : 1);
  }

 private:
  bool isSignalReturn(std::size_t index) const noexcept {
    return core::isSignalReturn(images_, memory_, stack_[index]);
  }

  const std::span<const std::uint64_t> stack_;
  const KivStackCollector::Top top_;
  const core::CodeImages::View images_;
  const core::OwnMemory memory_;
};

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

/// A program may give a thread any bytes for a name; a report shows one line of text.
core::String printableName(std::string_view name) noexcept {
  core::StringBuilder shown;
  while (!name.empty()) {
    const core::Utf8Character next = core::decodeUtf8(name);
    const bool isControl = next.codePoint < ' ' || (next.codePoint >= 0x7F && next.codePoint < 0xA0);
    shown.append(next.valid && !isControl ? name.substr(0, next.size) : "?");
    name.remove_prefix(next.size);
  }
  return shown.str();
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
  snapshot_ = CrashSnapshot::map().release();
  if (snapshot_ == nullptr) {
    kiv_log_error("no address space for the snapshot of a crash");
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
  if (snapshot_ == nullptr) {
    return;
  }
  const std::span running(resumedThreads, resumedThreadCount);
  ThreadCapture(*snapshot_, {context, crashThread, running}).run(list.threads());
  bringImagesUpToDate(*snapshot_);
  // One by one into the crash data: those before stay when the memory of the crash is used up.
  data.allThreadInfos().reserve(snapshot_->threadCount);
  for (const CrashSnapshot::Thread& captured : snapshot_->allThreads()) {
    data.allThreadInfos().append(threadOf(*snapshot_, captured));
    if (ThreadCapture::isSameThread(captured.port, crashThread)) {
      setCrashedThread(data, data.allThreadInfos().back());
    }
  }
}

void KivStackCollector::setCrashedThread(KivCrashData& data, KivThreadInfo& thread) noexcept {
  thread.isCrashThread = true;
  data.addLastExceptionInfo(core::kiv_format("Highlighted Thread: %d", thread.threadIndex));
  if (data.exp() == nullptr) {
    logCrashedStack(thread.threadStacks);
  }
  data.setCrashThreadInfo(thread);
  crashThreadInfo_ = thread;
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
  Threads threads;
  threads.reserve(snapshot.threadCount);
  for (const CrashSnapshot::Thread& captured : snapshot.allThreads()) {
    threads.append(threadOf(snapshot, captured));
  }
  return threads;
}

KivThreadInfo KivStackCollector::threadOf(const CrashSnapshot& snapshot,
                                          const CrashSnapshot::Thread& captured) noexcept {
  KivThreadInfo thread;
  thread.threadIndex = captured.index;
  thread.threadName = printableName(core::reportedThreadName(captured.name));
  thread.threadStacks = createAddrInfos(snapshot.stackOf(captured));
  return thread;
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

KivStack KivStackCollector::createAddrInfos(std::span<const std::uint64_t> addresses, Top top) noexcept {
  const bool isCrash = core::CrashOwner::isCurrentThread();
  const ExecutingAddresses executing(addresses, top);
  KivStack stack;
  stack.reserve(addresses.size());
  for (std::uint32_t i = 0; i < addresses.size(); ++i) {
    std::optional<Frame> frame = keptFrame(addresses[i], isCrash);
    if (!frame) {
      frame = makeFrame(addresses[i], i, executing[i], isCrash);
    }
    if (frame) {
      stack.append(*std::move(frame));
    }
  }
  return stack;
}

std::optional<core::Shared<KivCrashAddrInfo>> KivStackCollector::createAddrInfo(std::uint64_t address,
                                                                                std::uint32_t index) noexcept {
  const bool isCrash = core::CrashOwner::isCurrentThread();
  const std::optional<Frame> known = keptFrame(address, isCrash);
  return known ? known : makeFrame(address, index, index == 0 ? address : address - 1, isCrash);
}

template <class Use>
auto KivStackCollector::withKeptFrames(bool isCrash, Use&& use) noexcept {
  if (isCrash) {
    return use(allAdrMapsOfCrash_);
  }
  const core::Lock lock(mutex_);
  return use(allAdrMaps_);
}

std::optional<core::Shared<KivCrashAddrInfo>> KivStackCollector::keptFrame(std::uint64_t address,
                                                                           bool isCrash) noexcept {
  return withKeptFrames(isCrash, [address](const FrameCache& kept) {
    const Frame* frame = kept.find(address);
    return frame != nullptr ? std::optional(*frame) : std::nullopt;
  });
}

std::optional<core::Shared<KivCrashAddrInfo>> KivStackCollector::makeFrame(std::uint64_t address, std::uint32_t index,
                                                                           std::uint64_t executing,
                                                                           bool isCrash) noexcept {
  const std::uint64_t aligned = address / kAlignment * kAlignment;
  KivCrashAddrInfo made;
  made.index = index;
  made.addr = address;
  std::uint64_t base = 0;
  const bool isInImage = KivBinaryImageCollector::sharedInstance().lookAt(aligned, [&](const KivMachImageInfo& image) {
    made.moduleName = image.sname;
    base = image.base;
  });
  if (!isInImage) {
    return std::nullopt;
  }
  made.offset = aligned - base;
  const Text program = procName();
  if ((program && *made.moduleName != *program) || needSymbol()) {
    made.lineStr = symbolText(aligned, executing);
  }
  if (!made.lineStr) {
    made.lineStr = core::kiv_format("%#018llx + %lu", base, made.offset);
  }
  made.fullLine = made.getFullStackLine();
  const Frame frame(std::move(made));
  return withKeptFrames(isCrash, [&](FrameCache& kept) {
    const Frame* other = kept.find(address);  // made by another thread meanwhile
    if (other == nullptr) {
      kept.insert(frame);
    }
    return std::optional(other != nullptr ? *other : frame);
  });
}

bool KivStackCollector::needCheckFirstLineOcMsg() const noexcept {
  return kiv_first_line_is_message(crashThreadInfo_);
}
