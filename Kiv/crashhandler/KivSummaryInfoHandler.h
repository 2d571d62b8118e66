#pragma once

#include "Core/Memory/Block.h"

/// Sends the summaries that wait in the store. Sends nothing yet: they stay there until the process
/// ends, and `success` is not called.
class KivSummaryInfoHandler {
 public:
  static KivSummaryInfoHandler& sharedHandler() noexcept {
    static auto& handler = *new KivSummaryInfoHandler;
    return handler;
  }

  void startReport(bool /*coldStart*/, const core::Block<void(bool)>& /*success*/) noexcept {}

 private:
  KivSummaryInfoHandler() noexcept = default;
  ~KivSummaryInfoHandler() = delete;
};
