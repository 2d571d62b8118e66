#include "Kiv/common/wex/WexFieldReader.h"

#include <bit>

#include "Kiv/common/wex/WexDecodeException.h"
#include "Kiv/common/wex/WexInputStream.h"

namespace analyticsyut {
namespace {

std::uint64_t bigEndian(const std::uint8_t* bytes, unsigned size) noexcept {
  std::uint64_t number = 0;
  for (unsigned i = 0; i < size; ++i) {
    number = number << 8 | bytes[i];
  }
  return number;
}

/// The number of `bytes` of two's complement.
std::int64_t signedNumber(std::uint64_t number, unsigned bytes) noexcept {
  const unsigned unused = 64 - 8 * bytes;
  return static_cast<std::int64_t>(number << unused) >> unused;
}

class Walk {
 public:
  Walk(BufferReader& stream, WexFieldVisitor& visitor) noexcept : stream_(stream), visitor_(visitor) {}

  void all() {
    while (stream_.left() != 0) {
      if (field().type == DataHead::kStructEnd) {
        WexDecodeException::raise("struct end without a struct.");
      }
    }
  }

 private:
  DataHead field() {
    WexFieldEvent event;
    event.offset = stream_.position();
    event.depth = depth_;
    stream_.skip(event.head.peekFrom(stream_));
    switch (event.head.type) {
      case DataHead::kStructEnd:
        break;
      case DataHead::kStructBegin:
        inside(event, [&] {
          while (field().type != DataHead::kStructEnd) {
          }
        });
        break;
      case DataHead::kMap:
        event.integer = count();
        inside(event, [&] { elements(2 * event.integer); });
        break;
      case DataHead::kList:
        event.integer = count();
        inside(event, [&] { elements(event.integer); });
        break;
      default:
        plain(event);
        visitor_.value(event);
    }
    return event.head;
  }

  template <class Content>
  void inside(const WexFieldEvent& event, Content content) {
    if (depth_ == WexInputStream::kDeepestNesting) {
      WexDecodeException::raise("invalid nesting, over %d levels.", WexInputStream::kDeepestNesting);
    }
    visitor_.begin(event);
    ++depth_;
    content();
    --depth_;
    visitor_.end(event);
  }

  void elements(std::int64_t number) {
    for (std::int64_t i = 0; i < number; ++i) {
      if (field().type == DataHead::kStructEnd) {
        WexDecodeException::raise("struct end among the elements, %lld of %lld.", i, number);
      }
    }
  }

  void plain(WexFieldEvent& event) {
    switch (event.head.type) {
      case DataHead::kFloat:
        event.real = std::bit_cast<float>(static_cast<std::uint32_t>(bigEndian(stream_.take(4), 4)));
        return;
      case DataHead::kDouble:
        event.real = std::bit_cast<double>(bigEndian(stream_.take(8), 8));
        return;
      case DataHead::kString1:
      case DataHead::kString4:
        return bytes(event, event.head.type == DataHead::kString1 ? 1 : 4);
      case DataHead::kSimpleList:
        return simpleList(event);
      default:
        event.integer = integer(event.head.type);
    }
  }

  void bytes(WexFieldEvent& event, unsigned lengthSize) {
    const std::uint64_t length = bigEndian(stream_.take(lengthSize), lengthSize);
    event.bytes = {stream_.take(length), length};
  }

  void simpleList(WexFieldEvent& event) {
    DataHead head;
    const std::size_t headSize = head.peekFrom(stream_);
    if (head.type != DataHead::kChar || head.tag != 0) {
      WexDecodeException::raise("type mismatch, tag: %d, type: %d, %d", event.head.tag, event.head.type, head.type);
    }
    stream_.skip(headSize);
    const auto length = static_cast<std::uint64_t>(count());
    event.bytes = {stream_.take(length), length};
  }

  std::int64_t integer(std::uint8_t type) {
    if (type == DataHead::kZeroTag) {
      return 0;
    }
    if (type > DataHead::kInt64) {
      WexDecodeException::raise("skipField with invalid type, type value:%d.", type);
    }
    const unsigned size = 1U << type;
    return signedNumber(bigEndian(stream_.take(size), size), size);
  }

  std::int64_t count() {
    DataHead head;
    const std::size_t headSize = head.peekFrom(stream_);
    if (head.tag != 0) {
      WexDecodeException::raise("require field not exist, tag: %d", 0);
    }
    if (head.type > DataHead::kInt32 && head.type != DataHead::kZeroTag) {
      WexDecodeException::raise("read 'Int32' type mismatch, tag: %d, get type: %d.", 0, head.type);
    }
    stream_.skip(headSize);
    const std::int64_t number = integer(head.type);
    if (number < 0) {
      WexDecodeException::raise("invalid size, size: %lld", number);
    }
    return number;
  }

  BufferReader& stream_;
  WexFieldVisitor& visitor_;
  int depth_ = 0;
};

}  // namespace

WexFieldReader::Outcome WexFieldReader::read(std::span<const std::uint8_t> bytes, WexFieldVisitor& visitor) {
  BufferReader stream(bytes);
  Outcome outcome;
  try {
    Walk(stream, visitor).all();
  } catch (const WexDecodeException& exception) {
    outcome.error = exception.what();
  }
  outcome.offset = stream.position();
  return outcome;
}

}  // namespace analyticsyut
