#include "Kiv/crashhandler/bughandler/ImageWatch.h"

#include <link.h>

#include <atomic>
#include <cstdint>

#include "Core/Kernel/AlternateStack.h"
#include "Core/Kernel/SuspensionRound.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashWatchdog.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace {

/// Counts starts and stops: a look that belongs to an earlier start finds another number.
std::atomic<std::uint32_t> watchNumber{0};

/// How many images the loader has opened and closed.
std::uint64_t loaderCount() noexcept {
  std::uint64_t count = 0;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* sum) {
        *static_cast<std::uint64_t*>(sum) = info->dlpi_adds + info->dlpi_subs;
        return 1;  // every image tells the same
      },
      &count);
  return count;
}

void look(std::uint32_t number, std::uint64_t known) noexcept {
  CrashWatchdog::endIfOverdue();
  if (watchNumber != number) {
    return;
  }
  const std::uint64_t count = loaderCount();
  if (count != known) {
    KivStackCollector::refresh();
  }
  platform::DispatchQueue::global().asyncAfter(ImageWatch::kInterval, [number, count] { look(number, count); });
}

void giveStacks() noexcept {
  core::SuspensionRound round;
  const core::AlternateStack::Handout handout = core::AlternateStack::giveToAll(round);
  if (handout.unreachable != 0) {
    kiv_log_warn("%d threads have no stack of their own for signals", handout.unreachable);
  }
}

}  // namespace

void ImageWatch::start() noexcept {
  const std::uint32_t number = watchNumber.fetch_add(1) + 1;
  platform::DispatchQueue::global().async([number] {
    giveStacks();
    look(number, 0);
  });
}

void ImageWatch::stop() noexcept {
  watchNumber.fetch_add(1);
}
