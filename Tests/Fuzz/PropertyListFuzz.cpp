#include <cstdlib>

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Platform/Foundation/PropertyListReader.h"

/// Whatever either reader takes must come back the same from the binary form.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto value = platform::readPropertyList({data, size});
  if (!value) {
    return 0;
  }
  const core::Data written = core::encodeBinaryPropertyList(*value);
  const auto back = core::decodeBinaryPropertyList(written.span());
  // Bytes tell what values do not: one zero from the other, a NaN from itself.
  if (!back || !(core::encodeBinaryPropertyList(*back) == written)) {
    std::abort();
  }
  // A NaN makes a value differ from itself.
  if (*value == *value && !(*back == *value)) {
    std::abort();
  }
  return 0;
}
