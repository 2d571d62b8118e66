#include "Core/PropertyList/KeyedArchiveReader.h"

#include <utility>

#include "Core/PropertyList/BinaryPropertyList.h"

namespace core::archive {
namespace {

/// Following a reference, making room for an item and looking at a class name are a step
/// each. A file in which nothing is shared has a byte at least for every two of them.
constexpr std::uint64_t kStepsPerByte = 4;

/// The UID that a reference is: as such, or in the form that it has in XML property lists, which
/// stays when one is converted.
std::optional<std::uint32_t> uidOf(const Value& reference) noexcept {
  if (const Uid* uid = reference.uid()) {
    return uid->index;
  }
  const ValueDictionary* entries = reference.dictionary();
  const Value* number = entries != nullptr && entries->size() == 1 ? entries->find("CF$UID") : nullptr;
  if (number == nullptr || number->integer() == nullptr || !std::in_range<std::uint32_t>(*number->integer())) {
    return std::nullopt;
  }
  return static_cast<std::uint32_t>(*number->integer());
}

}  // namespace

KeyedArchiveReader::KeyedArchiveReader(std::span<const std::uint8_t> bytes) noexcept
    : budget_(kStepsPerByte * bytes.size()) {
  Result<Value> file = decodeBinaryPropertyList(bytes);
  if (!file) {
    fail(file.error().reason);
    return;
  }
  file_ = std::move(*file);
  const ValueDictionary* entries = file_.dictionary();
  const Value* archiver = entries != nullptr ? entries->find("$archiver") : nullptr;
  if (archiver == nullptr || !(*archiver == Value(String(kArchiver)))) {
    fail("not a keyed archive");
    return;
  }
  const Value* version = entries->find("$version");
  if (version == nullptr || !(*version == Value(kVersion))) {
    fail("a keyed archive of unknown version");
    return;
  }
  const Value* objects = entries->find("$objects");
  if (objects == nullptr || objects->array() == nullptr || objects->array()->empty()) {
    fail("the archive has no objects");
    return;
  }
  objects_ = objects->array();
  const Value* top = entries->find("$top");
  root_ = top != nullptr && top->dictionary() != nullptr ? top->dictionary()->find("root") : nullptr;
  if (root_ == nullptr) {
    fail("the archive has no root object");
  }
}

std::nullptr_t KeyedArchiveReader::fail(const char* reason) noexcept {
  if (error_ == nullptr) {
    error_ = reason;
  }
  return nullptr;
}

bool KeyedArchiveReader::spend(std::size_t steps) noexcept {
  if (steps > budget_) {
    fail("shared objects multiply beyond measure");
    return false;
  }
  budget_ -= steps;
  return true;
}

const Value* KeyedArchiveReader::root() noexcept {
  return root_ != nullptr ? resolve(*root_) : nullptr;
}

const Value* KeyedArchiveReader::resolve(const Value& reference) noexcept {
  if (!spend(1)) {
    return nullptr;
  }
  const std::optional<std::uint32_t> uid = uidOf(reference);
  if (!uid) {
    return &reference;
  }
  if (*uid == kNil) {
    return &null_;
  }
  if (*uid >= objects_->size()) {
    return fail("a reference to an object that does not exist");
  }
  const Value& object = (*objects_)[*uid];
  return object.uid() == nullptr ? &object : fail("a reference to a reference");
}

const ValueDictionary* KeyedArchiveReader::classOf(const ValueDictionary& object) noexcept {
  const Value* reference = object.find("$class");
  const Value* found = reference != nullptr ? resolve(*reference) : nullptr;
  const ValueDictionary* classObject = found != nullptr ? found->dictionary() : nullptr;
  const Value* name = classObject != nullptr ? classObject->find("$classname") : nullptr;
  return name != nullptr && name->string() != nullptr ? classObject : fail("an object without a class");
}

bool KeyedArchiveReader::isKind(const ValueDictionary& classObject, std::string_view name) noexcept {
  if (*classObject.find("$classname")->string() == name) {
    return true;
  }
  const Value* classes = classObject.find("$classes");
  if (classes == nullptr || classes->array() == nullptr || !spend(classes->array()->size())) {
    return false;
  }
  for (const Value& ancestor : *classes->array()) {
    if (ancestor.string() != nullptr && *ancestor.string() == name) {
      return true;
    }
  }
  return false;
}

const ValueDictionary* KeyedArchiveReader::object(const Value& object, std::string_view className) noexcept {
  const ValueDictionary* properties = object.dictionary();
  if (properties == nullptr) {
    return fail("an object of the wrong type");
  }
  const ValueDictionary* classObject = classOf(*properties);
  if (classObject == nullptr) {
    return nullptr;
  }
  return isKind(*classObject, className) ? properties : fail("an object of the wrong class");
}

const Value* KeyedArchiveReader::property(const Value& object, std::string_view className,
                                          std::string_view name) noexcept {
  const ValueDictionary* properties = this->object(object, className);
  const Value* reference = properties != nullptr ? properties->find(name) : nullptr;
  return reference != nullptr ? resolve(*reference) : fail("an object without its content");
}

const String* KeyedArchiveReader::text(const Value& object) noexcept {
  const Value* content = object.dictionary() != nullptr ? property(object, "NSString", "NS.string") : &object;
  return content != nullptr && content->string() != nullptr ? content->string() : fail("a value that is no text");
}

const Data* KeyedArchiveReader::data(const Value& object) noexcept {
  const Value* content = object.dictionary() != nullptr ? property(object, "NSData", "NS.data") : &object;
  return content != nullptr && content->data() != nullptr ? content->data() : fail("a value that is no data");
}

std::optional<std::int64_t> KeyedArchiveReader::integer(const Value& object, std::int64_t least,
                                                        std::int64_t most) noexcept {
  if (object.boolean() == nullptr && object.integer() == nullptr) {
    fail("a value that is no integer");
    return std::nullopt;
  }
  const std::optional<std::int64_t> number = object.asInteger();
  if (*number < least || *number > most) {
    fail("an integer out of range");
    return std::nullopt;
  }
  return number;
}

const ValueArray* KeyedArchiveReader::arrayProperty(const Value& object, std::string_view className,
                                                    std::string_view name) noexcept {
  const Value* content = property(object, className, name);
  const ValueArray* array = content != nullptr ? content->array() : nullptr;
  if (array == nullptr) {
    return fail("a value that is no array");
  }
  return spend(array->size()) ? array : nullptr;
}

const ValueArray* KeyedArchiveReader::items(const Value& object) noexcept {
  const ValueDictionary* properties = object.dictionary();
  const ValueDictionary* classObject = properties != nullptr ? classOf(*properties) : nullptr;
  const bool isSet = classObject != nullptr && isKind(*classObject, "NSSet");
  return arrayProperty(object, isSet ? "NSSet" : "NSArray", "NS.objects");
}

std::optional<KeyedArchiveReader::Entries> KeyedArchiveReader::entries(const Value& object) noexcept {
  const ValueArray* keys = arrayProperty(object, "NSDictionary", "NS.keys");
  const ValueArray* values = keys != nullptr ? arrayProperty(object, "NSDictionary", "NS.objects") : nullptr;
  if (values == nullptr) {
    return std::nullopt;
  }
  if (keys->size() != values->size()) {
    fail("a dictionary with a key too many");
    return std::nullopt;
  }
  return Entries{keys, values};
}

std::optional<Value> KeyedArchiveReader::value(const Value& object) noexcept {
  const ValueDictionary* properties = object.dictionary();
  if (properties == nullptr) {
    // Only numbers, texts and data stand there as they are: an array is never an object.
    return object.array() == nullptr ? std::optional(object) : (fail("an object of the wrong type"), std::nullopt);
  }
  const Level level(*this);
  const ValueDictionary* classObject = level ? classOf(*properties) : nullptr;
  if (classObject == nullptr) {
    return std::nullopt;
  }
  if (isKind(*classObject, "NSDictionary")) {
    return valueOfEntries(object);
  }
  if (isKind(*classObject, "NSArray") || isKind(*classObject, "NSSet")) {
    return valueOfItems(object);
  }
  if (isKind(*classObject, "NSString")) {
    const String* held = text(object);
    return held != nullptr ? std::optional<Value>(*held) : std::nullopt;
  }
  if (isKind(*classObject, "NSData")) {
    const Data* held = data(object);
    return held != nullptr ? std::optional<Value>(*held) : std::nullopt;
  }
  if (isKind(*classObject, "NSDate")) {
    const Value* time = property(object, "NSDate", "NS.time");
    if (time == nullptr || time->real() == nullptr) {
      fail("a date without its time");
      return std::nullopt;
    }
    return Value(Date{*time->real()});
  }
  if (isKind(*classObject, "NSNull")) {
    return std::optional<Value>(std::in_place);
  }
  return valueOfObject(*properties, *classObject);
}

std::optional<Value> KeyedArchiveReader::valueAt(const Value& reference) noexcept {
  const Value* object = resolve(reference);
  return object != nullptr ? value(*object) : std::nullopt;
}

std::optional<Value> KeyedArchiveReader::valueOfItems(const Value& object) noexcept {
  const ValueArray* references = items(object);
  if (references == nullptr) {
    return std::nullopt;
  }
  ValueArray read;
  read.reserve(references->size());
  for (const Value& reference : *references) {
    std::optional<Value> item = valueAt(reference);
    if (!item) {
      return std::nullopt;
    }
    read.append(std::move(*item));
  }
  return Value(std::move(read));
}

std::optional<Value> KeyedArchiveReader::valueOfEntries(const Value& object) noexcept {
  const std::optional<Entries> references = entries(object);
  if (!references) {
    return std::nullopt;
  }
  ValueDictionary read;
  for (std::size_t i = 0; i < references->keys->size(); ++i) {
    const Value* key = resolve((*references->keys)[i]);
    const String* name = key != nullptr ? text(*key) : nullptr;
    std::optional<Value> entry = name != nullptr ? valueAt((*references->values)[i]) : std::nullopt;
    if (!entry) {
      return std::nullopt;
    }
    read.set(*name, std::move(*entry));
  }
  return Value(std::move(read));
}

std::optional<Value> KeyedArchiveReader::valueOfObject(const ValueDictionary& object,
                                                       const ValueDictionary& classObject) noexcept {
  ValueDictionary read;
  read.set("$class", *classObject.find("$classname"));
  for (const auto& [name, reference] : object) {
    if (name == "$class") {
      continue;
    }
    std::optional<Value> property = valueAt(reference);
    if (!property) {
      return std::nullopt;
    }
    read.set(name, std::move(*property));
  }
  return Value(std::move(read));
}

Result<Value, ArchiveError> readKeyedArchive(std::span<const std::uint8_t> bytes) noexcept {
  KeyedArchiveReader reader(bytes);
  const Value* root = reader.root();
  std::optional<Value> value = root != nullptr ? reader.value(*root) : std::nullopt;
  if (!value) {
    return ArchiveError{reader.error()};
  }
  return std::move(*value);
}

}  // namespace core::archive
