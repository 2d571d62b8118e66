#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <vector>

#include "Kiv/common/KivModelBase.h"
#include "Tools/kiv/DecodeCommand.h"
#include "Tools/kiv/ShowCommand.h"

namespace {

constexpr int kUsageError = 2;

std::string versionText() {
  return "kiv " + KivModelBase::getDefualtAnaModel().sdkVersion().str();
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("The operator's tool of the Kiv crash and stall reporter.", "kiv");
  app.set_version_flag("--version", versionText, "Print the reporter's version");
  app.require_subcommand(1);
  const DecodeCommand decode(app);
  const ShowCommand show(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // A word that is no subcommand is what is wrong, not that there is none.
    const std::vector<std::string> unknown = app.remaining();
    const bool isUnknown = app.get_subcommands().empty() && !unknown.empty();
    return (isUnknown ? app.exit(CLI::ExtrasError(unknown)) : app.exit(error)) == 0 ? 0 : kUsageError;
  }
  return show.app().parsed() ? show.run() : decode.run();
}
