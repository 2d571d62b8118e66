#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#ifndef KIV_EXPORT
#define KIV_EXPORT __attribute__((visibility("default")))
#endif

/// An exception with a name, a reason and the stack of the place where it was made.
///
///     throw NSException("NSRangeException", "index 2 beyond bounds [0 .. 0]");
///
/// An unchanging value but for subclasses; may be read on any thread.
class KIV_EXPORT NSException : public std::exception {
 public:
  NSException(std::string name, std::string reason);
  /// With the return addresses of another place, innermost first.
  NSException(std::string name, std::string reason, std::vector<std::uintptr_t> callStackReturnAddresses);
  NSException(const NSException&);
  NSException& operator=(const NSException&);
  ~NSException() override;

  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  const char* what() const noexcept override;

  /// Where it was made, innermost first, 256 at most.
  const std::vector<std::uintptr_t>& callStackReturnAddresses() const noexcept { return callStackReturnAddresses_; }
  /// One line an address: number, module, address, and symbol or module base plus offset. Made
  /// at each call, from the images that are loaded then; not for a signal handler.
  std::vector<std::string> callStackSymbols() const;

 private:
  std::string name_;
  std::string reason_;
  std::vector<std::uintptr_t> callStackReturnAddresses_;
};

/// Called with an exception that nobody catches, on the thread that threw it, before the
/// process's own terminate handler ends it.
using NSUncaughtExceptionHandler = void (*)(const NSException& exception);

/// Sets the process's handler, nullptr for none. It stands in front of the terminate handler
/// that is in force (std::set_terminate), which is called after it and put back when the
/// handler is taken away, unless another one was set meanwhile.
///
/// An exception of another type arrives as an NSException with the type's name and, of a
/// std::exception, what() as reason; its addresses are those of the thread at the end, or, in a
/// program that links kiv::throw_hook, of the place that threw it.
KIV_EXPORT void NSSetUncaughtExceptionHandler(NSUncaughtExceptionHandler handler) noexcept;

/// The handler that an uncaught exception would reach first: nullptr for none, and when
/// another terminate handler was set since.
KIV_EXPORT NSUncaughtExceptionHandler NSGetUncaughtExceptionHandler() noexcept;
