#include "Classes/OvalynOptions.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <map>

#include "CrashReporter.h"
#include "Platform/Foundation/Bundle.h"

namespace {

constexpr int kUsageError = 2;

std::string versionText() {
  const platform::Bundle& bundle = platform::Bundle::main();
  return "ovalyn " + bundle.infoString("CFBundleShortVersionString").value_or("(no version)").str() + " (Kiv " +
         CrashReporter::sharedInstance().sdkVersion() + ")";
}

}  // namespace

OvalynOptions OvalynOptions::parse(int argc, char** argv) {
  OvalynOptions options;
  CLI::App app("The Ovalyn video client.");
  app.set_version_flag("--version", versionText, "Print the versions of the client and of its reporter");
  app.add_option("--collect-url", options.collectUrl, "Send reports to this http or https URL")->option_text("URL");
  app.add_option("--quit-after", options.quitAfter, "End in order after this time")
      ->check(CLI::NonNegativeNumber)
      ->option_text("SECONDS");
  app.add_option("--simulate", options.simulation, "Go wrong on purpose: 'signal' writes through a null pointer")
      ->transform(CLI::CheckedTransformer(std::map<std::string, Simulation>{{"signal", Simulation::kSignal}}))
      ->option_text("KIND");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? 0 : kUsageError);
  }
  return options;
}
