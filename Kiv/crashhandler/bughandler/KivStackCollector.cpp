#include "Kiv/crashhandler/bughandler/KivStackCollector.h"

#include <algorithm>
#include <array>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Symbols/SymbolTables.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Kernel/Unwind/CodeBytes.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Text/Format.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivRegisterDataCollector.h"
#include "Kiv/crashhandler/bughandler/KivSymbolicate.h"
#include "Kiv/crashhandler/bughandler/ThreadPass.h"

namespace {

constexpr std::uint64_t kAlignment = 16;
constexpr std::string_view kHiddenName = "<redacted>";

/// Ports that differ in the low 8 bits only are taken for one thread.
constexpr std::uint32_t kPortTolerance = 255;

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

/// A return address lies behind its call, perhaps in the next function; where a thread was
/// stopped or interrupted, the address itself was next.
std::uint64_t executingAddress(std::span<const std::uint64_t> addresses, std::size_t index) noexcept {
  const core::OwnMemory memory;
  const bool isExact = index == 0 || core::isSignalReturn(memory, addresses[index]) ||
                       core::isSignalReturn(memory, addresses[index - 1]);
  return addresses[index] - (isExact ? 0 : 1);
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
  const std::span resumed(resumedThreads, resumedThreadCount);
  ThreadPass pass(*this);
  for (std::uint32_t index = 0; index < list.threads().size(); ++index) {
    const std::uint32_t port = core::threadPort(list.threads()[index]);
    const bool isCrashThread = (port ^ crashThread) <= kPortTolerance;
    if (isCrashThread) {
      data.addLastExceptionInfo(core::kiv_format("Highlighted Thread: %d", index));
    }
    const bool isResumed = std::find(resumed.begin(), resumed.end(), port) != resumed.end();
    KivThreadInfo thread = pass.read(port, index, isCrashThread ? context : nullptr, !isResumed);
    thread.isCrashThread = isCrashThread;
    if (isCrashThread) {
      if (data.exp() == nullptr) {
        logCrashedStack(thread.threadStacks);
      }
      data.setCrashThreadInfo(thread);
      crashThreadInfo_ = thread;
    }
    data.allThreadInfos().append(std::move(thread));
  }
}

void KivStackCollector::collectAllThreadsWithCrashThread(std::uint32_t port) noexcept {
  KivCrashData& data = KivCrashData::expData();
  const core::ThreadList list = core::ThreadList::read();
  Threads threads = readThreads(list);
  for (KivThreadInfo& thread : threads) {
    if (core::threadPort(list.threads()[thread.threadIndex]) == port) {
      thread.isCrashThread = true;
      data.setCrashThreadInfo(thread);
      crashThreadInfo_ = thread;
    }
  }
  if (data.allThreadInfos().empty()) {
    data.setAllThreadInfos(std::move(threads));
  }
}

KivStackCollector::Threads KivStackCollector::liveThreads() noexcept {
  return readThreads(core::ThreadList::read());
}

KivStackCollector::Threads KivStackCollector::readThreads(const core::ThreadList& list) noexcept {
  Threads threads;
  ThreadPass pass(*this);
  for (const int thread : list.threads()) {
    const auto index = static_cast<std::uint32_t>(threads.size());
    threads.append(pass.read(core::threadPort(thread), index, nullptr, true));
  }
  return threads;
}

KivStack KivStackCollector::createAddrInfos(std::span<const std::uint64_t> addresses) noexcept {
  KivStack stack;
  stack.reserve(addresses.size());
  for (std::uint32_t i = 0; i < addresses.size(); ++i) {
    std::optional<Frame> frame = keptFrame(addresses[i]);
    if (!frame) {
      frame = makeFrame(addresses[i], i, executingAddress(addresses, i));
    }
    if (frame) {
      stack.append(*frame);
    }
  }
  return stack;
}

std::optional<core::Shared<KivCrashAddrInfo>> KivStackCollector::createAddrInfo(std::uint64_t address,
                                                                                std::uint32_t index) noexcept {
  const std::optional<Frame> known = keptFrame(address);
  return known ? known : makeFrame(address, index, index == 0 ? address : address - 1);
}

template <class Use>
auto KivStackCollector::withKeptFrames(Use&& use) noexcept {
  if (core::CrashOwner::isCurrentThread()) {
    return use(allAdrMapsOfCrash_);
  }
  const core::Lock lock(mutex_);
  return use(allAdrMaps_);
}

std::optional<core::Shared<KivCrashAddrInfo>> KivStackCollector::keptFrame(std::uint64_t address) noexcept {
  return withKeptFrames([address](const FrameCache& kept) {
    const Frame* frame = kept.find(address);
    return frame != nullptr ? std::optional(*frame) : std::nullopt;
  });
}

std::optional<core::Shared<KivCrashAddrInfo>> KivStackCollector::makeFrame(std::uint64_t address, std::uint32_t index,
                                                                           std::uint64_t executing) noexcept {
  const std::uint64_t aligned = address / kAlignment * kAlignment;
  const auto image = KivBinaryImageCollector::sharedInstance().getImageByAddr(aligned);
  if (!image) {
    return std::nullopt;
  }
  KivCrashAddrInfo made;
  made.index = index;
  made.addr = address;
  made.moduleName = image->sname;
  made.offset = aligned - image->base;
  const Text program = procName();
  if ((program && image->sname != *program) || needSymbol()) {
    made.lineStr = symbolText(aligned, executing);
  }
  if (!made.lineStr) {
    made.lineStr = core::kiv_format("%#018llx + %lu", image->base, made.offset);
  }
  const Frame frame(std::move(made));
  return withKeptFrames([&](FrameCache& kept) {
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
