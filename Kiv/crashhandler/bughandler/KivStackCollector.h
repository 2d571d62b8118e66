#pragma once

#include <atomic>

/// Turns addresses into the frames of a report. For now only the switch that says whether the
/// program's own frames get names.
class KivStackCollector {
 public:
  static KivStackCollector& sharedInstance() noexcept {
    static auto& collector = *new KivStackCollector;
    return collector;
  }

  bool needSymbol() const noexcept { return needSymbol_.load(std::memory_order_relaxed); }
  void setNeedSymbol(bool need) noexcept { needSymbol_.store(need, std::memory_order_relaxed); }

 private:
  KivStackCollector() noexcept = default;
  ~KivStackCollector() = delete;

  std::atomic<bool> needSymbol_{false};
};
