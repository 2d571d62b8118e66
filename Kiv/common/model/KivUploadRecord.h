#pragma once

#include "Kiv/common/wex/WexOutputStream.h"

/// What a request can carry: it writes its own encoded record.
class KivUploadRecord {
 public:
  virtual ~KivUploadRecord() = default;

  /// Writes the record with tag 0; nullptr is logged. Throws WexDecodeException for a text beyond 100 MiB.
  virtual void setDataToBuffer(analyticsyut::WexOutputStream* jout) const = 0;
};
