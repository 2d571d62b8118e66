#include <algorithm>
#include <bit>

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/PropertyList/BinaryPropertyListFormat.h"
#include "Core/Text/Utf8.h"

namespace core {
namespace {

using namespace bplist;

/// Power of two of the fewest bytes that hold `value`.
constexpr std::uint8_t sizePower(std::uint64_t value) noexcept {
  return value <= 0xFF ? 0 : value <= 0xFFFF ? 1 : value <= 0xFFFFFFFF ? 2 : 3;
}

constexpr std::size_t sizeOf(std::uint64_t value) noexcept {
  return std::size_t{1} << sizePower(value);
}

constexpr std::size_t headerSize(std::size_t count) noexcept {
  return count < kCountFollows ? 1 : 2 + sizeOf(count);
}

template <class Take>
void forEachUtf16Unit(std::string_view text, Take&& take) noexcept {
  while (!text.empty()) {
    const Utf8Character character = decodeUtf8(text);
    text.remove_prefix(character.size);
    if (character.codePoint < 0x10000) {
      take(static_cast<std::uint16_t>(character.codePoint));
    } else {
      take(static_cast<std::uint16_t>(0xD7C0 + (character.codePoint >> 10)));
      take(static_cast<std::uint16_t>(0xDC00 + (character.codePoint & 0x3FF)));
    }
  }
}

std::size_t utf16Units(std::string_view text) noexcept {
  std::size_t units = 0;
  forEachUtf16Unit(text, [&](std::uint16_t) { ++units; });
  return units;
}

/// An entry of the object table. Containers and text are borrowed from the value.
struct Object {
  std::uint8_t marker;     // with the size of numbers, without that of text, data and containers
  std::uint32_t hash = 0;  // of leaves
  std::uint64_t number;    // bits of a number; bytes of text and data; first reference of a container
  const void* content = nullptr;
  std::size_t entries = 0;  // of a container

  std::string_view bytes() const noexcept {
    return content == nullptr ? std::string_view() : std::string_view(static_cast<const char*>(content), number);
  }
};

Object textObject(std::string_view text) noexcept {
  const bool ascii = std::all_of(text.begin(), text.end(), [](char byte) { return (byte & 0x80) == 0; });
  return {.marker = ascii ? kAscii : kUtf16, .number = text.size(), .content = text.data()};
}

Object numberObject(std::size_t marker, std::uint64_t bits) noexcept {
  return {.marker = static_cast<std::uint8_t>(marker), .number = bits};
}

/// The object of anything but a container.
Object leafObject(const Value& value) noexcept {
  if (const bool* boolean = value.boolean()) {
    return numberObject(*boolean ? kTrue : kFalse, 0);
  }
  if (const std::int64_t* integer = value.integer()) {
    const auto bits = static_cast<std::uint64_t>(*integer);
    return numberObject(kInteger | sizePower(bits), bits);
  }
  if (const std::uint64_t* large = value.largeInteger()) {
    return numberObject(kInteger | 4U, *large);
  }
  if (const double* real = value.real()) {
    return numberObject(kReal | 3U, std::bit_cast<std::uint64_t>(*real));
  }
  if (const Date* date = value.date()) {
    return numberObject(kDate | 3U, std::bit_cast<std::uint64_t>(date->secondsSince2001));
  }
  if (const Uid* uid = value.uid()) {
    return numberObject(kUid | (sizeOf(uid->index) - 1), uid->index);
  }
  if (const String* string = value.string()) {
    return textObject(*string);
  }
  if (const Data* data = value.data()) {
    return {.marker = kData, .number = data->size(), .content = data->data()};
  }
  return numberObject(kNull, 0);
}

/// The object table, leaves once each. Numbered in the order of the walk: a container, its
/// keys, then its items each with all below it.
class ObjectTable {
 public:
  explicit ObjectTable(const Value& root) noexcept {
    add(root);
    while (!open_.empty()) {
      Open& container = open_.back();
      if (container.next == container.end) {
        open_.removeAt(open_.size() - 1);
        continue;
      }
      const std::size_t reference = container.next++;
      const std::size_t item = container.entries - (container.end - reference);
      // The walk goes on inside the item when that is a container.
      const Value& value =
          container.array != nullptr ? (*container.array)[item] : container.dictionary->begin()[item].value;
      references_[reference] = add(value);
    }
  }

  const Array<Object>& objects() const noexcept { return objects_; }
  const std::uint32_t* references(const Object& container) const noexcept {
    return references_.data() + container.number;
  }

 private:
  struct Open {
    const ValueArray* array;
    const ValueDictionary* dictionary;
    std::size_t entries;
    std::size_t next;  // reference to fill in
    std::size_t end;
  };

  std::uint32_t add(const Value& value) noexcept {
    const ValueArray* array = value.array();
    const ValueDictionary* dictionary = value.dictionary();
    if ((array == nullptr && dictionary == nullptr) || open_.size() == kPropertyListDepth) {
      return addLeaf(array == nullptr && dictionary == nullptr ? leafObject(value) : numberObject(kNull, 0));
    }
    const std::size_t entries = array != nullptr ? array->size() : dictionary->size();
    const auto index = static_cast<std::uint32_t>(objects_.size());
    objects_.append(
        {.marker = array != nullptr ? kArray : kDictionary, .number = references_.size(), .entries = entries});
    if (dictionary != nullptr) {
      for (const auto& entry : *dictionary) {
        references_.append(addLeaf(textObject(entry.key)));
      }
    }
    const std::size_t first = references_.size();
    for (std::size_t i = 0; i < entries; ++i) {
      references_.append(0);
    }
    open_.append({array, dictionary, entries, first, first + entries});
    return index;
  }

  std::uint32_t addLeaf(Object leaf) noexcept {
    if (leaf.content != nullptr) {
      leaf.hash = static_cast<std::uint32_t>(hashOfKey(leaf.bytes()));
    } else {
      leaf.hash =
          static_cast<std::uint32_t>(hashOfKey({reinterpret_cast<const char*>(&leaf.number), sizeof leaf.number}));
    }
    leaf.hash += leaf.marker;
    if (slots_.size() <= leaves_ * 2) {
      growIndex();
    }
    std::size_t slot = leaf.hash & (slots_.size() - 1);
    for (; slots_[slot] != 0; slot = (slot + 1) & (slots_.size() - 1)) {
      const Object& held = objects_[slots_[slot] - 1];
      if (held.hash == leaf.hash && held.marker == leaf.marker && held.number == leaf.number &&
          held.bytes() == leaf.bytes()) {
        return slots_[slot] - 1;
      }
    }
    objects_.append(leaf);
    ++leaves_;
    slots_[slot] = static_cast<std::uint32_t>(objects_.size());
    return slots_[slot] - 1;
  }

  void growIndex() noexcept {
    Array<std::uint32_t> old = std::move(slots_);
    const std::size_t capacity = std::max(old.size() * 2, std::size_t{128});
    slots_.reserve(capacity);
    for (std::size_t i = 0; i < capacity; ++i) {
      slots_.append(0);
    }
    for (const std::uint32_t number : old) {
      if (number != 0) {
        std::size_t slot = objects_[number - 1].hash & (capacity - 1);
        while (slots_[slot] != 0) {
          slot = (slot + 1) & (capacity - 1);
        }
        slots_[slot] = number;
      }
    }
  }

  Array<Object> objects_;
  Array<std::uint32_t> references_;
  Array<Open> open_;
  Array<std::uint32_t> slots_;  // object number + 1, 0 for a free slot
  std::size_t leaves_ = 0;
};

class Cursor {
 public:
  explicit Cursor(char* at) noexcept : at_(at) {}

  const char* at() const noexcept { return at_; }
  void byte(std::size_t value) noexcept { *at_++ = static_cast<char>(value); }
  void number(std::uint64_t value, std::size_t size) noexcept {
    for (std::size_t i = size; i-- != 0;) {
      byte((value >> (i * 8)) & 0xFF);
    }
  }
  void bytes(std::string_view text) noexcept {
    std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
  }
  void header(std::uint8_t kind, std::size_t count) noexcept {
    if (count < kCountFollows) {
      byte(kind | count);
      return;
    }
    byte(kind | kCountFollows);
    byte(kInteger | sizePower(count));
    number(count, sizeOf(count));
  }

 private:
  char* at_;
};

class Writer {
 public:
  explicit Writer(const ObjectTable& table) noexcept
      : table_(table), referenceSize_(sizeOf(table.objects().size() - 1)) {}

  Data write() const noexcept {
    const Array<Object>& objects = table_.objects();
    std::size_t tableOffset = kMagic.size();
    for (const Object& object : objects) {
      tableOffset += objectSize(object);
    }
    const std::size_t offsetSize = sizeOf(tableOffset - objectSize(objects.back()));
    const std::size_t size = tableOffset + objects.size() * offsetSize + kTrailerSize;
    return Data(Bytes::filled(size, [&](char* begin) {
      Cursor out(begin);
      Cursor offsets(begin + tableOffset);
      out.bytes(kMagic);
      for (const Object& object : objects) {
        offsets.number(static_cast<std::size_t>(out.at() - begin), offsetSize);
        writeObject(object, out);
      }
      offsets.number(0, 6);
      offsets.byte(offsetSize);
      offsets.byte(referenceSize_);
      offsets.number(objects.size(), 8);
      offsets.number(0, 8);
      offsets.number(tableOffset, 8);
    }));
  }

 private:
  std::size_t objectSize(const Object& object) const noexcept {
    switch (object.marker & 0xF0) {
      case kInteger:
      case kReal:
      case kDate:
        return 1 + (std::size_t{1} << (object.marker & 0x0F));
      case kUid:
        return std::size_t{2} + (object.marker & 0x0F);
      case kData:
      case kAscii:
        return headerSize(object.number) + object.number;
      case kUtf16: {
        const std::size_t units = utf16Units(object.bytes());
        return headerSize(units) + units * 2;
      }
      case kArray:
        return headerSize(object.entries) + object.entries * referenceSize_;
      case kDictionary:
        return headerSize(object.entries) + object.entries * 2 * referenceSize_;
      default:
        return 1;
    }
  }

  void writeObject(const Object& object, Cursor& out) const noexcept {
    switch (object.marker & 0xF0) {
      case kData:
      case kAscii:
        out.header(object.marker, object.number);
        out.bytes(object.bytes());
        break;
      case kUtf16:
        out.header(object.marker, utf16Units(object.bytes()));
        forEachUtf16Unit(object.bytes(), [&](std::uint16_t unit) { out.number(unit, 2); });
        break;
      case kArray:
        writeContainer(object, object.entries, out);
        break;
      case kDictionary:
        writeContainer(object, object.entries * 2, out);
        break;
      default: {
        const std::size_t size = objectSize(object) - 1;
        out.byte(object.marker);
        if (size > 8) {
          out.number(0, size - 8);
        }
        out.number(object.number, std::min(size, std::size_t{8}));
      }
    }
  }

  void writeContainer(const Object& object, std::size_t references, Cursor& out) const noexcept {
    out.header(object.marker, object.entries);
    for (std::size_t i = 0; i < references; ++i) {
      out.number(table_.references(object)[i], referenceSize_);
    }
  }

  const ObjectTable& table_;
  std::size_t referenceSize_;
};

}  // namespace

Data encodeBinaryPropertyList(const Value& root) noexcept {
  const ObjectTable table(root);
  return Writer(table).write();
}

}  // namespace core
