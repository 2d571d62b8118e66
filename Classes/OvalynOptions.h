#pragma once

#include <optional>
#include <string>

/// What the client was asked to do on its command line.
struct OvalynOptions {
  enum class Simulation { kNone, kSignal, kAbort, kException, kHang };

  std::string collectUrl;           ///< empty for the bundle's own
  std::optional<double> quitAfter;  ///< seconds from the start of the main loop
  Simulation simulation = Simulation::kNone;
  bool showStacks = false;  ///< print the stacks of all threads once the main loop runs

  /// Reads the command line. Prints help, the version or what is wrong with it, and then ends
  /// the process: with status 0, or 2 for a usage error.
  static OvalynOptions parse(int argc, char** argv);
};
