#pragma once

class KivExpObj;

/// Who is told of a crash once its record is saved: on the crashing thread, which is about to end
/// the process. Registered with KivCrashHandler, which keeps the pointer for good.
class KivCrashListener {
 public:
  virtual void onCrashHappened(const KivExpObj& record) noexcept = 0;

 protected:
  ~KivCrashListener() = default;
};
