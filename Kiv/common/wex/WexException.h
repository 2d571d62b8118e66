#pragma once

#include <stdexcept>

namespace analyticsyut {

/// What the tagged format throws. Whoever calls from outside the protocol catches it there:
/// none reaches the application.
class WexException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace analyticsyut
