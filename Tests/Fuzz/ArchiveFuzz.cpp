#include <cstdlib>

#include "Core/PropertyList/ArchivedProperties.h"
#include "Kiv/common/model/KivExpObj.h"

namespace {

/// Any value, as the one property of an object.
struct Holder {
  static constexpr std::string_view kClassName = "Holder";
  core::Value any;
  static constexpr auto kProperties = core::archive::properties(core::archive::property("any", &Holder::any));
};

/// What was read from `bytes` must come back the same, to the byte, from its own archive.
template <class Object>
void readAndRepeat(std::span<const std::uint8_t> bytes) {
  const auto object = core::archive::unarchived<Object>(bytes);
  if (!object) {
    return;
  }
  const core::Data written = core::archive::archived(*object);
  const auto back = core::archive::unarchived<Object>(written.span());
  if (!back || !(core::archive::archived(*back) == written)) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  readAndRepeat<KivExpObj>(bytes);
  readAndRepeat<Holder>(bytes);
  if (const auto value = core::archive::readKeyedArchive(bytes)) {
    readAndRepeat<Holder>(core::archive::archived(Holder{*value}).span());
  }
  return 0;
}
