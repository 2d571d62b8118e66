#include "Kiv/compat/KivCustomizedException.h"

#include <cstdlib>
#include <string>
#include <typeinfo>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Text/Format.h"
#include "Core/Text/Join.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Platform/Foundation/NSError.h"

namespace {

constexpr std::int64_t kNanosecondsAMillisecond = 1'000'000;

std::string toStandard(const std::optional<core::String>& text) {
  return text ? text->str() : std::string();
}

/// The caller's own words, unless they are the error's.
KivCustomizedException::Lines extraLines(const std::optional<core::String>& reason, const std::string& own) {
  return reason && !reason->empty() && *reason != own ? KivCustomizedException::Lines{*reason}
                                                      : KivCustomizedException::Lines{};
}

bool isSpace(char c) noexcept {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The line behind its frame number and the white space after that; all of it where it does not
/// begin so.
std::string_view withoutNumber(std::string_view line) noexcept {
  std::size_t digits = 0;
  while (digits < line.size() && line[digits] >= '0' && line[digits] <= '9') {
    ++digits;
  }
  const bool isNumbered = digits != 0 && digits < line.size() && isSpace(line[digits]);
  return isNumbered ? line.substr(digits + 1) : line;
}

}  // namespace

KivCustomizedException::KivCustomizedException(unsigned long category, const Text& name, const Text& reason)
    : NSException(toStandard(name), toStandard(reason), {}),
      occurTime_(core::wallClockNanoseconds() / kNanosecondsAMillisecond),
      category_(category) {}

std::unique_ptr<KivCustomizedException> KivCustomizedException::exceptionWithNSException(const NSException& exception,
                                                                                         const Text& reason,
                                                                                         const Map& extraInfo) {
  auto made = std::make_unique<KivCustomizedException>(kCocoa, core::String(exception.name()),
                                                       core::String(exception.reason()));
  made->setException(std::make_shared<const NSException>(exception));
  made->setExtraMessage(extraLines(reason, exception.reason()));
  made->setExtraInfo(extraInfo);
  Lines stack;
  for (const std::string& line : exception.callStackSymbols()) {
    stack.append(core::String(line));
  }
  made->setCallStackReturnSymbols(std::move(stack));
  return made;
}

std::unique_ptr<KivCustomizedException> KivCustomizedException::exceptionWithNSError(const NSError& error,
                                                                                     const Text& reason,
                                                                                     const Map& extraInfo) {
  auto made = std::make_unique<KivCustomizedException>(
      kCocoa, core::kiv_format("NSError(%@:%ld)", error.domain(), error.code()),
      core::String(error.localizedDescription()));
  made->setError(std::make_shared<const NSError>(error));
  made->setExtraMessage(extraLines(reason, error.localizedDescription()));
  made->setExtraInfo(extraInfo);
  return made;
}

std::unique_ptr<KivCustomizedException> KivCustomizedException::exceptionWithType(unsigned long type, const Text& name,
                                                                                  const Text& reason,
                                                                                  const std::optional<Lines>& callStack,
                                                                                  const Map& extraInfo) {
  auto made = std::make_unique<KivCustomizedException>(type, name, reason);
  made->setCallStackReturnSymbols(callStack.value_or(Lines()));
  made->setExtraInfo(extraInfo);
  return made;
}

const KivCustomizedException* KivCustomizedException::in(const KivCrashData& data) noexcept {
  const NSException* exception = data.exp().get();  // the crash data keeps it
  return exception != nullptr && typeid(*exception) == typeid(KivCustomizedException)
             ? static_cast<const KivCustomizedException*>(exception)
             : nullptr;
}

core::String KivCustomizedException::crashType() const noexcept {
  switch (category_) {
    case kCSharp:
      return "104";
    case kJavaScript:
      return "107";
    case kLua:
      return "106";
    default:
      return "102";
  }
}

bool KivCustomizedException::setCallStackSymbols(const Lines& lines, unsigned skipFrame) noexcept {
  if (lines.empty() || !callStackReturnSymbols_.empty()) {
    return false;
  }
  if (skipFrame == 0 || lines.size() <= skipFrame) {
    callStackReturnSymbols_ = lines;
    return true;
  }
  for (std::size_t at = skipFrame; at < lines.size(); ++at) {
    const std::string_view rest = withoutNumber(lines[at]);
    const bool isRenumbered = category_ == kCocoa && rest.size() != lines[at].size();
    callStackReturnSymbols_.append(isRenumbered ? core::kiv_format("%@ %@", std::uint64_t{at - skipFrame}, rest)
                                                : lines[at]);
  }
  return true;
}

std::shared_ptr<KivCrashData> KivCustomizedException::packet() const {
  auto data = std::make_shared<KivCrashData>();
  core::StringBuilder text;
  text.append(reason());
  if (!extraMessage_.empty()) {
    core::kiv_append(text, "\n\n***[%@]", core::joined(extraMessage_, "\n"));
  }
  data->setError(text.str());
  data->setUserMaps(extraInfo_);
  if (!callStackReturnSymbols_.empty()) {
    data->setErrorStack(core::joined(callStackReturnSymbols_, "\n"));
  }
  return data;
}

std::shared_ptr<KivCrashData> KivCustomizedException::packetCocoaCrashData() const {
  return exception_ == nullptr && error_ == nullptr && name().empty() ? nullptr : packet();
}

std::shared_ptr<KivCrashData> KivCustomizedException::packetCSharpCrashData() const {
  return packet();
}

std::shared_ptr<KivCrashData> KivCustomizedException::packetJSCrashData() const {
  return packet();
}

std::shared_ptr<KivCrashData> KivCustomizedException::packetLuaCrashData() const {
  return packet();
}

std::shared_ptr<KivCrashData> KivCustomizedException::packetOfCategory() const {
  switch (category_) {
    case kCocoa:
      return packetCocoaCrashData();
    case kCSharp:
      return packetCSharpCrashData();
    case kJavaScript:
      return packetJSCrashData();
    case kLua:
      return packetLuaCrashData();
    default:
      kiv_log_info("Not support data to report, %lu, %@, %@", category_, name(), reason());
      return nullptr;
  }
}

std::shared_ptr<KivCrashData> KivCustomizedException::packetCrashData() const {
  std::shared_ptr<KivCrashData> data = packetOfCategory();
  if (data == nullptr) {
    return nullptr;
  }
  const KivCrashData& process = KivCrashData::expData();
  data->setCustomizedException(true);
  data->setExp(std::make_shared<const KivCustomizedException>(*this));
  data->setHandler(core::String("Customized Exception Handler"));
  data->setTime(occurTime_);
  data->setType(core::String(name().empty() ? "Error" : name()));
  data->setAddress(core::String());
  data->setCrashThread(core::threadPort(core::threadId()));
  Map userData = data->userMaps();
  for (const auto& [key, value] : process.userMaps()) {
    userData.set(key, value);
  }
  data->setUserMaps(std::move(userData));
  data->setSceneData(process.sceneData());
  return data;
}

void KivCustomizedException::reportExceptionAndQuit(bool quit) const {
  if (const std::shared_ptr<KivCrashData> data = packetCrashData()) {
    KivCrashData::expData().setCurrentCustomizedCrashData(data);
    CrashHandling::current().crashHapped(data.get());
    KivCrashData::expData().setCurrentCustomizedCrashData(nullptr);
  }
  if (quit) {
    kiv_log_always("Application quit because of %@:%@", name(), reason());
    std::exit(0);
  }
}

KivCustomizedException::Lines KivCustomizedException::backtrace(int, unsigned skip) noexcept {
  return KivStackCollector::sharedInstance().traceOfCaller(skip);
}
