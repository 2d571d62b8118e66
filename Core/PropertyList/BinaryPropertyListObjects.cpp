#include "Core/PropertyList/BinaryPropertyListObjects.h"

#include <algorithm>
#include <bit>

#include "Core/Memory/Dictionary.h"
#include "Core/Text/Ascii.h"
#include "Core/Text/Utf8.h"

namespace core::bplist {
namespace {

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

constexpr std::uint8_t marker(std::size_t kind, std::size_t size) noexcept {
  return static_cast<std::uint8_t>(kind | size);
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

/// Both halves of the full product, folded.
std::uint64_t mixed(std::uint64_t a, std::uint64_t b) noexcept {
  __extension__ using Wide = unsigned __int128;
  const Wide product = Wide{a} * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

/// Of all the bytes, 32 at a step: a record's texts are hashed once and soon forgotten. The
/// process's seed keeps content from being chosen to collide.
std::uint32_t hashOfContent(std::string_view bytes) noexcept {
  const std::uint64_t seed = hashOfKey({});
  std::uint64_t lanes[4] = {bytes.size(), seed, ~seed, 0x9E3779B97F4A7C15U};
  const auto step = [&lanes](const char* block) {
    std::uint64_t words[4];
    std::memcpy(words, block, sizeof words);
    lanes[0] = mixed(lanes[0] ^ words[0], lanes[1] ^ words[1]);
    lanes[2] = mixed(lanes[2] ^ words[2], lanes[3] ^ words[3]);
  };
  for (; bytes.size() >= sizeof lanes; bytes.remove_prefix(sizeof lanes)) {
    step(bytes.data());
  }
  if (!bytes.empty()) {
    char rest[sizeof lanes] = {};
    std::memcpy(rest, bytes.data(), bytes.size());
    step(rest);
  }
  return static_cast<std::uint32_t>(mixed(lanes[0] ^ lanes[1], lanes[2] ^ lanes[3]));
}

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

}  // namespace

ObjectTable::Number ObjectTable::addText(std::string_view text) noexcept {
  return addLeaf({.marker = isAscii(text) ? kAscii : kUtf16, .number = text.size(), .content = text.data()});
}

ObjectTable::Number ObjectTable::addData(std::span<const std::uint8_t> data) noexcept {
  return addLeaf({.marker = kData, .number = data.size(), .content = data.data()});
}

ObjectTable::Number ObjectTable::addInteger(std::int64_t value) noexcept {
  const auto bits = static_cast<std::uint64_t>(value);
  return addLeaf({.marker = marker(kInteger, sizePower(bits)), .number = bits});
}

ObjectTable::Number ObjectTable::addReal(double value) noexcept {
  return addLeaf({.marker = kReal | 3, .number = std::bit_cast<std::uint64_t>(value)});
}

ObjectTable::Number ObjectTable::addDate(double seconds) noexcept {
  return addLeaf({.marker = kDate | 3, .number = std::bit_cast<std::uint64_t>(seconds)});
}

ObjectTable::Number ObjectTable::addUid(std::uint32_t value) noexcept {
  return addLeaf({.marker = marker(kUid, sizeOf(value) - 1), .number = value});
}

ObjectTable::Number ObjectTable::addContainer(Kind kind, std::size_t entries, std::size_t references) noexcept {
  const auto number = static_cast<Number>(objects_.size());
  objects_.append({.marker = kind, .number = references_.size(), .entries = entries});
  for (std::size_t i = 0; i < references; ++i) {
    references_.append(0);
  }
  return number;
}

ObjectTable::Number ObjectTable::addLeaf(Object leaf) noexcept {
  const std::string_view content = leaf.bytes();
  leaf.hash = static_cast<std::uint32_t>(content.empty() ? mixed(leaf.number + 1, 0x9E3779B97F4A7C15U)
                                                         : hashOfContent(content)) +
              leaf.marker;
  if (slots_.size() <= leaves_ * 2) {
    growIndex();
  }
  std::size_t slot = leaf.hash & (slots_.size() - 1);
  for (; slots_[slot] != 0; slot = (slot + 1) & (slots_.size() - 1)) {
    const Object& held = objects_[slots_[slot] - 1];
    if (held.hash == leaf.hash && held.marker == leaf.marker && held.number == leaf.number && held.bytes() == content) {
      return slots_[slot] - 1;
    }
  }
  objects_.append(leaf);
  ++leaves_;
  slots_[slot] = static_cast<std::uint32_t>(objects_.size());
  return slots_[slot] - 1;
}

void ObjectTable::growIndex() noexcept {
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

/// Lays the objects of a finished table out.
class ObjectWriter {
 public:
  explicit ObjectWriter(const ObjectTable& table) noexcept
      : table_(table), referenceSize_(sizeOf(table.objects_.size() - 1)) {}

  Data write(ObjectTable::Number root) const noexcept {
    const Array<Object>& objects = table_.objects_;
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
      offsets.number(root, 8);
      offsets.number(tableOffset, 8);
    }));
  }

 private:
  using Object = ObjectTable::Object;

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
      out.number(table_.references_[object.number + i], referenceSize_);
    }
  }

  const ObjectTable& table_;
  std::size_t referenceSize_;
};

Data ObjectTable::write(Number root) const noexcept {
  return ObjectWriter(*this).write(root);
}

}  // namespace core::bplist
