// Runs the operations that its command line names, in order: "operation" or "operation=argument".
// The tests look at what it prints, logs and leaves behind.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/network/KivCollectEndpoint.h"
#include "Kiv/common/utils/KivBundleUtil.h"
#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Kiv/crashhandler/CrashReporter.h"
#include "Platform/Foundation/NSError.h"
#include "Platform/Foundation/NSException.h"
#include "Platform/RunLoop/DispatchQueue.h"
#include "Platform/RunLoop/RunLoop.h"
#include "Tests/Kiv/CrashScenes.h"
#include "Tests/Kiv/ModuleOperations.h"

namespace {

using Argument = const std::string&;

CrashReporter& reporter() {
  return CrashReporter::sharedInstance();
}

KivModelBase& model() {
  return KivModelBase::getDefualtAnaModel();
}

std::string show(const KivModelBase::Text& text) {
  return text ? text->str() : "(nil)";
}

void print(const std::string& text) {
  std::cout << text << std::endl;
}

/// One property of the model by name.
std::string property(const std::string& name) {
  static const std::map<std::string, std::function<std::string()>> kProperties = {
      {"appId", [] { return show(model().appId()); }},
      {"appVersion", [] { return model().appVersion().str(); }},
      {"bundleId", [] { return show(model().bundleId()); }},
      {"channel", [] { return show(model().channel()); }},
      {"userid", [] { return show(model().userid()); }},
      {"openudid", [] { return show(model().openudid()); }},
      {"vorin", [] { return show(model().vorin()); }},
      {"pIdentity", [] { return show(model().pIdentity()); }},
      {"sdkVersion", [] { return model().sdkVersion().str(); }},
      {"gatewayIP", [] { return show(model().gatewayIP()); }},
      {"strategyStatus", [] { return show(model().strategyStatus()); }},
      {"processName", [] { return show(model().processName()); }},
      {"versionChanged", [] { return std::string(model().isVersionChanged() ? "YES" : "NO"); }},
      {"localUrl", [] { return KivCollectEndpoint::url().str(); }},
      {"host", [] { return KivCollectEndpoint::host().str(); }},
      {"components", [] { return model().componentInfos().str(); }},
      {"dataFile", [] { return model().getKey("note") ? show(*model().getKey("note")->string()) : "(nil)"; }},
      {"allowsArbitraryLoads", [] { return std::string(KivBundleUtil::isATSAllowsArbitraryLoads() ? "YES" : "NO"); }},
  };
  return kProperties.at(name)();
}

/// Twenty threads set everything there is while one installs and uninstalls.
void hammerSetters() {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 20; ++i) {
    threads.emplace_back([i, &stop] {
      for (int n = 0; !stop; ++n) {
        const std::string text = "value" + std::to_string(i) + "-" + std::to_string(n % 7);
        reporter().setUserId(text);
        reporter().setChannel(text);
        reporter().setBundleVer(n % 2 == 0 ? "1.0" : "2.0");
        reporter().setAttachLog(text);
        reporter().setExcludeShortName({text});
        reporter().setUserData("key", text);
        reporter().sessionEvent(text);
        model().addExtraValue(core::String(text), core::String("k" + std::to_string(n % 30)));
        model().removeExtraValueForKey("C04_SDK_k1");
      }
    });
  }
  for (int n = 0; n < 25; ++n) {
    reporter().installWithAppkey("hammer");
    reporter().uninstall();
  }
  stop = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

const test::Operations kOperations = {
    {"log", [](Argument a) { reporter().enableLog(a == "1"); }},
    {"install", [](Argument) { print(reporter().install() ? "YES" : "NO"); }},
    {"appkey", [](Argument a) { print(reporter().installWithAppkey(a) ? "YES" : "NO"); }},
    {"nilkey", [](Argument) { print(reporter().installWithAppkey({}) ? "YES" : "NO"); }},
    {"uninstall", [](Argument) { reporter().uninstall(); }},
    {"show", [](Argument a) { print(property(a)); }},
    {"version", [](Argument a) { reporter().setBundleVer(a); }},
    {"url", [](Argument a) { print(reporter().setCollectUrl(a) ? "YES" : "NO"); }},
    {"move", [](Argument a) { print(reporter().resetDBPath(a) ? "YES" : "NO"); }},
    {"persist", [](Argument a) { model().persistKey("note", core::Value(core::String(a))); }},
    {"status", [](Argument a) { model().setStrategyStatus(a.empty() ? KivModelBase::Text() : core::String(a)); }},
    {"vorin", [](Argument a) { model().setVorin(core::String(a)); }},
    {"clean", [](Argument) { reporter().cleanUncaughtExceptionAndSignalHandler(); }},
    {"ats", [](Argument a) { reporter().enableAppTransportSecurity(a == "1"); }},
    {"unity", [](Argument) { reporter().reportUnityExceptionWithName("n", "r", "s"); }},
    {"report-nil",
     [](Argument) {
       reporter().reportException(nullptr, "message");
       reporter().reportError(nullptr, "reason", {});
       reporter().reportException(3, {}, "reason", {}, {}, false);
     }},
    {"report-error",
     [](Argument) {
       const NSError error("Domain", 7, "It failed");
       reporter().reportError(&error, "reason", {});
     }},
    {"report-named", [](Argument) { reporter().reportException(5, {}, {}, "line 1\nline 2", {}, false); }},
    {"report-exception",
     [](Argument) {
       const NSException exception("Name", "why");
       reporter().reportException(&exception, "message");
     }},
    {"hammer", [](Argument) { hammerSetters(); }},
    {"last-crash", [](Argument) { print(reporter().isLastCloseByCrash() ? "crash" : "(none)"); }},
    {"disable-signals", [](Argument) { reporter().enableSignalErrorReporter(false); }},
    {"check-signals", [](Argument) { print(reporter().checkSignalHandler() ? "YES" : "NO"); }},
    {"check-exceptions", [](Argument) { print(reporter().checkNSExceptionHandler() ? "YES" : "NO"); }},
    {"test-signal", [](Argument) { reporter().testSignalError(); }},
    {"test-exception", [](Argument) { reporter().testThrowNSException(); }},
    {"overflow-thread", [](Argument) { test::overflowOnceGivenAStack(); }},
    {"crash", [](Argument a) { test::crash(a); }},
    {"user", [](Argument a) { reporter().setUserId(a); }},
    {"device", [](Argument a) { reporter().setDeviceId(a); }},
    {"detect", [](Argument a) { reporter().enableUnexpectedTerminatingDetection(a == "1"); }},
};

/// nullptr where no table has it.
const std::function<void(Argument)>* operationOf(Argument name) {
  for (const test::Operations* table : {&kOperations, &test::moduleOperations()}) {
    if (const auto found = table->find(name); found != table->end()) {
      return &found->second;
    }
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  prctl(PR_SET_DUMPABLE, 0);  // no core files from the crashes made here
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const std::size_t split = word.find('=');
    const auto* const operation = operationOf(word.substr(0, split));
    if (operation == nullptr) {
      std::cerr << "no operation " << word << "\n";
      return 2;
    }
    (*operation)(split == std::string::npos ? "" : word.substr(split + 1));
  }
  return 0;
}
