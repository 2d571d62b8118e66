#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "Core/Memory/Array.h"
#include "Core/Memory/Mutex.h"
#include "Kiv/common/model/KivLocalObjInitWithZemProtocol.h"

/// A model class as a value: its name and how one is made. Only of classes that a response can
/// bring can one be made.
struct KivModelClass {
  using Model = std::shared_ptr<KivLocalObjInitWithZemProtocol>;

  std::string_view name;
  Model (*make)() = nullptr;

  bool conformsToZemProtocol() const noexcept { return make != nullptr; }

  /// The class `T`, which has a kClassName.
  template <class T>
  static KivModelClass of() noexcept {
    KivModelClass made{T::kClassName};
    if constexpr (std::derived_from<T, KivLocalObjInitWithZemProtocol>) {
      made.make = []() -> Model { return std::make_shared<T>(); };
    }
    return made;
  }
};

/// Which model class decodes the payload of a response with which command number. Filled by
/// the modules when they start, asked when a response comes; any thread.
class KivProtocolDataRegister {
 public:
  static KivProtocolDataRegister& sharedInstance() noexcept;

  /// Replaces the key's class. A class without the protocol is refused with a line in the log;
  /// nil changes nothing.
  void registResponseObjectType(const std::optional<KivModelClass>& clazz, std::int32_t key) noexcept;
  std::optional<KivModelClass> getResponseObjectType(std::int32_t key) const noexcept;

 private:
  struct Row {
    std::int32_t key;
    KivModelClass clazz;
  };

  KivProtocolDataRegister() noexcept = default;
  ~KivProtocolDataRegister() = delete;

  mutable core::Mutex mutex_;
  core::Array<Row> rows_;
};
