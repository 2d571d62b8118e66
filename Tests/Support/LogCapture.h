#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Logging/NSLog.h"

namespace test {

/// Collects what any thread logs while it lives, in place of standard error. One at a time.
class LogCapture {
 public:
  LogCapture() : previous_(platform::setLogSink(&collect)) { take(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { platform::setLogSink(previous_); }

  /// The texts since the last call.
  static std::vector<std::string> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(texts_, {});
  }
  /// Whether there is exactly one new text, and `piece` is in it.
  static bool tookOne(std::string_view piece) {
    const std::vector<std::string> texts = take();
    return texts.size() == 1 && texts[0].find(piece) != std::string::npos;
  }

 private:
  static void collect(std::string_view text) noexcept {
    const std::lock_guard lock(mutex_);
    texts_.emplace_back(text);
  }
  static inline std::mutex mutex_;
  static inline std::vector<std::string> texts_;
  platform::LogSink previous_;
};

}  // namespace test
