#include "Core/Kernel/Unwind/StackWindow.h"

#include <algorithm>

namespace core {
namespace {

constexpr std::size_t kPage = 4096;

}  // namespace

std::size_t StackWindow::nextFill(std::uint64_t address) const noexcept {
  if (words_ != 0) {
    return block_.size();
  }
  return std::min(2 * kPage - address % kPage, block_.size());
}

bool StackWindow::readAside(std::uint64_t address, std::uint64_t& into) noexcept {
  if (block_.empty()) {
    isShort_ = true;
    return false;
  }
  if (address < start_) {
    return memory_.read(address, &into, sizeof into);
  }
  const std::size_t count = memory_.readFront(address, block_.data(), nextFill(address));
  if (count < sizeof into) {
    leave();
    return false;
  }
  start_ = address;
  words_ = wordsIn(count);
  std::memcpy(&into, block_.data(), sizeof into);
  return true;
}

}  // namespace core
