#pragma once

#include <ucontext.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>

#include "Core/Memory/Array.h"
#include "Core/Memory/Immortal.h"
#include "Core/Memory/Published.h"
#include "Kiv/crashhandler/bughandler/KivThreadInfo.h"
#include "Kiv/crashhandler/bughandler/LiveAddresses.h"
#include "Kiv/crashhandler/bughandler/StackFrames.h"
#include "Kiv/crashhandler/journal/CrashSnapshot.h"

class KivCrashData;

/// Takes the stacks of all threads and turns addresses into the frames of a report. Any
/// thread, and fit for the crash path; threads are named by port (core::threadPort). All of
/// them are read before any frame is made, so that no thread waits for text.
///
/// A frame is made once for an address and handed out again, with the index that it had first,
/// for the life of the process; a crash has frames of its own.
class KivStackCollector {
 public:
  using Text = std::optional<core::String>;
  using Threads = core::Array<KivThreadInfo>;

  static KivStackCollector& sharedInstance() noexcept;

  /// Opens and takes what a crash must have at hand; at installation, once a process.
  void prepare() noexcept;
  /// Brings the tables of images, call frames and symbols up to date: some milliseconds, in the
  /// background of normal running. A crash that comes earlier reads the first two itself, and
  /// names no functions.
  static void refresh() noexcept;

  /// Whether the program's own functions are named too.
  bool needSymbol() const noexcept { return needSymbol_.load(std::memory_order_relaxed); }
  void setNeedSymbol(bool need) noexcept { needSymbol_.store(need, std::memory_order_relaxed); }
  /// The name of the program's own image: the model's process name unless set.
  Text procName() noexcept;
  void setProcName(Text name) noexcept { procName_.set(std::move(name)); }

  /// Fills the crash data's threads, its crashed thread among them: the one whose port differs from
  /// `crashThread` in the low 8 bits at most, whose stack is taken from `context`. The ports
  /// in `resumedThreads` are not stopped for their walk.
  void collectThreads(const mcontext_t* context, std::uint32_t crashThread, const std::uint32_t* resumedThreads,
                      std::uint32_t resumedThreadCount) noexcept;

  /// The same where there is no context; the crashed thread has exactly that port, and threads that the
  /// crash data already holds stay.
  void collectAllThreadsWithCrashThread(std::uint32_t port) noexcept;

  /// All threads as they are now; the crash data is left alone.
  Threads liveThreads() noexcept;

  /// The lines of the calling thread's own stack, 128 at most, without the first `skip`.
  core::Array<core::String> traceOfCaller(unsigned skip) noexcept;

  /// What addresses of this process mean just now.
  LiveAddresses addresses() noexcept { return {allAdrMaps_, needSymbol(), procName()}; }
  /// The frames of some of them (framesOf, frameOf).
  KivStack createAddrInfos(std::span<const std::uint64_t> addresses, StackTop top = StackTop::kStopped) noexcept;
  std::optional<core::Shared<KivCrashAddrInfo>> createAddrInfo(std::uint64_t address, std::uint32_t index) noexcept;

  /// The crashed thread that was collected last.
  const std::optional<KivThreadInfo>& crashThreadInfo() const noexcept { return crashThreadInfo_; }
  bool needCheckFirstLineOcMsg() const noexcept;

 private:
  friend core::Immortal<KivStackCollector>;
  KivStackCollector() noexcept = default;

  Threads threadsOf(const CrashSnapshot& snapshot) noexcept;

  std::atomic<bool> isPrepared_{false};
  std::atomic<bool> needSymbol_{false};
  core::Published<Text> procName_;
  std::optional<KivThreadInfo> crashThreadInfo_;

  LiveAddresses::Kept allAdrMaps_;
};
