#pragma once

#include <stdlib.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

namespace test {

/// Environment variables of the test's own process, put back at the end.
class EnvironmentChange {
 public:
  using Variables = std::map<std::string, std::optional<std::string>>;

  /// One without a value is taken away.
  EnvironmentChange(const char* name, std::optional<std::string> value)
      : EnvironmentChange(Variables{{name, std::move(value)}}) {}
  explicit EnvironmentChange(const Variables& variables) {
    for (const auto& [name, value] : variables) {
      const char* held = ::getenv(name.c_str());
      before_[name] = held != nullptr ? std::optional<std::string>(held) : std::nullopt;
    }
    set(variables);
  }
  EnvironmentChange(const EnvironmentChange&) = delete;
  EnvironmentChange& operator=(const EnvironmentChange&) = delete;
  ~EnvironmentChange() { set(before_); }

 private:
  static void set(const Variables& variables) {
    for (const auto& [name, value] : variables) {
      value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
    }
  }

  Variables before_;
};

}  // namespace test
