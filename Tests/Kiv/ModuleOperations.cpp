#include "Tests/Kiv/ModuleOperations.h"

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <list>
#include <thread>
#include <utility>

#include "Core/Kernel/Process.h"
#include "Core/Text/Format.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/KivProtocolDataRegister.h"
#include "Kiv/compat/KivCustomizedException.h"
#include "Kiv/crashhandler/KivCrashModule.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/persist/KivCrashHandler.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/RunLoop/RunLoop.h"

namespace test {
namespace {

using Argument = const std::string&;

class InlineQueue final : public platform::DispatchQueue {
 public:
  void holdAll() { holdsAll_ = true; }
  void runDelayed() {
    for (const Block& block : std::exchange(delayed_, {})) {
      block();
    }
  }

 private:
  void send(Block block) override {
    if (holdsAll_) {
      delayed_.push_back(std::move(block));
    } else {
      block();
    }
  }
  void sendAfter(double, Block block) override { delayed_.push_back(std::move(block)); }
  std::list<Block> delayed_;
  bool holdsAll_ = false;
};

template <class... A>
void print(core::FormatString<std::type_identity_t<A>...> format, const A&... arguments) {
  std::cout << core::kiv_format(format, arguments...).view() << std::endl;
}

void print(bool value) {
  print("%s", value ? "YES" : "NO");
}

/// Prints reports instead of saving them.
class PrintedReports final : public CrashHandling {
  void setCrashAccidentHappen(bool) noexcept override {}
  bool isCrashAccidentHappen() const noexcept override { return false; }
  void stopStallMonitor() noexcept override {}
  void uninstallHandler() noexcept override {}
  bool crashHapped(KivCrashData* data) noexcept override {
    const auto* const report = KivCustomizedException::in(*data);
    const core::String log = report->attachmentLog().value_or("(nil)");
    print("%lu %@: %@ [%llu] %@..%@ %llu", report->category(), data->type(), data->error(),
          std::uint64_t{report->callStackReturnSymbols().size()}, core::firstCharacters(log, 1),
          core::lastCharacters(log, 1), std::uint64_t{log.characters()});
    return true;
  }
};

KivCrashModule& module() {
  return KivCrashModule::sharedInstance();
}

InlineQueue& queue() {
  static InlineQueue queue;
  return queue;
}

/// The strategy that "process" takes.
KivLocalStrategy& draft() {
  static KivLocalStrategy strategy;
  return strategy;
}

std::string& killedLog() {
  static std::string log;
  return log;
}

/// The module's own queues, and the kernel's files where `directory` says or in their place.
void hold(Argument directory) {
  platform::RunLoop::main().attach();
  KivCrashModule::Surroundings surroundings{&queue(), &queue(), {}};
  if (!directory.empty()) {
    surroundings.files.proc = core::String(directory);
  }
  module().setSurroundings(surroundings);
}

/// "name:value" into the draft.
void setField(Argument field) {
  static const std::map<std::string, KivLocalStrategy::Text KivLocalStrategy::*> kTexts = {
      {"url", &KivLocalStrategy::url},
      {"expUrl", &KivLocalStrategy::expUrl},
      {"httpsUrl", &KivLocalStrategy::httpsUrl},
      {"httpsExpUrl", &KivLocalStrategy::httpsExpUrl}};
  const std::string name = field.substr(0, field.find(':'));
  const core::String value = field.substr(field.find(':') + 1);
  if (const auto text = kTexts.find(name); text != kTexts.end()) {
    draft().*text->second = value;
  } else if (name == "enable") {
    draft().enable = value == "1";
  } else {
    draft().valueMap.set(std::string_view(name), value);
  }
}

/// The program's text for a run that was killed; nullptr for one of no characters.
void setKilledLog(Argument characters) {
  killedLog().clear();
  for (int i = 0; i < std::stoi(characters); ++i) {
    killedLog() += i == 0 ? "x" : "é";
  }
  module().setSigkillReportCallback([] { return killedLog().empty() ? nullptr : killedLog().c_str(); });
}

/// Prints which of the model's moments are now: entering the background, resuming, the last record;
/// and whether it counts as resumed since the start.
void enter(void (KivCrashModule::*side)() noexcept) {
  std::this_thread::sleep_for(std::chrono::milliseconds(3));
  const KivModelBase& model = KivModelBase::getDefualtAnaModel();
  const std::int64_t before = core::wallClockNanoseconds() / 1'000'000;
  (module().*side)();
  print("%d %d %d %d", int{model.backGroundTime() >= before}, int{model.resumeTime() >= before},
        int{model.lastRecordTime() >= before}, int{model.resumeTime() == model.startTime()});
}

void printSummaries(Argument) {
  for (const KivSummaryInfo& summary : KivFilePersistHandler::sharedInstance().getAllDatas()) {
    print("%d %@ %@ %d %lld", int{summary.startType}, summary.userid, summary.proc,
          int{summary.startTime == summary.time}, summary.time % 1000);
  }
}

}  // namespace

const Operations& moduleOperations() {
  static PrintedReports reports;
  static const Operations kOperations = {
      {"held", hold},
      {"held-background",
       [](Argument) {
         hold("");
         queue().holdAll();
       }},
      {"later", [](Argument) { queue().runDelayed(); }},
      {"post",
       [](Argument name) {
         platform::NotificationCenter::defaultCenter().post(core::String(name));
         platform::RunLoop::main().drain();
       }},
      {"print-reports", [](Argument) { CrashHandling::setCurrent(reports); }},
      {"killed-log", setKilledLog},
      {"memory-warning", [](Argument) { module().didReceiveMemoryWarning({}); }},
      {"report-exit", [](Argument) { module().reportUnexpectExit(false); }},
      {"kill", [](Argument) { raise(SIGKILL); }},
      {"field", setField},
      {"process", [](Argument) { print(module().processStrategy(&draft())); }},
      {"want", [](Argument a) { module().setUserEnabled(a == "1"); }},
      {"merges", [](Argument) { print(KivCrashHandler::sharedInstance().isExpMergeUpload()); }},
      {"urls",
       [](Argument) {
         print("%@|%@|%@|%@", module().strategyUrl(0), module().strategyUrl(1), module().targetUrl(0),
               module().targetUrl(1));
       }},
      {"await-file",
       [](Argument path) {
         while (!std::filesystem::exists(path)) {
           std::this_thread::yield();
         }
       }},
      {"await-no-file",
       [](Argument path) {
         while (std::filesystem::exists(path)) {
           std::this_thread::yield();
         }
       }},
      {"clean-strategy", [](Argument) { module().cleanLocalStrategy(); }},
      {"foreground", [](Argument) { enter(&KivCrashModule::appEnterForeground); }},
      {"background", [](Argument) { enter(&KivCrashModule::appEnterBackground); }},
      {"make-summary", [](Argument) { print(module().creatSummaryInfo(4, 0).has_value()); }},
      {"summaries", printSummaries},
      {"response-class",
       [](Argument) {
         module();
         const auto type = KivProtocolDataRegister::sharedInstance().getResponseObjectType(510);
         print("%@", type ? type->name : "(nil)");
       }},
  };
  return kOperations;
}

}  // namespace test
