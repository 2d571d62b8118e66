#pragma once

#include <signal.h>

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
};

/// The installed action. The first crashing thread owns the crash; another one waits until the
/// process ends, and a fault of the handling itself ends it by the signal that is handled.
void kiv_signal_handler(int sig, siginfo_t* info, void* context) noexcept;

/// Sets the six signals to their default actions.
void kiv_uninstall_signal_handler() noexcept;
