#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/Dictionary.h"
#include "Core/Memory/String.h"
#include "Platform/Foundation/NSException.h"

class KivCrashData;
class NSError;

/// An error of its own, or of a script engine in it, that the program reports as if it were a
/// crash. Made and reported on one thread, in normal running; the facade makes them.
class KivCustomizedException : public NSException {
 public:
  using Text = std::optional<core::String>;
  using Lines = core::Array<core::String>;
  using Map = core::Dictionary<core::String>;

  /// Where an error comes from, as the collector numbers it; others can be made, not reported.
  enum Category : unsigned long { kCocoa = 3, kCSharp = 4, kJavaScript = 5, kLua = 6 };

  /// Of the category kCocoa. `reason` is added to the report where it says something else than
  /// the exception or error itself.
  static std::unique_ptr<KivCustomizedException> exceptionWithNSException(const NSException& exception,
                                                                          const Text& reason, const Map& extraInfo);
  static std::unique_ptr<KivCustomizedException> exceptionWithNSError(const NSError& error, const Text& reason,
                                                                      const Map& extraInfo);
  static std::unique_ptr<KivCustomizedException> exceptionWithType(unsigned long type, const Text& name,
                                                                   const Text& reason,
                                                                   const std::optional<Lines>& callStack,
                                                                   const Map& extraInfo);

  KivCustomizedException(unsigned long category, const Text& name, const Text& reason);

  /// The reported error in crash data; nullptr where that is about anything else.
  static const KivCustomizedException* in(const KivCrashData& data) noexcept;

  /// Milliseconds since 1970, of the making.
  std::int64_t occurTime() const noexcept { return occurTime_; }
  unsigned long category() const noexcept { return category_; }
  /// The collector's number of this kind of report.
  core::String crashType() const noexcept;

  const std::shared_ptr<const NSException>& exception() const noexcept { return exception_; }
  void setException(std::shared_ptr<const NSException> value) noexcept { exception_ = std::move(value); }
  const std::shared_ptr<const NSError>& error() const noexcept { return error_; }
  void setError(std::shared_ptr<const NSError> value) noexcept { error_ = std::move(value); }
  const Lines& extraMessage() const noexcept { return extraMessage_; }
  void setExtraMessage(Lines value) noexcept { extraMessage_ = std::move(value); }
  const Map& extraInfo() const noexcept { return extraInfo_; }
  void setExtraInfo(Map value) noexcept { extraInfo_ = std::move(value); }
  const Lines& callStackReturnSymbols() const noexcept { return callStackReturnSymbols_; }
  void setCallStackReturnSymbols(Lines value) noexcept { callStackReturnSymbols_ = std::move(value); }
  /// Travels as an attachment of the report.
  const Text& attachmentLog() const noexcept { return attachmentLog_; }
  void setAttachmentLog(Text value) noexcept { attachmentLog_ = std::move(value); }

  /// Takes the stack without its first `skipFrame` lines, which are renumbered for kCocoa. False,
  /// and nothing changes, where there are no lines or a stack is there already.
  bool setCallStackSymbols(const Lines& lines, unsigned skipFrame) noexcept;

  /// The report, nullptr for a category that cannot be reported or nothing to tell.
  std::shared_ptr<KivCrashData> packetCrashData() const;

  /// Saves the report; then ends the process with status 0 if `quit`.
  void reportExceptionAndQuit(bool quit) const;

  /// The lines of the calling thread's stack without the first `skip`; the first argument is of no use.
  static Lines backtrace(int unused, unsigned skip) noexcept;

 private:
  std::shared_ptr<KivCrashData> packetCocoaCrashData() const;
  std::shared_ptr<KivCrashData> packetCSharpCrashData() const;
  std::shared_ptr<KivCrashData> packetJSCrashData() const;
  std::shared_ptr<KivCrashData> packetLuaCrashData() const;
  std::shared_ptr<KivCrashData> packet() const;
  std::shared_ptr<KivCrashData> packetOfCategory() const;

  std::int64_t occurTime_;
  unsigned long category_;
  std::shared_ptr<const NSException> exception_;
  std::shared_ptr<const NSError> error_;
  Lines extraMessage_;
  Map extraInfo_;
  Lines callStackReturnSymbols_;
  Text attachmentLog_;
};
