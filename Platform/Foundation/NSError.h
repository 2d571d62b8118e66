#pragma once

#include <string>
#include <utility>

/// What went wrong in an operation: a domain, a code in it and a sentence for people. Made by
/// whoever fails, read by whoever reports; an unchanging value.
class NSError {
 public:
  NSError(std::string domain, long code, std::string localizedDescription = {})
      : domain_(std::move(domain)), code_(code), localizedDescription_(std::move(localizedDescription)) {}

  const std::string& domain() const noexcept { return domain_; }
  long code() const noexcept { return code_; }
  const std::string& localizedDescription() const noexcept { return localizedDescription_; }

  /// One line for a log, e.g. Error Domain=KivErrorDomain Code=7 "bad answer".
  std::string description() const {
    const std::string place = "Error Domain=" + domain_ + " Code=" + std::to_string(code_);
    return localizedDescription_.empty() ? place : place + " \"" + localizedDescription_ + "\"";
  }

 private:
  std::string domain_;
  long code_;
  std::string localizedDescription_;
};
