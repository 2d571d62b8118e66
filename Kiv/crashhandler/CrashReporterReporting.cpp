// The facade's second half: scenes and user data, the crash being handled, and what the
// program reports itself.

#include <signal.h>

#include <memory>

#include "Kiv/common/utils/KivLog.h"
#include "Kiv/compat/KivCustomizedException.h"
#include "Kiv/crashhandler/CrashReporterState.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Platform/Foundation/CallStack.h"
#include "Platform/Foundation/NSError.h"
#include "Platform/Foundation/NSException.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace {

using Text = std::optional<core::String>;
using Lines = KivCustomizedException::Lines;
using Map = KivCustomizedException::Map;

constexpr std::string_view kNotInstalled = "The sdk has not been initilized";
/// The frame of the facade itself.
constexpr unsigned kSkippedFrames = 1;

KivCrashData& crashData() noexcept {
  return KivCrashData::expData();
}

/// The crash data that a question about the current crash is answered from, nullptr for none:
/// an error being reported, else the process's own.
std::shared_ptr<const KivCrashData> questionedData() noexcept {
  std::shared_ptr<const KivCrashData> current = crashData().currentCustomizedCrashData();
  if (current == nullptr) {
    return {std::shared_ptr<void>(), &crashData()};  // never destroyed
  }
  return current->isCustomizedException() ? current : nullptr;
}

Map toMap(const CrashReporter::TextMap& entries) noexcept {
  Map made;
  for (const auto& [key, value] : entries) {
    made.set(std::string_view(key), core::String(value));
  }
  return made;
}

Lines splitLines(std::string_view text) noexcept {
  Lines lines;
  for (;;) {
    const std::size_t end = text.find('\n');
    lines.append(core::String(text.substr(0, end)));
    if (end == std::string_view::npos) {
      return lines;
    }
    text.remove_prefix(end + 1);
  }
}

/// Makes a report with `make` in the background and hands it on with the stack of the facade's
/// caller, which was captured by the facade.
template <class Make>
void reportInBackground(const std::vector<std::string>& stack, bool quit, Make make) {
  platform::DispatchQueue::global().async([make = std::move(make), quit, stack = toTexts(stack)] {
    if (const std::unique_ptr<KivCustomizedException> report = make()) {
      report->setCallStackSymbols(stack, kSkippedFrames);
      report->reportExceptionAndQuit(quit);
    }
  });
}

core::String joinedLines(const Lines& lines) noexcept {
  core::StringBuilder text;
  for (const core::String& line : lines) {
    if (!text.empty()) {
      text.append('\n');
    }
    text.append(line);
  }
  return text.str();
}

void logException(const NSException& exception) noexcept {
  Lines addresses;
  for (const std::uintptr_t address : exception.callStackReturnAddresses()) {
    addresses.append(core::kiv_format("%#018llx", std::uint64_t{address}));
  }
  kiv_log_info("Report an NSException: \n {\n%@ : %@ \nStack symbols: \n%@ \nStack address: \n%@ \n}", exception.name(),
               exception.reason(), joinedLines(toTexts(exception.callStackSymbols())), joinedLines(addresses));
}

/// The thread's frames with the names of functions as programmers write them.
core::String readableStack(const KivThreadInfo& thread) {
  core::StringBuilder text;
  std::uint32_t index = 0;
  for (const auto& frame : thread.threadStacks) {
    KivCrashAddrInfo shown = *frame;
    shown.fullLine = {};
    shown.index = index++;  // it holds the one that it had in the first stack it was met in
    const std::string line = shown.lineStr ? shown.lineStr->str() : "";
    const std::size_t nameEnd = line.find(' ');
    if (line.starts_with("_Z") && nameEnd != std::string::npos) {
      shown.lineStr = platform::demangledName(line.substr(0, nameEnd).c_str()) + line.substr(nameEnd);
    }
    core::kiv_append(text, "%@\n", shown.getFullStackLine());
  }
  return text.str();
}

}  // namespace

void CrashReporter::setSceneTag(unsigned long scene) {
  crashData().setScene(scene);
}

unsigned long CrashReporter::currentSceneTag() {
  return crashData().currentScene();
}

void CrashReporter::setSceneValue(std::string_view value, std::string_view key) {
  crashData().addSceneValue(core::optionalString(value), core::optionalString(key));
}

void CrashReporter::removeSceneValueForKey(std::string_view key) {
  crashData().removeSceneValueForKey(core::optionalString(key));
}

void CrashReporter::removeAllSceneValues() {
  crashData().removeAllSceneValues();
}

std::optional<std::string> CrashReporter::sceneValueForKey(std::string_view key) {
  return toStandard(crashData().sceneValueForKey(core::optionalString(key)));
}

CrashReporter::TextMap CrashReporter::allSceneValues() {
  TextMap values;
  for (const auto& [key, value] : crashData().allSceneValues()) {
    values.emplace(key.str(), value.str());
  }
  return values;
}

void CrashReporter::sessionEvent(std::string_view event) {
  crashData().appendSessionEvent(core::optionalString(event));
}

void CrashReporter::setUserData(std::string_view key, std::string_view value) {
  const std::shared_ptr<KivCrashData> current = crashData().currentCustomizedCrashData();
  KivCrashData& data = current != nullptr && current->isCustomizedException() ? *current : crashData();
  data.addUserMapData(core::optionalString(key), core::optionalString(value));
}

std::shared_ptr<const NSException> CrashReporter::getCurrentException() {
  const auto data = questionedData();
  return data != nullptr ? data->exp() : nullptr;
}

std::optional<std::string> CrashReporter::getCrashLog() {
  const auto data = questionedData();
  return data != nullptr ? toStandard(data->crashlog()) : std::nullopt;
}

std::optional<std::string> CrashReporter::getCrashStack() {
  const auto data = questionedData();
  return data != nullptr ? toStandard(data->crashStack()) : std::nullopt;
}

std::optional<std::string> CrashReporter::getCrashType() {
  const auto data = questionedData();
  return data != nullptr ? toStandard(data->type()) : std::nullopt;
}

std::string CrashReporter::currentThreadStacks() {
  KivStackCollector& collector = KivStackCollector::sharedInstance();
  collector.prepare();
  KivStackCollector::refresh();
  core::StringBuilder text;
  for (const KivThreadInfo& thread : collector.liveThreads()) {
    if (thread.threadName && !thread.threadName->empty()) {
      core::kiv_append(text, "Thread %d Name: %@\n", thread.threadIndex, thread.threadName);
    }
    core::kiv_append(text, "Thread %d:\n%@\n", thread.threadIndex, readableStack(thread));
  }
  return std::string(text.view());
}

void CrashReporter::reportError(const NSError* error, std::string_view reason, const TextMap& extraInfo) {
  if (error == nullptr || !State::installed) {
    return;
  }
  kiv_log_info("Report an NSError: \n%@", error->description());
  reportInBackground(platform::callStackSymbols(), false,
                     [error = *error, reason = core::optionalString(reason), extra = toMap(extraInfo)] {
                       return KivCustomizedException::exceptionWithNSError(error, reason, extra);
                     });
}

void CrashReporter::reportException(const NSException* exception, std::string_view reason, const TextMap& extraInfo) {
  if (exception == nullptr) {
    return;
  }
  if (!State::installed) {
    kiv_log_always("%@", kNotInstalled);
    return;
  }
  logException(*exception);
  reportInBackground(platform::callStackSymbols(), false,
                     [exception = *exception, reason = core::optionalString(reason), extra = toMap(extraInfo)] {
                       return KivCustomizedException::exceptionWithNSException(exception, reason, extra);
                     });
}

void CrashReporter::reportException(const NSException* exception, std::string_view message) {
  reportException(exception, message, {});
}

void CrashReporter::reportException(unsigned long category, std::string_view name, std::string_view reason,
                                    std::string_view callStack, const TextMap& extraInfo, bool terminateApp) {
  if (name.data() == nullptr && callStack.data() == nullptr) {
    return;
  }
  if (!State::installed) {
    kiv_log_always("%@", kNotInstalled);
    return;
  }
  const Text nameText = core::optionalString(name);
  const Text reasonText = core::optionalString(reason);
  const Text stackText = core::optionalString(callStack);
  kiv_log_info("Report an Exception: \n { \n%@ : %@ \nStack Trace: \n%@  \n}", nameText, reasonText, stackText);
  reportInBackground(platform::callStackSymbols(), terminateApp, [=, extra = toMap(extraInfo)] {
    const std::optional<Lines> lines = stackText ? std::optional(splitLines(*stackText)) : std::nullopt;
    return KivCustomizedException::exceptionWithType(category, nameText, reasonText, lines, extra);
  });
}

void CrashReporter::enableViewControllerTracking(bool) {}
void CrashReporter::enableConsoleLogReport(bool) {}
void CrashReporter::checkExtensionExceptions() {}
void CrashReporter::handleWatchKitExtensionRequest(const TextMap&, void (*)(const TextMap&)) {}

void CrashReporter::reportUnityExceptionWithName(std::string_view, std::string_view, std::string_view) {
  kiv_log_always("%@", kNotInstalled);
}

void CrashReporter::testThrowNSException() {
  kiv_log_always("[Test] sdk will throw an NSRangeException for test");
  throw NSException("NSRangeException", "index 2 is beyond the bounds of an array of 1 entry");
}

void CrashReporter::testSignalError() {
  kiv_log_always("[Test] sdk will throw a C++ error for test");
  raise(SIGSEGV);
}
