#pragma once

#include <cstddef>
#include <utility>
#include <variant>

namespace core {

/// Why bytes from outside could not be taken: a constant text and where the reader stood.
struct ParseError {
  const char* reason;
  std::size_t offset;
};

/// A value or the reason why there is none. Look before taking.
template <class T, class E = ParseError>
class [[nodiscard]] Result {
 public:
  Result(T value) noexcept : content_(std::in_place_index<0>, std::move(value)) {}
  Result(E error) noexcept : content_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const noexcept { return content_.index() == 0; }
  const T& operator*() const noexcept { return *std::get_if<0>(&content_); }
  T& operator*() noexcept { return *std::get_if<0>(&content_); }
  const T* operator->() const noexcept { return std::get_if<0>(&content_); }
  const E& error() const noexcept { return *std::get_if<1>(&content_); }

 private:
  std::variant<T, E> content_;
};

}  // namespace core
