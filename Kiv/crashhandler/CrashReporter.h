#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#ifndef KIV_EXPORT
#define KIV_EXPORT __attribute__((visibility("default")))
#endif

class NSError;
class NSException;

/// The crash and stall reporter of this process: all that a program calls.
///
///     CrashReporter& reporter = CrashReporter::sharedInstance();
///     reporter.setBundleVer("1.4.2");
///     reporter.installWithAppkey("com.example.editor");
///
/// Every operation may be called from any thread at any time, but not from a signal handler.
/// Texts are UTF-8 and copied; a view with null data (`{}`) is "no text". Nothing throws:
/// refusals are answers and lines of the library's log on standard error.
///
/// Installed, the library keeps its data in "com.velmora.kiv" under $XDG_DATA_HOME (else
/// ~/.local/share) in a directory named after the program's bundle identifier.
class KIV_EXPORT CrashReporter {
 public:
  using TextMap = std::map<std::string, std::string>;

  static CrashReporter& sharedInstance();

  CrashReporter(const CrashReporter&) = delete;
  CrashReporter& operator=(const CrashReporter&) = delete;

  // Installation ---------------------------------------------------------------------------

  /// Installs with the key, channel and version of the main bundle's Info.plist:
  /// "ZephyAppIDString", "ZephyAppChannelString", "ZephyAppVersionString" and
  /// "ZephyDebugEnable", which turns the log on.
  bool install();

  /// Installs the handlers and starts the library under the application key `appkey` (white
  /// space at its ends is dropped). False when it is installed already, when the key is empty
  /// or blank, and when a debugger is attached.
  bool installWithAppkey(std::string_view appkey);
  bool installWithAppkey(std::string_view appkey, std::string_view applicationGroupIdentifier);
  bool installWithAppId(std::string_view appId);
  bool installWithAppId(std::string_view appId, std::string_view applicationGroupIdentifier);

  /// Takes the handlers out again. Stored reports stay; a later install starts anew.
  void uninstall();

  std::optional<std::string> applicationGroupIdentifier() const;
  void setApplicationGroupIdentifier(std::string_view identifier);

  /// The library's log: everything (level 5) or only the lines that are always written (0).
  void enableLog(bool enable);

  /// Whether `text` holds anything but blanks.
  static bool isValidNSString(std::string_view text);

  /// While not installed: clears the process's uncaught-exception handler, and sets SIGABRT,
  /// SIGILL, SIGSEGV, SIGFPE, SIGBUS and SIGTRAP to their default actions.
  void cleanUncaughtExceptionAndSignalHandler();
  void cleanUncaughtExceptionHandler(bool exceptionHandler, bool signalHandler);

  /// Where reports are sent, in place of the built-in address and of the Info.plist's
  /// "ZephyCollectURLString". False for anything but an http or https URL.
  bool setCollectUrl(std::string_view url);

  /// Whether reports go to the https addresses (the default) or to the http ones.
  void enableAppTransportSecurity(bool enable);

  /// Whether a launch reports that the previous run ended without a crash or a clean exit.
  void enableUnexpectedTerminatingDetection(bool enable);
  /// Asked at such a launch for a text to attach; may answer nullptr.
  void setSigkillReportCallback(const char* (*callback)());

  // Identity -------------------------------------------------------------------------------
  // Setters ignore "no text" and "".

  void setBundleId(std::string_view bundleId);
  void setBundleVer(std::string_view version);
  void setChannel(std::string_view channel);
  /// A changed user or device is recorded as the start of a new session.
  void setUserId(std::string_view userId);
  void setDeviceId(std::string_view deviceId);
  std::string deviceIdentifier() const;
  std::string sdkVersion() const;

  /// Moves the data directory to `path`, making it. What is loaded already stays as it is.
  bool resetDBPath(std::string_view path);

  // Crash capture --------------------------------------------------------------------------

  /// Called on the crashing thread while a crash is handled, with one second to return.
  void setUserCrashHandlerCallback(int (*callback)());
  void setUserMachHandler(bool use);
  /// Whether equal crashes are merged into one report with a count.
  void setExpMergeUpload(bool merge);
  /// A text to attach to a crash; its first 10,240 characters are kept.
  void setAttachLog(std::string_view log);
  /// Crashes whose stack has a module with one of these names in its name are dropped, or are
  /// the only ones kept.
  bool setExcludeShortName(const std::vector<std::string>& names);
  bool setIncludeShortName(const std::vector<std::string>& names);
  /// Whether crashes that these filters drop still count for isLastCloseByCrash.
  bool setLastCloseByIncludExclued(bool enable);
  /// Whether the previous run ended with a crash.
  bool isLastCloseByCrash();
  /// Whether the program's own functions are named in stacks on this machine.
  void setEnableSymbolicateInProcess(bool enable);
  /// Before installing: whether uncaught exceptions and fatal signals are caught at all.
  void enableNSExceptionReporter(bool enable);
  void enableSignalErrorReporter(bool enable);
  /// Whether the library's handler is the one in force.
  bool checkNSExceptionHandler();
  bool checkSignalHandler();
  bool enableSignalHandlerCheckable(bool enable);
  /// Sends stored crashes now. False when that cannot start.
  bool checkAndUpload();
  /// The stacks of all threads as they are now; each thread is stopped for a moment. For each its
  /// name, where it has one, its number, a line a frame and an empty line. Takes some milliseconds.
  std::string currentThreadStacks();

  // Scenes and user data -------------------------------------------------------------------

  void setSceneTag(unsigned long scene);
  unsigned long currentSceneTag();
  /// Keys of letters and digits, 64 characters at most; values 512; 15 entries in all.
  void setSceneValue(std::string_view value, std::string_view key);
  void removeSceneValueForKey(std::string_view key);
  void removeAllSceneValues();
  std::optional<std::string> sceneValueForKey(std::string_view key);
  TextMap allSceneValues();
  /// One of the last 100 things that happened, 200 characters at most.
  void sessionEvent(std::string_view event);
  /// Keys of 64 characters at most, values 512, 20 entries.
  void setUserData(std::string_view key, std::string_view value);

  // The crash being handled, for the callback ----------------------------------------------

  std::shared_ptr<const NSException> getCurrentException();
  std::optional<std::string> getCrashLog();
  std::optional<std::string> getCrashStack();
  std::optional<std::string> getCrashType();

  // Stall monitor --------------------------------------------------------------------------

  void enableBlockMonitor(bool enable);
  void enableBlockMonitor(bool enable, bool autoReport);
  /// How long the main loop may stay in one phase, in milliseconds.
  void setBlockMonitorJudgementLoopTimeout(double milliseconds);
  void setBlockMonitorRemoteStrategyIgnored(bool ignored);
  void checkBlockDataExistAndReport();
  void startBlockMonitor();
  void stopBlockMonitor();

  // Reporting ------------------------------------------------------------------------------
  // The report is made on a background thread; null objects are ignored.

  void reportError(const NSError* error, std::string_view reason, const TextMap& extraInfo);
  void reportException(const NSException* exception, std::string_view reason, const TextMap& extraInfo);
  void reportException(const NSException* exception, std::string_view message);
  /// `category` 3 native, 4 C#, 5 JavaScript, 6 Lua; `callStack` one line a frame.
  /// `terminateApp` ends the process with status 0 afterwards.
  void reportException(unsigned long category, std::string_view name, std::string_view reason,
                       std::string_view callStack, const TextMap& extraInfo, bool terminateApp);

  // Without effect; kept so that callers need not change -----------------------------------

  void enableViewControllerTracking(bool enable);
  void enableConsoleLogReport(bool enable);
  void checkExtensionExceptions();
  void handleWatchKitExtensionRequest(const TextMap& request, void (*reply)(const TextMap&));
  void reportUnityExceptionWithName(std::string_view name, std::string_view reason, std::string_view stack);

  // Crashing on purpose --------------------------------------------------------------------

  /// Throws an NSRangeException, which ends the program unless it is caught.
  void testThrowNSException();
  void testSignalError();

 private:
  CrashReporter();
  ~CrashReporter() = delete;

  struct State;
  State* state_;
};
