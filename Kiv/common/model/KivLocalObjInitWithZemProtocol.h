#pragma once

#include "Kiv/common/wex/WexInputStream.h"

/// A model that a response can bring: it reads itself from the response's plain payload.
class KivLocalObjInitWithZemProtocol {
 public:
  virtual ~KivLocalObjInitWithZemProtocol() = default;

  /// Catches and logs what the payload throws; the object then stays as it was.
  virtual void initLocalObjWithZemBuffer(analyticsyut::WexInputStream& reader) noexcept = 0;
};
