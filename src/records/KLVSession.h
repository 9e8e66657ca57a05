#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "platform/ThreadSafety.h"
#include "records/KLVEvent.h"

namespace kelvo {

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
/// session. At each cut it asks the controller to save it. A session rebuilt from storage is never live. Thread-safe.
class KLVSession final : public KLVInfo, public KLVEventListener, public std::enable_shared_from_this<KLVSession> {
 public:
  /// Makes a live session that starts now, registers it on the bus and dispatches a session event. The identifier is
  /// "<launch time in milliseconds since 1970>-<device id>". The delegate must outlive the session.
  static std::shared_ptr<KLVSession> initWithLaunchType(const std::string& launchType, const std::string& deviceId,
                                                        KLVSessionDelegate& delegate);
  /// For sessions rebuilt from storage.
  explicit KLVSession(std::string identifier) : KLVInfo(std::move(identifier)) {}

  [[nodiscard]] std::string_view className() const override { return "KLVSession"; }

  /// Ignores the null value.
  void setSessionAttribute(Value value, std::string_view key);
  [[nodiscard]] Dictionary sessionAttributes() const { return customInfo(); }

  void onEvent(const std::shared_ptr<KLVEvent>& event) override;

  /// Adds the seconds from the launch to `end` to the duration.
  void updateDuration(Date end);
  /// Called when the host goes to the background: adds the seconds of this stretch in the foreground to the duration.
  void updateEndTime();
  void markSessionAsFatal();
  /// Ends the live state: from now on the session ignores events.
  void stopSession();

 private:
  void onForeground();
  void onChunkEnded();
  void addToDuration(double seconds) REQUIRES(timesMutex_);

  std::atomic<KLVSessionDelegate*> delegate_{nullptr};  // set while the session is live
  Mutex timesMutex_;
  Date startTime_ GUARDED_BY(timesMutex_);               // of the latest stretch in the foreground
  std::optional<Date> endTime_ GUARDED_BY(timesMutex_);  // nullopt before the first one ends
};

}  // namespace kelvo
