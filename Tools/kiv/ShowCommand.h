#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

#include "Tools/kiv/CrashLookup.h"

/// `kiv show [ID] [DIR]`: lists the crashes and stalls that are stored, or shows the log of one, or what
/// a process's journal holds.
class ShowCommand {
 public:
  /// Adds the subcommand; it must outlive the parsing.
  explicit ShowCommand(CLI::App& app);

  /// The exit status: 0, 1 where something could not be shown, 2 for a wrong command line.
  int run() const;

  const CLI::App& app() const noexcept { return *app_; }

 private:
  /// Of all programs when `only` is empty. What cannot be listed is told, and sets `status`.
  std::vector<DataDirectory> readDirectories(const std::string& only, int& status) const;
  int list(const std::vector<DataDirectory>& directories) const;
  int showJournal() const;
  int showOne(const std::vector<DataDirectory>& directories) const;

  CLI::App* app_;
  std::string id_;
  std::string directory_;
  std::string journal_;
  std::string color_ = "auto";
  bool json_ = false;
};
