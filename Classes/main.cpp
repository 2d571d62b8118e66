#include <signal.h>

#include <cstdio>
#include <iostream>

#include "Classes/OvalynOptions.h"
#include "Classes/Simulation.h"
#include "CrashReporter.h"
#include "Platform/RunLoop/RunLoop.h"

namespace {

void endInOrder(int) {
  platform::RunLoop::main().stopFromSignal();
}

/// Late enough for the functions to have names: the reporter reads them in the background.
constexpr double kSimulationDelay = 0.2;

void (*simulationOf(const OvalynOptions& options))() {
  switch (options.simulation) {
    case OvalynOptions::Simulation::kSignal:
      return simulateSignal;
    case OvalynOptions::Simulation::kAbort:
    case OvalynOptions::Simulation::kHang:
      return simulateAbort;
    case OvalynOptions::Simulation::kException:
      return simulateException;
    default:
      return nullptr;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const OvalynOptions options = OvalynOptions::parse(argc, argv);
  platform::RunLoop& loop = platform::RunLoop::main();
  loop.attach();  // from here on its work is this thread's, also before it runs
  CrashReporter& reporter = CrashReporter::sharedInstance();
  if (!options.collectUrl.empty() && !reporter.setCollectUrl(options.collectUrl)) {
    std::cerr << "ovalyn: --collect-url takes an http or https URL, not " << options.collectUrl << "\n";
    return 2;
  }
  reporter.setEnableSymbolicateInProcess(true);
  if (options.simulation == OvalynOptions::Simulation::kHang) {
    reporter.setUserCrashHandlerCallback(simulateHang);
  }
  if (!reporter.install()) {
    std::cerr << "ovalyn: the crash reporter is not installed; crashes of this run are not reported\n";
  }
  std::cout << "Device " << reporter.deviceIdentifier() << ", reporter " << reporter.sdkVersion() << std::endl;
  if (reporter.isLastCloseByCrash()) {
    std::cout << "The run before crashed" << std::endl;
  }

  signal(SIGTERM, endInOrder);
  signal(SIGINT, endInOrder);
  if (options.quitAfter) {
    loop.performAfter(*options.quitAfter, [&loop] { loop.stop(); });
  }
  if (options.showStacks) {
    loop.performAfter(0, [&reporter] { std::cout << reporter.currentThreadStacks() << std::flush; });
  }
  if (void (*const simulate)() = simulationOf(options)) {
    loop.performAfter(kSimulationDelay, simulate);
  }
  loop.run();
  return 0;
}
