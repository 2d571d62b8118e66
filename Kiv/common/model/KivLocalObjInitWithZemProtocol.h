#pragma once

#include "Kiv/common/wex/WexInputStream.h"

/// A model that a response can bring: it reads itself from the response's plain payload. Never deleted
/// as such; a shared pointer knows what it was made of.
class KivLocalObjInitWithZemProtocol {
 public:
  /// Catches and logs what the payload throws; the object then stays as it was.
  virtual void initLocalObjWithZemBuffer(analyticsyut::WexInputStream& reader) noexcept = 0;

 protected:
  ~KivLocalObjInitWithZemProtocol() = default;
};
