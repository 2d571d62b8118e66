#include "Core/PropertyList/KeyedArchiveWriter.h"

#include <utility>

namespace core::archive {
namespace {

constexpr std::string_view kArrayNames[] = {"NSArray", "NSObject"};
constexpr std::string_view kDictionaryNames[] = {"NSDictionary", "NSObject"};
constexpr std::string_view kDateNames[] = {"NSDate", "NSObject"};

}  // namespace

KeyedArchiveWriter::KeyedArchiveWriter() noexcept {
  objects_.append(table_.addText(kNull));
}

Uid KeyedArchiveWriter::newUid() noexcept {
  objects_.append(0);
  return {static_cast<std::uint32_t>(objects_.size() - 1)};
}

Uid KeyedArchiveWriter::uidOf(Number leaf) noexcept {
  while (uids_.size() <= leaf) {
    uids_.append(kNil);
  }
  if (uids_[leaf] == kNil) {
    const Uid uid = newUid();
    objects_[uid.index] = leaf;
    uids_[leaf] = uid.index;
  }
  return {uids_[leaf]};
}

KeyedArchiveWriter::Open KeyedArchiveWriter::openObject() noexcept {
  return {depth_++ < kDepth ? newUid() : Uid{kNil}, pending_.size()};
}

void KeyedArchiveWriter::addProperty(std::string_view key, Uid value) noexcept {
  pending_.append(table_.addText(key));
  addItem(value);
}

void KeyedArchiveWriter::addContent(std::string_view key, Number content) noexcept {
  pending_.append(table_.addText(key));
  pending_.append(content);
}

Uid KeyedArchiveWriter::closeObject(Open open, ClassNames names) noexcept {
  --depth_;
  if (open.uid.index != kNil) {
    addProperty("$class", classOf(names));
    const std::size_t entries = (pending_.size() - open.mark) / 2;
    const Number object = table_.addDictionary(entries);
    for (std::size_t i = 0; i < entries; ++i) {
      table_.setReference(object, i, pending_[open.mark + i * 2]);
      table_.setReference(object, entries + i, pending_[open.mark + i * 2 + 1]);
    }
    objects_[open.uid.index] = object;
  }
  forgetPending(open.mark);
  return open.uid;
}

Uid KeyedArchiveWriter::closeArray(Open open) noexcept {
  const Number items = arrayOfPending(open.mark, 1);
  forgetPending(open.mark);
  addContent("NS.objects", items);
  return closeObject(open, kArrayNames);
}

Uid KeyedArchiveWriter::closeDictionary(Open open) noexcept {
  const Number keys = arrayOfPending(open.mark, 2);
  const Number values = arrayOfPending(open.mark + 1, 2);
  forgetPending(open.mark);
  addContent("NS.keys", keys);
  addContent("NS.objects", values);
  return closeObject(open, kDictionaryNames);
}

void KeyedArchiveWriter::forgetPending(std::size_t mark) noexcept {
  while (pending_.size() > mark) {
    pending_.removeAt(pending_.size() - 1);
  }
}

KeyedArchiveWriter::Number KeyedArchiveWriter::arrayOfPending(std::size_t first, std::size_t step) noexcept {
  const std::size_t count = (pending_.size() - first + step - 1) / step;
  const Number array = table_.addArray(count);
  for (std::size_t i = 0; i < count; ++i) {
    table_.setReference(array, i, pending_[first + i * step]);
  }
  return array;
}

Uid KeyedArchiveWriter::classOf(ClassNames names) noexcept {
  for (const Class& known : classes_) {
    if (known.name == names.front()) {
      return known.uid;
    }
  }
  const Number array = table_.addArray(names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    table_.setReference(array, i, table_.addText(names[i]));
  }
  const Number object = table_.addDictionary(2);
  table_.setReference(object, 0, table_.addText("$classname"));
  table_.setReference(object, 1, table_.addText("$classes"));
  table_.setReference(object, 2, table_.addText(names.front()));
  table_.setReference(object, 3, array);
  const Uid uid = newUid();
  objects_[uid.index] = object;
  classes_.append({names.front(), uid});
  return uid;
}

Uid KeyedArchiveWriter::addDate(const Date& date) noexcept {
  const Open open = openObject();
  addContent("NS.time", table_.addReal(date.secondsSince2001));
  return closeObject(open, kDateNames);
}

Uid KeyedArchiveWriter::addValue(const Value& value) noexcept {
  if (const String* text = value.string()) {
    return addText(*text);
  }
  if (const bool* boolean = value.boolean()) {
    return addBoolean(*boolean);
  }
  if (const std::int64_t* integer = value.integer()) {
    return addInteger(*integer);
  }
  if (const std::uint64_t* large = value.largeInteger()) {
    return uidOf(table_.addLargeInteger(*large));
  }
  if (const double* real = value.real()) {
    return uidOf(table_.addReal(*real));
  }
  if (const Data* data = value.data()) {
    return addData(*data);
  }
  if (const Date* date = value.date()) {
    return addDate(*date);
  }
  if (depth_ == kDepth) {
    return {kNil};
  }
  if (const ValueArray* items = value.array()) {
    const Open open = openItems();
    for (const Value& item : *items) {
      addItem(addValue(item));
    }
    return closeArray(open);
  }
  if (const ValueDictionary* entries = value.dictionary()) {
    const Open open = openItems();
    for (const auto& [key, entry] : *entries) {
      addItem(addText(key));
      addItem(addValue(entry));
    }
    return closeDictionary(open);
  }
  return {kNil};
}

Data KeyedArchiveWriter::write(Uid root) noexcept {
  const Number objects = table_.addArray(objects_.size());
  for (std::size_t i = 0; i < objects_.size(); ++i) {
    table_.setReference(objects, i, objects_[i]);
  }
  const Number top = table_.addDictionary(1);
  table_.setReference(top, 0, table_.addText("root"));
  table_.setReference(top, 1, table_.addUid(root.index));
  const Number file = table_.addDictionary(4);
  const std::pair<std::string_view, Number> entries[] = {{"$archiver", table_.addText(kArchiver)},
                                                         {"$version", table_.addInteger(kVersion)},
                                                         {"$top", top},
                                                         {"$objects", objects}};
  for (std::size_t i = 0; i < 4; ++i) {
    table_.setReference(file, i, table_.addText(entries[i].first));
    table_.setReference(file, 4 + i, entries[i].second);
  }
  return table_.write(file);
}

}  // namespace core::archive
