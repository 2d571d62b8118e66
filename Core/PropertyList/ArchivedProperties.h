#pragma once

#include <array>
#include <concepts>
#include <limits>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Core/PropertyList/KeyedArchiveReader.h"
#include "Core/PropertyList/KeyedArchiveWriter.h"

/// Keyed archives of classes that list their properties once:
///
///     struct KivAppInfo {
///       static constexpr std::string_view kClassName = "KivAppInfo";
///       std::optional<core::String> version;
///       static constexpr auto kProperties = core::archive::properties(
///           core::archive::property("version", &KivAppInfo::version));
///     };
///     core::Data bytes = core::archive::archived(info);
///     auto read = core::archive::unarchived<KivAppInfo>(bytes.span());
///
/// A class whose superclass has properties too names it `Superclass`: the class's own come
/// first, then those of each superclass up to the root. Properties are texts, data, booleans,
/// integers, core::Array and core::Dictionary of these, of other such classes or of core::Value,
/// and std::optional for what may be nil. Crash-path safe.
namespace core::archive {

template <class Owner, class Member>
struct Property {
  std::string_view name;
  Member Owner::*member;
};

template <class Owner, class Member>
consteval Property<Owner, Member> property(std::string_view name, Member Owner::*member) {
  return {name, member};
}

template <class... Properties>
consteval std::tuple<Properties...> properties(Properties... list) {
  return {list...};
}

template <class T>
concept Archived = requires {
  T::kProperties;
  T::kClassName;
};

namespace detail {

template <class T>
concept Derived = requires {
  typename T::Superclass;
};

/// The class's name, its superclasses', and the root's.
template <class T>
consteval auto classNames() {
  if constexpr (Derived<T>) {
    constexpr auto kAbove = classNames<typename T::Superclass>();
    std::array<std::string_view, kAbove.size() + 1> names{T::kClassName};
    for (std::size_t i = 0; i < kAbove.size(); ++i) {
      names[i + 1] = kAbove[i];
    }
    return names;
  } else {
    return std::array<std::string_view, 2>{T::kClassName, "NSObject"};
  }
}

template <class T>
inline constexpr auto kClassNames = classNames<T>();

/// Calls `visit(property)` for each in turn while it answers true.
template <class T, class Visit>
bool visitProperties(Visit&& visit) noexcept {
  if (!std::apply([&](const auto&... each) { return (visit(each) && ...); }, T::kProperties)) {
    return false;
  }
  if constexpr (Derived<T>) {
    return visitProperties<typename T::Superclass>(visit);
  }
  return true;
}

// Writing. Declared ahead: containers hold objects, which hold containers.
template <Archived T>
Uid add(KeyedArchiveWriter& writer, const T& object) noexcept;
template <class T>
Uid add(KeyedArchiveWriter& writer, const Array<T>& items) noexcept;
template <class T>
Uid add(KeyedArchiveWriter& writer, const Dictionary<T>& entries) noexcept;

inline Uid add(KeyedArchiveWriter& writer, const String& text) noexcept {
  return writer.addText(text);
}
inline Uid add(KeyedArchiveWriter& writer, const Data& data) noexcept {
  return writer.addData(data);
}
inline Uid add(KeyedArchiveWriter& writer, const Value& value) noexcept {
  return writer.addValue(value);
}
template <std::integral T>
Uid add(KeyedArchiveWriter& writer, T number) noexcept {
  if constexpr (std::same_as<T, bool>) {
    return writer.addBoolean(number);
  } else {
    static_assert(std::is_signed_v<T>, "archived numbers are signed");
    return writer.addInteger(number);
  }
}
/// Nil where there is nothing.
template <class T>
Uid add(KeyedArchiveWriter& writer, const std::optional<T>& held) noexcept {
  return held ? add(writer, *held) : Uid{kNil};
}

template <class T>
Uid add(KeyedArchiveWriter& writer, const Array<T>& items) noexcept {
  const auto open = writer.openItems();
  for (const T& item : items) {
    writer.addItem(add(writer, item));
  }
  return writer.closeArray(open);
}

template <class T>
Uid add(KeyedArchiveWriter& writer, const Dictionary<T>& entries) noexcept {
  const auto open = writer.openItems();
  for (const auto& [key, value] : entries) {
    writer.addItem(writer.addText(key));
    writer.addItem(add(writer, value));
  }
  return writer.closeDictionary(open);
}

template <Archived T>
Uid add(KeyedArchiveWriter& writer, const T& object) noexcept {
  const auto open = writer.openObject();
  visitProperties<T>([&](const auto& property) {
    const Uid value = add(writer, object.*property.member);
    if (value.index != kNil) {
      writer.addProperty(property.name, value);
    }
    return true;
  });
  return writer.closeObject(open, kClassNames<T>);
}

// Reading: false after a failure, which the reader keeps. `object` is what resolve() answered.
template <Archived T>
bool read(KeyedArchiveReader& reader, const Value& object, T& target) noexcept;
template <class T>
bool read(KeyedArchiveReader& reader, const Value& object, Array<T>& items) noexcept;
template <class T>
bool read(KeyedArchiveReader& reader, const Value& object, Dictionary<T>& entries) noexcept;

inline bool read(KeyedArchiveReader& reader, const Value& object, String& text) noexcept {
  const String* found = reader.text(object);
  return found != nullptr && (text = *found, true);
}
inline bool read(KeyedArchiveReader& reader, const Value& object, Data& data) noexcept {
  const Data* found = reader.data(object);
  return found != nullptr && (data = *found, true);
}
inline bool read(KeyedArchiveReader& reader, const Value& object, Value& value) noexcept {
  std::optional<Value> found = reader.value(object);
  return found && (value = std::move(*found), true);
}
template <std::integral T>
bool read(KeyedArchiveReader& reader, const Value& object, T& number) noexcept {
  using Limits = std::numeric_limits<T>;
  const std::optional<std::int64_t> found = reader.integer(object, Limits::min(), Limits::max());
  return found && (number = static_cast<T>(*found), true);
}
template <class T>
bool read(KeyedArchiveReader& reader, const Value& object, std::optional<T>& held) noexcept {
  T fresh{};
  return read(reader, object, fresh) && (held = std::move(fresh), true);
}

/// An item of a collection, which cannot be nil unless it is any value.
template <class T>
bool readItem(KeyedArchiveReader& reader, const Value& reference, T& item) noexcept {
  const Value* object = reader.resolve(reference);
  return object != nullptr && read(reader, *object, item);
}

template <class T>
bool read(KeyedArchiveReader& reader, const Value& object, Array<T>& items) noexcept {
  const KeyedArchiveReader::Level level(reader);
  const ValueArray* references = level ? reader.items(object) : nullptr;
  if (references == nullptr) {
    return false;
  }
  items.clear();
  items.reserve(references->size());
  for (const Value& reference : *references) {
    if (!readItem(reader, reference, items.emplace())) {
      return false;
    }
  }
  return true;
}

template <class T>
bool read(KeyedArchiveReader& reader, const Value& object, Dictionary<T>& entries) noexcept {
  const KeyedArchiveReader::Level level(reader);
  const auto references = level ? reader.entries(object) : std::nullopt;
  if (!references) {
    return false;
  }
  entries.clear();
  for (std::size_t i = 0; i < references->keys->size(); ++i) {
    String key;
    T value;
    if (!readItem(reader, (*references->keys)[i], key) || !readItem(reader, (*references->values)[i], value)) {
      return false;
    }
    entries.set(key, std::move(value));
  }
  return true;
}

template <Archived T>
bool read(KeyedArchiveReader& reader, const Value& object, T& target) noexcept {
  const KeyedArchiveReader::Level level(reader);
  const ValueDictionary* found = level ? reader.object(object, T::kClassName) : nullptr;
  return found != nullptr && visitProperties<T>([&](const auto& property) {
           const Value* reference = found->find(property.name);
           if (reference == nullptr) {
             return true;
           }
           const Value* value = reader.resolve(*reference);
           return value != nullptr && (value->isNull() || read(reader, *value, target.*property.member));
         });
}

}  // namespace detail

/// The keyed archive of `object`. Nil properties are left out.
template <Archived T>
Data archived(const T& object) noexcept {
  KeyedArchiveWriter writer;
  return writer.write(detail::add(writer, object));
}

/// `object` with what the archive holds; properties that are not there stay as they are.
template <Archived T>
Result<T, ArchiveError> unarchived(std::span<const std::uint8_t> bytes, T object = T()) noexcept {
  KeyedArchiveReader reader(bytes);
  const Value* root = reader.root();
  if (root == nullptr || !detail::read(reader, *root, object)) {
    return ArchiveError{reader.error()};
  }
  return object;
}

}  // namespace core::archive
