#include "Kiv/common/wex/UniAttribute.h"

#include <stdexcept>

#include "Core/Text/Format.h"

namespace analyticszem {

const core::Data& UniAttribute::bytesOf(std::string_view name, std::string_view type) const {
  const TypedBytes* types = data_.find(name);
  if (types == nullptr) {
    throw std::runtime_error(core::kiv_format("UniAttribute not found key:%@,type:%@", name, type).str());
  }
  if (const core::Data* bytes = types->find(type)) {
    return *bytes;
  }
  if (types->empty()) {
    throw std::runtime_error(core::kiv_format("UniAttribute type match fail,key:%@,type:%@,", name, type).str());
  }
  const auto& [firstType, firstBytes] = *types->begin();
  if (firstType.view().find('?') != std::string_view::npos) {
    return firstBytes;
  }
  throw std::runtime_error(
      core::kiv_format("UniAttribute type match fail,key:%@,type:%@,may be:%@", name, type, firstType).str());
}

}  // namespace analyticszem
