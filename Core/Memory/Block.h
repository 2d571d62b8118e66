#pragma once

#include <new>
#include <type_traits>
#include <utility>

#include "Core/Memory/Allocator.h"

namespace core {

template <class Signature>
class Block;

/// A copyable callable with its captures, allocated with core::allocate; copying copies the
/// captures. An empty one is false and must not be called.
template <class R, class... A>
class Block<R(A...)> {
 public:
  Block() noexcept = default;
  Block(std::nullptr_t) noexcept {}
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, Block> && std::is_invocable_r_v<R, F&, A...>) Block(F&& callable)
  noexcept : closure_(Closure<std::decay_t<F>>::make(std::forward<F>(callable))) {}
  Block(const Block& other) noexcept : closure_(other.closure_ != nullptr ? other.closure_->copy() : nullptr) {}
  Block(Block&& other) noexcept : closure_(std::exchange(other.closure_, nullptr)) {}
  Block& operator=(Block other) noexcept {
    std::swap(closure_, other.closure_);
    return *this;
  }
  ~Block() {
    if (closure_ != nullptr) {
      closure_->destroy();
    }
  }

  explicit operator bool() const noexcept { return closure_ != nullptr; }
  R operator()(A... arguments) const { return closure_->call(std::forward<A>(arguments)...); }

 private:
  struct Base {
    virtual R call(A... arguments) = 0;
    virtual Base* copy() const noexcept = 0;
    virtual void destroy() noexcept = 0;

   protected:
    ~Base() = default;
  };
  template <class F>
  struct Closure final : Base {
    explicit Closure(F made) noexcept : function(std::move(made)) {}
    static Base* make(F function) noexcept {
      return new (core::allocate(sizeof(Closure))) Closure(std::move(function));
    }
    R call(A... arguments) override { return static_cast<R>(function(std::forward<A>(arguments)...)); }
    Base* copy() const noexcept override { return make(function); }
    void destroy() noexcept override {
      this->~Closure();
      core::deallocate(this);
    }
    F function;
  };

  Base* closure_ = nullptr;
};

}  // namespace core
