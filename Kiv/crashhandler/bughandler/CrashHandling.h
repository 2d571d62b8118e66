#pragma once

class KivCrashData;

/// What the catchers and reports of this floor ask of the floor above, which knows the store and
/// the stall monitor: the fixed list of hooks that a crash calls. KivCrashHandler implements it and
/// sets itself before it installs anything. All of it is fit for the crash path.
class CrashHandling {
 public:
  /// The first sign of a crash: tells the rest of the process.
  virtual void setCrashAccidentHappen(bool happened) noexcept = 0;
  virtual bool isCrashAccidentHappen() const noexcept = 0;
  /// Stops the stall monitor, which would dump threads meanwhile.
  virtual void stopStallMonitor() noexcept = 0;
  /// Saves the report that `data`, or nullptr for the process's own crash data, describes.
  virtual bool crashHapped(KivCrashData* data) noexcept = 0;
  virtual void uninstallHandler() noexcept = 0;

  /// Never nothing: until somebody sets one, all of it does nothing.
  static CrashHandling& current() noexcept;
  static void setCurrent(CrashHandling& handling) noexcept;

 protected:
  ~CrashHandling() = default;
};
