#include "Kiv/common/wex/WexInputStream.h"

#include <atomic>
#include <cstdio>

#include "Kiv/common/wex/WexDecodeException.h"

namespace analyticsyut {
namespace {

void writeToStandardOutput(std::string_view line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
}

std::atomic<WexInputStream::WarningSink> warningSink{&writeToStandardOutput};

}  // namespace

/// One level of what is passed over.
class WexInputStream::Nesting {
 public:
  explicit Nesting(int& depth) : depth_(depth) {
    if (depth_ == kDeepestNesting) {
      WexDecodeException::raise("invalid nesting, over %d levels.", kDeepestNesting);
    }
    ++depth_;
  }
  Nesting(const Nesting&) = delete;
  Nesting& operator=(const Nesting&) = delete;
  ~Nesting() { --depth_; }

 private:
  int& depth_;
};

void WexInputStream::setWarningSink(WarningSink sink) noexcept {
  warningSink = sink != nullptr ? sink : &writeToStandardOutput;
}

void WexInputStream::read(core::String& value, std::uint8_t tag, bool isRequired) {
  std::uint8_t type = 0;
  if (!enter(tag, isRequired, type)) {
    return;
  }
  std::uint32_t size = 0;
  if (type == DataHead::kString1) {
    size = *take(1);
  } else if (type == DataHead::kString4) {
    size = takeBigEndian<std::uint32_t>();
    if (size > kLongestString) {
      WexDecodeException::raiseLong("invalid string size, tag: %d, size: %d", tag, static_cast<std::int32_t>(size));
    }
  } else {
    throwMismatch("string", tag, type);
  }
  const std::uint8_t* bytes = take(size);
  value = core::String(core::Bytes(bytes, size));
}

void WexInputStream::read(core::Data& value, std::uint8_t tag, bool isRequired) {
  std::uint8_t type = 0;
  if (!enter(tag, isRequired, type)) {
    return;
  }
  switch (type) {
    case DataHead::kSimpleList:
      value = readSimpleList(tag, type);
      break;
    case DataHead::kList:
      value = readByteList(tag, type);
      break;
    default:
      WexDecodeException::raiseLong("type mismatch, tag: %d, type: %d", tag, type);
  }
}

core::Data WexInputStream::readSimpleList(std::uint8_t tag, std::uint8_t type) {
  DataHead head;
  const std::size_t headSize = head.peekFrom(*this);
  if (head.type != DataHead::kChar || head.tag != 0) {
    WexDecodeException::raiseLong("type mismatch, tag: %d, type: %d, %d", tag, type, head.type);
  }
  skip(headSize);
  const std::int32_t count = readCount();
  if (count < 0) {
    WexDecodeException::raiseLong("invalid size, tag: %d, type: %d, %d, size: %d", tag, type, head.type, count);
  }
  const auto size = static_cast<std::size_t>(count);
  const std::uint8_t* bytes = take(size);
  return core::Data(bytes, size);
}

core::Data WexInputStream::readByteList(std::uint8_t tag, std::uint8_t type) {
  const std::int32_t count = readListCount(tag, type);
  core::Array<std::int8_t> bytes;
  bytes.reserve(roomFor<std::int8_t>(count));
  for (std::int32_t i = 0; i < count; ++i) {
    read(bytes.emplace(), 0, true);
  }
  return core::Data(bytes.data(), bytes.size());
}

std::int32_t WexInputStream::readCount() {
  std::int32_t count = 0;
  read(count, 0, true);
  return count;
}

std::int32_t WexInputStream::readMapCount(std::uint8_t tag, std::uint8_t type) {
  if (type != DataHead::kMap) {
    throwMismatch("map", tag, type);
  }
  const std::int32_t count = readCount();
  if (count < 0) {
    WexDecodeException::raiseLong("invalid map, tag: %d, size: %d", tag, count);
  }
  return count;
}

std::int32_t WexInputStream::readListCount(std::uint8_t tag, std::uint8_t type) {
  if (type != DataHead::kList) {
    throwMismatch("vector", tag, type);
  }
  const std::int32_t count = readCount();
  if (count < 0) {
    WexDecodeException::raiseLong("invalid size, tag: %d, type: %d, size: %d", tag, type, count);
  }
  return count;
}

bool WexInputStream::skipToTagSlowly(std::uint8_t tag) {
  try {
    for (;;) {
      DataHead head;
      const std::size_t headSize = head.peekFrom(*this);
      if (head.tag >= tag || head.type == DataHead::kStructEnd) {
        return head.tag == tag;
      }
      skip(headSize);
      skipField(head.type);
    }
  } catch (const WexDecodeException& exception) {
    const core::String line =
        core::kiv_format("WARN: skipToTag '%d' occur a WexDecodeException[%s]. \n", tag, exception.what());
    warningSink.load()(line);
    return false;
  }
}

void WexInputStream::skipField() {
  std::uint8_t type = 0;
  skipHead(type);
  skipField(type);
}

void WexInputStream::skipField(std::uint8_t type) {
  switch (type) {
    case DataHead::kChar:
      return skip(1);
    case DataHead::kShort:
      return skip(2);
    case DataHead::kInt32:
    case DataHead::kFloat:
      return skip(4);
    case DataHead::kInt64:
    case DataHead::kDouble:
      return skip(8);
    case DataHead::kString1:
      return skip(*take(1));
    case DataHead::kString4:
      return skip(takeBigEndian<std::uint32_t>());
    case DataHead::kMap:
      return skipFields(2 * std::int64_t{readCount()});
    case DataHead::kList:
      return skipFields(readCount());
    case DataHead::kStructBegin: {
      const Nesting level(nesting_);
      return skipToStructEnd();
    }
    case DataHead::kStructEnd:
    case DataHead::kZeroTag:
      return;
    case DataHead::kSimpleList:
      return skipSimpleList();
    default:
      WexDecodeException::raise("skipField with invalid type, type value:%d.", type);
  }
}

void WexInputStream::skipFields(std::int64_t count) {
  const Nesting level(nesting_);
  for (std::int64_t i = 0; i < count; ++i) {
    skipField();
  }
}

void WexInputStream::skipSimpleList() {
  DataHead head;
  skip(head.peekFrom(*this));
  if (head.type != 0 || head.tag != 0) {
    // The head's two bytes as one number, the type in the low one.
    WexDecodeException::raise("skipField with invalid type, type value: %d, %d.", +DataHead::kSimpleList,
                              head.type | head.tag << 8);
  }
  // A negative count becomes more than there ever is.
  skip(static_cast<std::uint64_t>(std::int64_t{readCount()}));
}

void WexInputStream::skipToStructEnd() {
  std::uint8_t type = 0;
  do {
    skipHead(type);
    skipField(type);
  } while (type != DataHead::kStructEnd);
}

void WexInputStream::throwMissing(std::uint8_t tag) {
  WexDecodeException::raise("require field not exist, tag: %d", tag);
}

// A char's text has a full stop; whoever compares texts relies on both.
void WexInputStream::throwMissingChar(std::uint8_t tag) {
  WexDecodeException::raise("require field not exist, tag: %d.", tag);
}

void WexInputStream::throwMismatch(std::string_view wanted, std::uint8_t tag, std::uint8_t type) {
  WexDecodeException::raise("read '%s' type mismatch, tag: %d, get type: %d.", wanted, tag, type);
}

}  // namespace analyticsyut
