#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "Core/Memory/Result.h"
#include "Core/PropertyList/KeyedArchive.h"
#include "Core/PropertyList/Value.h"

namespace core::archive {

/// Reads one keyed archive of any source: ArchivedProperties.h for classes that list their
/// properties, readKeyedArchive for what has no class here.
///
/// Every step may fail: it then answers nothing, and error() says why, the first failure for good.
/// Circles and depth end at kDepth; objects that many refer to cost their share each time, and
/// the sum is bounded by the archive's size. Texts and data share the decoded file's memory.
/// Crash-path safe.
class KeyedArchiveReader {
 public:
  explicit KeyedArchiveReader(std::span<const std::uint8_t> bytes) noexcept;
  KeyedArchiveReader(const KeyedArchiveReader&) = delete;
  KeyedArchiveReader& operator=(const KeyedArchiveReader&) = delete;

  /// A constant text, nullptr while all went well.
  const char* error() const noexcept { return error_; }
  std::nullptr_t fail(const char* reason) noexcept;

  /// The root object; nullptr when the archive cannot be read at all.
  const Value* root() noexcept;

  /// What a reference means: null for nil; anything but a UID stands for itself.
  const Value* resolve(const Value& reference) noexcept;

  // Of what resolve() answered:
  const String* text(const Value& object) noexcept;
  const Data* data(const Value& object) noexcept;
  /// A number without fraction, or a boolean as 0 or 1, from `least` to `most`.
  std::optional<std::int64_t> integer(const Value& object, std::int64_t least, std::int64_t most) noexcept;
  /// The properties of an object of the class or a subclass.
  const ValueDictionary* object(const Value& object, std::string_view className) noexcept;
  /// References to the items of an array (also a set), or to keys and values, equally many.
  const ValueArray* items(const Value& object) noexcept;
  struct Entries {
    const ValueArray* keys;
    const ValueArray* values;
  };
  std::optional<Entries> entries(const Value& object) noexcept;
  /// Anything, as readKeyedArchive shows it.
  std::optional<Value> value(const Value& object) noexcept;

  /// Held while the inside of an object is read; false, and a failure, beyond kDepth.
  class [[nodiscard]] Level {
   public:
    explicit Level(KeyedArchiveReader& reader) noexcept : reader_(reader) {
      if (++reader_.depth_ > kDepth) {
        reader_.fail("objects are too deeply nested, or contain themselves");
      }
    }
    Level(const Level&) = delete;
    Level& operator=(const Level&) = delete;
    ~Level() { --reader_.depth_; }
    explicit operator bool() const noexcept { return reader_.depth_ <= kDepth; }

   private:
    KeyedArchiveReader& reader_;
  };

 private:
  bool spend(std::size_t steps) noexcept;
  const ValueDictionary* classOf(const ValueDictionary& object) noexcept;
  bool isKind(const ValueDictionary& classObject, std::string_view name) noexcept;
  const Value* property(const Value& object, std::string_view className, std::string_view name) noexcept;
  const ValueArray* arrayProperty(const Value& object, std::string_view className, std::string_view name) noexcept;
  std::optional<Value> valueOfItems(const Value& object) noexcept;
  std::optional<Value> valueOfEntries(const Value& object) noexcept;
  std::optional<Value> valueOfObject(const ValueDictionary& object, const ValueDictionary& classObject) noexcept;
  std::optional<Value> valueAt(const Value& reference) noexcept;

  Value file_;
  const Value null_;
  const ValueArray* objects_ = nullptr;
  const Value* root_ = nullptr;
  const char* error_ = nullptr;
  std::uint64_t budget_;  // steps left
  int depth_ = 0;
};

/// Why an archive could not be read: a constant text.
struct ArchiveError {
  const char* reason;
};

/// Any keyed archive as plain values, for showing: an object is a dictionary with the name of
/// its class under "$class".
Result<Value, ArchiveError> readKeyedArchive(std::span<const std::uint8_t> bytes) noexcept;

}  // namespace core::archive
