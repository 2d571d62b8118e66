#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/PropertyList/BinaryPropertyListObjects.h"

namespace core {
namespace {

using bplist::ObjectTable;

/// Walks a value with a stack of its own. Objects are numbered in the order of the walk: a
/// container, its keys, then its items each with all below it.
class Encoder {
 public:
  Data run(const Value& root) noexcept {
    add(root);
    while (!open_.empty()) {
      Open& container = open_.back();
      if (container.next == container.entries) {
        open_.removeAt(open_.size() - 1);
        continue;
      }
      const ObjectTable::Number number = container.number;
      const std::size_t item = container.next++;
      const std::size_t reference = container.array != nullptr ? item : container.entries + item;
      // The walk goes on inside the item when that is a container.
      const Value& value =
          container.array != nullptr ? (*container.array)[item] : container.dictionary->begin()[item].value;
      table_.setReference(number, reference, add(value));
    }
    return table_.write(0);
  }

 private:
  struct Open {
    const ValueArray* array;
    const ValueDictionary* dictionary;
    ObjectTable::Number number;
    std::size_t entries;
    std::size_t next = 0;
  };

  ObjectTable::Number add(const Value& value) noexcept {
    const ValueArray* array = value.array();
    const ValueDictionary* dictionary = value.dictionary();
    if (array == nullptr && dictionary == nullptr) {
      return addLeaf(value);
    }
    if (open_.size() == kPropertyListDepth) {
      return table_.addNull();
    }
    const std::size_t entries = array != nullptr ? array->size() : dictionary->size();
    const ObjectTable::Number number = array != nullptr ? table_.addArray(entries) : table_.addDictionary(entries);
    if (dictionary != nullptr) {
      for (std::size_t i = 0; i < entries; ++i) {
        table_.setReference(number, i, table_.addText(dictionary->begin()[i].key));
      }
    }
    open_.append({array, dictionary, number, entries});
    return number;
  }

  ObjectTable::Number addLeaf(const Value& value) noexcept {
    if (const bool* boolean = value.boolean()) {
      return table_.addBoolean(*boolean);
    }
    if (const std::int64_t* integer = value.integer()) {
      return table_.addInteger(*integer);
    }
    if (const std::uint64_t* large = value.largeInteger()) {
      return table_.addLargeInteger(*large);
    }
    if (const double* real = value.real()) {
      return table_.addReal(*real);
    }
    if (const Date* date = value.date()) {
      return table_.addDate(date->secondsSince2001);
    }
    if (const Uid* uid = value.uid()) {
      return table_.addUid(uid->index);
    }
    if (const String* string = value.string()) {
      return table_.addText(*string);
    }
    if (const Data* data = value.data()) {
      return table_.addData(data->span());
    }
    return table_.addNull();
  }

  ObjectTable table_;
  Array<Open> open_;
};

}  // namespace

Data encodeBinaryPropertyList(const Value& root) noexcept {
  return Encoder().run(root);
}

}  // namespace core
