#include "Platform/Foundation/NSException.h"

#include <cxxabi.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <typeinfo>
#include <utility>

#include "Core/Kernel/Process.h"
#include "Core/Memory/Mutex.h"
#include "Platform/Foundation/CallStack.h"
#include "Platform/Foundation/ThrowPlace.h"

namespace {

core::Mutex installation;
std::atomic<NSUncaughtExceptionHandler> uncaughtHandler{nullptr};
std::atomic<std::terminate_handler> previousTerminate{nullptr};
std::atomic<int> terminatingThread{0};

std::string nameOfCurrentException() {
  const std::type_info* type = abi::__cxa_current_exception_type();
  return type != nullptr ? platform::demangledName(type->name()) : std::string("unknown exception");
}

/// Where the current exception was thrown, as far as that was noted; else the thread's stack from
/// `here` on, which still holds that place unless the exception passed a noexcept function.
std::vector<std::uintptr_t> placeOfCurrentException(const void* here) {
  const std::exception_ptr current = std::current_exception();
  const void* exception = nullptr;
  static_assert(sizeof current == sizeof exception);  // it is no more than that
  std::memcpy(&exception, static_cast<const void*>(&current), sizeof exception);
  std::vector<std::uintptr_t> noted = platform::throwPlace(exception);
  return noted.empty() ? platform::captureReturnAddresses(here) : noted;
}

/// Hands the exception that ends the process to `handler`. Only to be called where one is
/// current; `here` is where the thread's stack begins.
void handCurrentException(NSUncaughtExceptionHandler handler, const void* here) {
  try {
    throw;
  } catch (const NSException& exception) {
    handler(exception);
  } catch (const std::exception& exception) {
    handler(NSException(nameOfCurrentException(), exception.what(), placeOfCurrentException(here)));
  } catch (...) {
    handler(NSException(nameOfCurrentException(), "", placeOfCurrentException(here)));
  }
}

[[noreturn]] void endByUncaughtException() noexcept {
  // The handler in force before may lead back here, where it was set over this one and this
  // one over it again; and the handler called below may itself throw.
  int nobody = 0;
  const int self = core::threadId();
  if (!terminatingThread.compare_exchange_strong(nobody, self) && nobody == self) {
    std::abort();
  }
  const NSUncaughtExceptionHandler handler = uncaughtHandler.load();
  if (handler != nullptr && std::current_exception() != nullptr) {
    handCurrentException(handler, __builtin_return_address(0));
  }
  if (const std::terminate_handler previous = previousTerminate.load()) {
    previous();
  }
  std::abort();
}

}  // namespace

NSException::NSException(std::string name, std::string reason)
    : NSException(std::move(name), std::move(reason), platform::captureReturnAddresses(__builtin_return_address(0))) {}

NSException::NSException(std::string name, std::string reason, std::vector<std::uintptr_t> callStackReturnAddresses)
    : name_(std::move(name)),
      reason_(std::move(reason)),
      callStackReturnAddresses_(std::move(callStackReturnAddresses)) {}

NSException::NSException(const NSException&) = default;
NSException& NSException::operator=(const NSException&) = default;
NSException::~NSException() = default;

const char* NSException::what() const noexcept {
  return reason_.c_str();
}

std::vector<std::string> NSException::callStackSymbols() const {
  return platform::callStackLines(callStackReturnAddresses_);
}

void NSSetUncaughtExceptionHandler(NSUncaughtExceptionHandler handler) noexcept {
  const core::Lock lock(installation);
  uncaughtHandler = handler;
  if (handler != nullptr && std::get_terminate() != endByUncaughtException) {
    previousTerminate = std::set_terminate(endByUncaughtException);
  } else if (handler == nullptr && std::get_terminate() == endByUncaughtException) {
    std::set_terminate(previousTerminate);
  }
}

NSUncaughtExceptionHandler NSGetUncaughtExceptionHandler() noexcept {
  return std::get_terminate() == endByUncaughtException ? uncaughtHandler.load() : nullptr;
}
