#include <cstdlib>

#include "Kiv/common/model/zem/ExceptionUpload.h"
#include "Kiv/common/model/zem/KivStrategy.h"
#include "Kiv/common/model/zem/RequestPkg.h"
#include "Kiv/common/model/zem/ResponsePkg.h"
#include "Kiv/common/model/zem/UserInfoPackage.h"
#include "Kiv/common/wex/WexDecodeException.h"
#include "Kiv/common/wex/WexFieldReader.h"

namespace {

using namespace analyticsyut;
using Bytes = std::span<const std::uint8_t>;

/// What could be read must come back the same from what is written of it.
template <class Value>
void readValue(Bytes bytes) {
  Value value;
  try {
    WexInputStream in(bytes);
    in.read(value, 0, true);
  } catch (const WexDecodeException&) {
    return;
  }
  WexOutputStream out;
  out.write(value, 0);
  WexInputStream again(out.span());
  Value back;
  again.read(back, 0, true);
  if (!(back == value) || again.left() != 0) {
    std::abort();
  }
}

class Nobody : public WexFieldVisitor {
  void value(const WexFieldEvent&) override {}
  void begin(const WexFieldEvent&) override {}
  void end(const WexFieldEvent&) override {}
};

/// What is sound for one that knows no record, the stream passes over to the same end.
void passOver(Bytes bytes) {
  Nobody nobody;
  if (WexFieldReader::read(bytes, nobody).error.empty()) {
    WexInputStream in(bytes);
    while (in.left() != 0) {
      in.skipField();
    }
  }
}

constexpr void (*kReaders[])(Bytes) = {
    readValue<kiv::RequestPkg>,
    readValue<kiv::ResponsePkg>,
    readValue<kiv::UserInfoPackage>,
    readValue<kiv::KivStrategy>,
    readValue<core::Array<kiv::ExceptionUpload>>,
    readValue<core::SortedMap<core::SortedMap<core::Data>>>,
    readValue<core::Data>,
};

}  // namespace

/// The first byte chooses what the others are read as.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  WexInputStream::setWarningSink([](std::string_view) {});
  if (size != 0) {
    const Bytes bytes(data + 1, size - 1);
    kReaders[data[0] % std::size(kReaders)](bytes);
    passOver(bytes);
  }
  return 0;
}
