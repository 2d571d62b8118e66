#include "Kiv/common/wex/BufferReader.h"

#include "Kiv/common/wex/WexDecodeException.h"

namespace analyticsyut {

void BufferReader::throwPeekOverflow() const {
  WexDecodeException::raise("buffer overflow when peekBuf with offset, over %u.", length_);
}

// Collectors know the reading call by this text too.
void BufferReader::throwReadOverflow() const {
  WexDecodeException::raise("buffer overflow when peekBuf, over %u.", length_);
}

void BufferReader::throwSkipOverflow() const {
  WexDecodeException::raise("buffer overflow when skip, over %u.", length_);
}

}  // namespace analyticsyut
