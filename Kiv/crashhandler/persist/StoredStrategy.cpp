#include "Kiv/crashhandler/persist/StoredStrategy.h"

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivLog.h"

namespace {

core::String pathIn(const core::String& folder) noexcept {
  return core::joinPath(folder, ".new_strategy.data");
}

}  // namespace

KivLocalStrategy StoredStrategy::load(const core::String& folder) noexcept {
  const core::Lock lock(mutex_);
  if (!strategyLoaded_.exchange(true)) {
    KivLocalStrategy strategy;
    const auto bytes = core::readFile(pathIn(folder));
    if (bytes && !KivModelBase::getDefualtAnaModel().isVersionChanged()) {
      if (strategy.setEncodeData(bytes->span())) {
        kiv_log_info("Load local strategy: %@", strategy.description());
      } else {
        kiv_log_error("Failed to load local strategy.");
      }
    }
    strategy_.set(std::move(strategy));
  }
  return strategy_.get();
}

void StoredStrategy::save(const core::String& folder, KivLocalStrategy strategy) noexcept {
  const core::Lock lock(mutex_);
  const core::Data data = strategy.encodeData();
  strategy_.set(std::move(strategy));
  if (data.empty()) {
    kiv_log_warn("fail to encode common strategy");
    return;
  }
  send([path = pathIn(folder), data] {
    if (core::writeFileAtomically(path, data.span()) == 0) {
      kiv_log_info("saved common strategy ");
    } else {
      kiv_log_warn("fail to save common strategy");
    }
  });
}

void StoredStrategy::remove(const core::String& folder) noexcept {
  const core::Lock lock(mutex_);
  send([this, folder] {
    core::removeFile(pathIn(folder));
    strategyLoaded_ = false;
    load(folder);
  });
}

template <class Work>
void StoredStrategy::send(Work work) noexcept {
  queue_.async([this, work, number = ++called_] {
    const core::Lock lock(mutex_);
    if (number > done_) {
      done_ = number;
      work();
    }
  });
}
