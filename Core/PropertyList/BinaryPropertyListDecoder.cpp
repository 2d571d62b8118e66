#include <algorithm>
#include <bit>

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/PropertyList/BinaryPropertyListFormat.h"
#include "Core/Text/Ascii.h"
#include "Core/Text/Utf8.h"

namespace core {
namespace {

using namespace bplist;

/// Values that one input byte may stand for when shared arrays and dictionaries are counted
/// wherever they occur. Whoever walks the result pays for each occurrence.
constexpr std::uint64_t kValuesPerByte = 64;

/// UTF-16 text as UTF-8; a surrogate without its partner becomes the replacement character.
String decodeUtf16(std::span<const std::uint8_t> bytes) noexcept {
  const auto unitAt = [&](std::size_t at) { return static_cast<char32_t>((bytes[at] << 8) | bytes[at + 1]); };
  const auto forEach = [&](auto&& take) {
    for (std::size_t at = 0; at < bytes.size(); at += 2) {
      char32_t codePoint = unitAt(at);
      if (codePoint >= 0xD800 && codePoint < 0xDC00 && at + 2 < bytes.size() && (unitAt(at + 2) & 0xFC00) == 0xDC00) {
        codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (unitAt(at + 2) - 0xDC00);
        at += 2;
      } else if (codePoint >= 0xD800 && codePoint < 0xE000) {
        codePoint = kReplacementCharacter;
      }
      take(codePoint);
    }
  };
  std::size_t size = 0;
  forEach([&](char32_t codePoint) { size += utf8Size(codePoint); });
  return String(
      Bytes::filled(size, [&](char* out) { forEach([&](char32_t codePoint) { out = encodeUtf8(codePoint, out); }); }));
}

/// Reads object by object with a stack of its own. Each object is read once and costs its
/// bytes out of a budget of all object bytes, so that overlapping objects gain nothing.
class Decoder {
 public:
  explicit Decoder(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes) {}

  Result<Value> run() noexcept {
    if (!readTrailer() || !readObjects()) {
      return error_;
    }
    return slots_[root_].value;
  }

 private:
  enum class State : std::uint8_t { kUnread, kOpen, kRead };
  struct Slot {
    Value value;
    std::uint64_t values = 1;  // with all below it
    std::uint16_t height = 0;  // levels of containers
    State state = State::kUnread;
  };
  struct Container {
    std::size_t object;
    std::size_t references;  // where they begin
    std::size_t entries;
    bool isDictionary;
    std::size_t next = 0;
    std::uint64_t values = 1;
    std::uint16_t height = 1;
    ValueArray items = {};
    ValueDictionary dictionary = {};
  };

  bool fail(const char* reason, std::size_t offset) noexcept {
    error_ = {reason, offset};
    return false;
  }

  std::uint64_t number(std::size_t at, std::size_t size) const noexcept {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
      value = (value << 8) | bytes_[at + i];
    }
    return value;
  }

  bool readTrailer() noexcept {
    if (bytes_.size() < kMagic.size() || std::memcmp(bytes_.data(), kMagic.data(), kMagic.size()) != 0) {
      return fail("not a binary property list", 0);
    }
    if (bytes_.size() < kMagic.size() + kTrailerSize) {
      return fail("the trailer is missing", bytes_.size());
    }
    const std::size_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = bytes_[trailer + 6];
    referenceSize_ = bytes_[trailer + 7];
    const std::uint64_t objects = number(trailer + 8, 8);
    const std::uint64_t root = number(trailer + 16, 8);
    const std::uint64_t table = number(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8) {
      return fail("offsets of an impossible size", trailer + 6);
    }
    if (referenceSize_ < 1 || referenceSize_ > 8) {
      return fail("references of an impossible size", trailer + 7);
    }
    if (table < kMagic.size() || table > trailer) {
      return fail("the offset table lies outside the file", trailer + 24);
    }
    // An object has a byte at least, which keeps the slots in proportion.
    if (objects > (trailer - table) / offsetSize_ || objects > table - kMagic.size()) {
      return fail("more objects than the file has room for", trailer + 8);
    }
    if (root >= objects) {
      return fail("the root object does not exist", trailer + 16);
    }
    table_ = static_cast<std::size_t>(table);
    root_ = static_cast<std::size_t>(root);
    budget_ = table_ - kMagic.size();
    slots_.reserve(static_cast<std::size_t>(objects));
    for (std::uint64_t i = 0; i < objects; ++i) {
      slots_.emplace();
    }
    return true;
  }

  bool readObjects() noexcept {
    if (!readObject(root_)) {
      return false;
    }
    while (!open_.empty()) {
      Container& container = open_.back();
      if (container.next == container.entries) {
        close(container);
      } else if (!readEntry(container)) {
        return false;
      }
    }
    return true;
  }

  void close(Container& container) noexcept {
    Slot& slot = slots_[container.object];
    slot.value = container.isDictionary ? Value(std::move(container.dictionary)) : Value(std::move(container.items));
    slot.values = container.values;
    slot.height = container.height;
    slot.state = State::kRead;
    open_.removeAt(open_.size() - 1);
  }

  /// Takes the container's next entry in, or opens the container that is that entry: the
  /// entry's turn then comes again when that one is closed.
  bool readEntry(Container& container) noexcept {
    std::size_t at = container.references + container.next * referenceSize_;
    const String* key = nullptr;
    if (container.isDictionary) {
      const Slot* slot = referenced(at);
      if (slot == nullptr) {
        return false;
      }
      key = slot->value.string();
      if (key == nullptr) {
        return fail("a key is not a string", at);
      }
      at += container.entries * referenceSize_;
    }
    const std::size_t level = open_.size();
    const Slot* slot = referenced(at);
    if (slot == nullptr || open_.size() != level) {
      return slot != nullptr;
    }
    if (slot->state == State::kOpen) {
      return fail("an object contains itself", at);
    }
    if (level + slot->height > kPropertyListDepth) {
      return fail("too deeply nested", at);
    }
    container.values += slot->values;
    container.height = std::max(container.height, static_cast<std::uint16_t>(slot->height + 1));
    if (container.values > kValuesPerByte * bytes_.size()) {
      return fail("shared objects multiply beyond measure", at);
    }
    if (key != nullptr) {
      container.dictionary.set(*key, slot->value);
    } else {
      container.items.append(slot->value);
    }
    ++container.next;
    return true;
  }

  /// The slot of the object that the reference at `at` means, read or opened; nullptr after an error.
  const Slot* referenced(std::size_t at) noexcept {
    const std::uint64_t object = number(at, referenceSize_);
    if (object >= slots_.size()) {
      fail("a reference to an object that does not exist", at);
      return nullptr;
    }
    const auto index = static_cast<std::size_t>(object);
    return slots_[index].state != State::kUnread || readObject(index) ? &slots_[index] : nullptr;
  }

  /// Reads a leaf into its slot, or opens a container.
  bool readObject(std::size_t object) noexcept {
    const std::size_t entry = table_ + object * offsetSize_;
    const std::uint64_t offset = number(entry, offsetSize_);
    if (offset < kMagic.size() || offset >= table_) {
      return fail("an offset outside the objects", entry);
    }
    const auto begin = static_cast<std::size_t>(offset);
    const auto kind = static_cast<std::uint8_t>(bytes_[begin] & 0xF0);
    std::size_t at = begin + 1;
    std::size_t count = bytes_[begin] & 0x0F;
    const bool counted = kind >= kData && kind != kUid;
    if (counted && count == kCountFollows && !readCount(begin, at, count)) {
      return false;
    }
    std::size_t unit = 1;
    switch (kind) {
      case kNull:
        unit = 0;
        break;
      case kInteger:
      case kReal:
      case kDate:
        count = std::size_t{1} << count;
        break;
      case kUid:
        ++count;
        break;
      case kUtf16:
        unit = 2;
        break;
      case kArray:
      case kSet:
        unit = referenceSize_;
        break;
      case kDictionary:
        unit = std::size_t{2} * referenceSize_;
        break;
      default:
        break;
    }
    if (unit != 0 && count > (table_ - at) / unit) {
      return fail("an object longer than the bytes left", begin);
    }
    const std::size_t size = count * unit;
    if (at - begin + size > budget_) {
      return fail("objects overlap", begin);
    }
    budget_ -= at - begin + size;
    if (kind >= kArray) {
      return openContainer(object, kind, begin, at, count);
    }
    slots_[object].state = State::kRead;
    return readLeaf(slots_[object].value, begin, bytes_.subspan(at, size));
  }

  bool readCount(std::size_t begin, std::size_t& at, std::size_t& count) noexcept {
    const std::size_t marker = at;
    if (marker >= table_ || (bytes_[marker] & 0xF0) != kInteger || (bytes_[marker] & 0x0F) > 3) {
      return fail("a count that is no integer", begin);
    }
    const std::size_t size = std::size_t{1} << (bytes_[marker] & 0x0F);
    if (size > table_ - marker - 1) {
      return fail("an object longer than the bytes left", begin);
    }
    count = static_cast<std::size_t>(number(marker + 1, size));
    at = marker + 1 + size;
    return true;
  }

  bool openContainer(std::size_t object, std::uint8_t kind, std::size_t begin, std::size_t references,
                     std::size_t entries) noexcept {
    if (kind != kArray && kind != kSet && kind != kDictionary) {
      return fail("an object of unknown kind", begin);
    }
    if (open_.size() == kPropertyListDepth) {
      return fail("too deeply nested", begin);
    }
    slots_[object].state = State::kOpen;
    Container& container = open_.emplace(Container{object, references, entries, kind == kDictionary});
    if (!container.isDictionary) {
      container.items.reserve(entries);
    }
    return true;
  }

  bool readLeaf(Value& value, std::size_t begin, std::span<const std::uint8_t> content) noexcept {
    const std::size_t at = static_cast<std::size_t>(content.data() - bytes_.data());
    const std::size_t size = content.size();
    switch (bytes_[begin] & 0xF0) {
      case kNull:
        if (bytes_[begin] == kTrue || bytes_[begin] == kFalse) {
          value = bytes_[begin] == kTrue;
        } else if (bytes_[begin] != kNull) {
          return fail("an object of unknown kind", begin);
        }
        return true;
      case kInteger:
        return readInteger(value, begin, at, size);
      case kReal:
        if (size != 4 && size != 8) {
          return fail("a real of unknown size", begin);
        }
        value = size == 4 ? double{std::bit_cast<float>(static_cast<std::uint32_t>(number(at, 4)))}
                          : std::bit_cast<double>(number(at, 8));
        return true;
      case kDate:
        if (size != 8) {
          return fail("a date of unknown size", begin);
        }
        value = Date{std::bit_cast<double>(number(at, 8))};
        return true;
      case kData:
        value = Data(content);
        return true;
      case kAscii:
        if (!isAscii({reinterpret_cast<const char*>(content.data()), size})) {
          return fail("a string that is not ASCII", begin);
        }
        value = String(Bytes(content.data(), size));
        return true;
      case kUtf16:
        value = decodeUtf16(content);
        return true;
      case kUid:
        if (size > 8 || number(at, size) > 0xFFFFFFFF) {
          return fail("a UID beyond 32 bits", begin);
        }
        value = Uid{static_cast<std::uint32_t>(number(at, size))};
        return true;
      default:
        return fail("an object of unknown kind", begin);
    }
  }

  bool readInteger(Value& value, std::size_t begin, std::size_t at, std::size_t size) noexcept {
    if (size > 16) {
      return fail("an integer of unknown size", begin);
    }
    const std::uint64_t low = number(size == 16 ? at + 8 : at, std::min(size, std::size_t{8}));
    const std::uint64_t high = size == 16 ? number(at, 8) : 0;
    const bool negative = (low >> 63) != 0 && (size == 8 || high == ~std::uint64_t{0});
    if (high != 0 && !negative) {
      return fail("an integer beyond 64 bits", begin);
    }
    value = negative ? Value(static_cast<std::int64_t>(low)) : Value(low);
    return true;
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::size_t root_ = 0;
  std::size_t table_ = 0;   // offset of the offset table, where the objects end
  std::size_t budget_ = 0;  // object bytes not read yet
  Array<Slot> slots_;
  Array<Container> open_;
  ParseError error_{};
};

}  // namespace

Result<Value> decodeBinaryPropertyList(std::span<const std::uint8_t> bytes) noexcept {
  return Decoder(bytes).run();
}

}  // namespace core
