#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "Tests/Support/Subprocess.h"

namespace test {

/// The end of a victim program, which lives beside the test and got a home directory of its own.
struct VictimEnd {
  Outcome outcome;
  std::chrono::steady_clock::duration time;
  std::vector<std::string> logs;  ///< what its crash logs say
};

VictimEnd runVictim(const std::string& program, const std::vector<std::string>& arguments);

std::size_t countOf(std::string_view text, std::string_view part);

}  // namespace test
