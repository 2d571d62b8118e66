#pragma once

#include <span>
#include <string_view>

#include "Core/PropertyList/BinaryPropertyListObjects.h"
#include "Core/PropertyList/KeyedArchive.h"
#include "Core/PropertyList/Value.h"

namespace core::archive {

/// Writes one keyed archive, object by object, straight into the table of the file. Equal leaves
/// are kept once. ArchivedProperties.h calls it for classes that list their properties.
///
/// Everything that is added is borrowed until write() has returned. Crash-path safe.
class KeyedArchiveWriter {
 public:
  /// Name of a class and of its superclasses up to the root.
  using ClassNames = std::span<const std::string_view>;

  KeyedArchiveWriter() noexcept;
  KeyedArchiveWriter(const KeyedArchiveWriter&) = delete;
  KeyedArchiveWriter& operator=(const KeyedArchiveWriter&) = delete;

  Uid addText(std::string_view text) noexcept { return uidOf(table_.addText(text)); }
  Uid addInteger(std::int64_t value) noexcept { return uidOf(table_.addInteger(value)); }
  Uid addBoolean(bool value) noexcept { return uidOf(table_.addBoolean(value)); }
  Uid addData(const Data& data) noexcept { return uidOf(table_.addData(data.span())); }
  /// Anything a property list holds. UIDs, and what lies deeper than kDepth, become nil.
  Uid addValue(const Value& value) noexcept;

  /// An object of its own properties: between open and close come, for each, a key and a value.
  /// Others may be opened and closed in between. An object deeper than kDepth becomes nil.
  struct Open {
    Uid uid;
    std::size_t mark;
  };
  Open openObject() noexcept;
  void addProperty(std::string_view key, Uid value) noexcept;
  Uid closeObject(Open open, ClassNames names) noexcept;

  /// An array or dictionary: between open and close come the items, or keys and values in turn.
  Open openItems() noexcept { return openObject(); }
  void addItem(Uid item) noexcept { pending_.append(table_.addUid(item.index)); }
  Uid closeArray(Open open) noexcept;
  Uid closeDictionary(Open open) noexcept;

  /// The archive of `root`.
  Data write(Uid root) noexcept;

 private:
  using Number = bplist::ObjectTable::Number;

  Uid newUid() noexcept;
  Uid uidOf(Number leaf) noexcept;
  Uid classOf(ClassNames names) noexcept;
  Uid addDate(const Date& date) noexcept;
  void forgetPending(std::size_t mark) noexcept;
  Number arrayOfPending(std::size_t first, std::size_t step) noexcept;
  void addContent(std::string_view key, Number content) noexcept;

  bplist::ObjectTable table_;
  Array<Number> objects_;      // by UID
  Array<std::uint32_t> uids_;  // of leaves by number in the table, kNil for none
  Array<Number> pending_;      // what belongs to the objects that are open, innermost last
  struct Class {
    std::string_view name;
    Uid uid;
  };
  Array<Class> classes_;
  int depth_ = 0;
};

}  // namespace core::archive
