#pragma once

#include <string_view>

#include "Core/Memory/Array.h"
#include "Core/Memory/String.h"

namespace core {

/// The texts one after the other with `separator` between them.
inline String joined(const Array<String>& texts, std::string_view separator) noexcept {
  StringBuilder made;
  for (const String& text : texts) {
    if (&text != texts.begin()) {
      made.append(separator);
    }
    made.append(text);
  }
  return made.str();
}

}  // namespace core
