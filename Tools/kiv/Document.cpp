#include "Tools/kiv/Document.h"

#include "Core/Text/Utf8.h"
#include "Core/Text/Uuid.h"

namespace {

bool isControl(char32_t character) {
  return (character < ' ' && character != '\n' && character != '\t' && character != '\r') ||
         (character >= 0x7F && character < 0xA0);
}

/// A text that a terminal can show: UTF-8 without control characters but white space.
bool isReadable(std::string_view text) {
  while (!text.empty()) {
    const core::Utf8Character next = core::decodeUtf8(text);
    if (!next.valid || isControl(next.codePoint)) {
      return false;
    }
    text.remove_prefix(next.size);
  }
  return true;
}

}  // namespace

Document documentOfBytes(ByteView bytes) {
  if (isReadable(textOf(bytes))) {
    return std::string(textOf(bytes));
  }
  return {{"bytes", bytes.size()}, {"hex", core::lowerHex(bytes).str()}};
}
