#pragma once

#include <CLI/CLI.hpp>

/// `kiv decode FILE`: shows what is in a file of the reporter's or in what it sent.
class DecodeCommand {
 public:
  /// Adds the subcommand; it must outlive the parsing.
  explicit DecodeCommand(CLI::App& app);

  /// The exit status: 0, or 1 for a file that is damaged or cannot be read.
  int run() const;

  const CLI::App& app() const noexcept { return *app_; }

 private:
  CLI::App* app_;
  std::string file_;
  std::string type_;
  bool json_ = false;
};
