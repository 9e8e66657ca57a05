#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/ThreadSafety.h"
#include "records/KLVEvent.h"
#include "records/KLVForegroundTime.h"

namespace kelvo {

/// The launch type of a session that replaces another one after a long absence. The first one's is "normal".
inline constexpr std::string_view kKLVRestart = "restart";

/// The controller methods that a session calls. Thread: any of them may be called on the bus's queue.
class KLVSessionDelegate {
 public:
  virtual void registerForEventWithType(KLVEventType type, const std::shared_ptr<KLVEventListener>& listener) = 0;
  virtual void deregisterForEventWithType(KLVEventType type, const std::shared_ptr<KLVEventListener>& listener) = 0;
  virtual void deRegisterIdentifer(const std::string& key, const std::shared_ptr<KLVEventListener>& listener) = 0;
  virtual void dispatchEvent(const std::shared_ptr<KLVEvent>& event) = 0;
  virtual void saveSessionInfoWithIndentifier(const std::optional<std::string>& identifier) = 0;
  virtual void startSessionWithLaunchType(const std::optional<std::string>& launchType) = 0;

 protected:
  ~KLVSessionDelegate() = default;  // never deleted through this type
};

/// One session: when and how the host was launched, how long it was in the foreground, whether it crashed, and the
/// host's session attributes.
///
/// A session is live from `initWithLaunchType` until `stopSession`: it listens on the bus. If the host returns to the
/// foreground more than 1,800 seconds after it went to the background, the session asks the controller for a new
/// session when it receives FOREGROUND, unless the controller has stopped it by then. At each cut it asks the
/// controller to save it. A session rebuilt from storage is never live. Thread-safe.
class KLVSession final : public KLVInfo, public KLVEventListener, public std::enable_shared_from_this<KLVSession> {
 public:
  /// Makes a live session that starts now, registers it on the bus and dispatches a session event. The identifier is
  /// "<launch time in milliseconds since 1970>-<device id>", with a device id that `KLVDeviceInfo::namePart` made safe.
  /// The first stretch in the foreground counts from the start of the SDK; under the rule `storesRestartedSessions`
  /// that of a restarted session counts from now. The delegate must outlive the session.
  static std::shared_ptr<KLVSession> initWithLaunchType(const std::string& launchType, const std::string& deviceId,
                                                        KLVSessionDelegate& delegate);
  /// Returns whether `text` has the form of a session's identifier. Any other text, from a damaged or planted database
  /// for example, must never become a part of a path.
  static bool isIdentifier(std::string_view text);
  /// Returns a record for a session whose own record is lost. The launch time comes from the id; all other values are
  /// those of a normal launch. The session is never live.
  static std::shared_ptr<KLVSession> rebuiltFromIdentifier(const std::string& identifier);
  /// For sessions rebuilt from storage.
  explicit KLVSession(std::string identifier) : KLVInfo(std::move(identifier)) {}

  [[nodiscard]] std::string_view className() const override { return "KLVSession"; }

  /// Ignores the null value.
  void setSessionAttribute(Value value, std::string_view key);
  [[nodiscard]] Dictionary sessionAttributes() const { return customInfo(); }

  void onEvent(const std::shared_ptr<KLVEvent>& event) override;

  /// Adds the seconds from the launch to `end` to the duration.
  void updateDuration(Date end);
  /// The host comes to the foreground. Returns true if it was away too long for this session to go on. `when` is the
  /// time of the report, as below.
  bool updateStartTime(Date when);
  /// The host goes to the background: adds the seconds of this stretch in the foreground to the duration. Adds nothing
  /// if the host was there already.
  void updateEndTime(Date when);
  /// Returns whether the host is in the background, by its latest report.
  [[nodiscard]] bool isInBackground();
  /// Goes on with the transitions that were reported before the session existed, and adds their time to the duration.
  void continueFrom(const KLVForegroundTime& earlier);
  void markSessionAsFatal();
  /// Ends the live state: from now on the session ignores events.
  void stopSession();

 private:
  void setLaunch(std::int64_t launchTime, Date startTime, std::string_view launchType, bool isFirst);
  void onForeground();
  void onChunkEnded();
  void addToDuration(KLVForegroundTime::Seconds seconds) REQUIRES(timesMutex_);

  std::atomic<KLVSessionDelegate*> delegate_{nullptr};  // set while the session is live
  std::atomic<bool> absenceWasLong_{false};
  Mutex timesMutex_;
  KLVForegroundTime foreground_ GUARDED_BY(timesMutex_){Date()};
};

}  // namespace kelvo
