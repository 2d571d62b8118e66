#include "Classes/OvalynOptions.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <map>
#include <string>

#include "CrashReporter.h"
#include "Platform/Foundation/Bundle.h"

namespace {

constexpr int kUsageError = 2;

std::string versionText() {
  const platform::Bundle& bundle = platform::Bundle::main();
  return "ovalyn " + bundle.infoString("CFBundleShortVersionString").value_or("(no version)").str() + " (Kiv " +
         CrashReporter::sharedInstance().sdkVersion() + ")";
}

/// What is wrong with a text as a time, "" for nothing.
std::string isDuration(const std::string& text) {
  double seconds = 0;
  const bool number = CLI::detail::lexical_cast(text, seconds);
  return number && seconds >= 0 ? "" : "SECONDS is a number from 0 on, not " + text;
}

}  // namespace

OvalynOptions OvalynOptions::parse(int argc, char** argv) {
  OvalynOptions options;
  CLI::App app("The Ovalyn video client.");
  app.set_version_flag("--version", versionText, "Print the versions of the client and of its reporter");
  app.add_option("--collect-url", options.collectUrl, "Send reports to this http or https URL")->option_text("URL");
  app.add_option("--quit-after", options.quitAfter, "End in order after this time")
      ->check(isDuration)
      ->option_text("SECONDS");
  app.add_flag("--show-stacks", options.showStacks, "Print the stacks of all threads once the client runs");
  std::string kind;
  app.add_option("--simulate", kind,
                 "Go wrong on purpose: 'signal' writes through a null pointer, 'abort' gives up, "
                 "'exception' throws what nobody catches, 'hang' does as 'abort' and hangs while that is recorded")
      ->check(CLI::IsMember({"signal", "abort", "exception", "hang"}))
      ->option_text("KIND");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error) == 0 ? 0 : kUsageError);
  }
  if (!kind.empty()) {
    const std::map<std::string, Simulation> kinds = {{"signal", Simulation::kSignal},
                                                     {"abort", Simulation::kAbort},
                                                     {"exception", Simulation::kException},
                                                     {"hang", Simulation::kHang}};
    options.simulation = kinds.at(kind);
  }
  return options;
}
