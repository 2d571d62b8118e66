#pragma once

#include <atomic>

/// Catches the six fatal signals. Installed and removed by KivCrashHandler, on one thread at
/// a time; made once and never destroyed.
class KivSigHandler {
 public:
  static KivSigHandler& sharedInstance() noexcept;

  /// Whether install() may install; on at first.
  void enableHandler(bool enable) noexcept { handlerEnable_ = enable; }
  bool handlerEnable() const noexcept { return handlerEnable_; }

  bool install() noexcept;
  bool isInstalled() const noexcept { return installed_; }
  bool uninstall() noexcept;
  /// Takes the signals back after another component replaced the handler.
  bool reset() noexcept;
  /// Whether the action in force for SIGSEGV is this library's; the others are not looked at.
  bool checkHandler() const noexcept;

  /// The alternate signal stack of the calling thread: 64 KiB beside what the kernel needs.
  bool InitAltStack() noexcept;
  bool UnInitAltStack() noexcept;

 private:
  KivSigHandler() noexcept = default;

  std::atomic<bool> handlerEnable_{true};
  std::atomic<bool> installed_{false};
};
