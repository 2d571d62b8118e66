#pragma once

class KivExpObj;

/// Is told of each crash that was saved, and of each report of the program's own.
class KivCrashListener {
 public:
  /// With the stored record. On the thread that saved it: of a crash, its owner, so that all of it is fit
  /// for the crash path.
  virtual void onCrashHappened(const KivExpObj& record) noexcept = 0;

 protected:
  ~KivCrashListener() = default;
};
