#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "records/KLVEvent.h"

namespace kelvo {

/// What a session asks of the controller; every call may come on the bus's queue.
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

/// One session of the application: when and how it was launched, how long it was in the foreground, whether it
/// crashed, and the host's session attributes.
///
/// From its start until `stopSession` it listens on the bus: a return to the foreground more than 1,800 seconds
/// after it went to the background has a new session started; after every chunk it has itself saved.
class KLVSession final : public KLVInfo, public KLVEventListener, public std::enable_shared_from_this<KLVSession> {
 public:
  /// Makes the session of this launch, registers it on the bus and announces it with a session event.
  /// Its identifier is "<launch time in milliseconds>-<device id>".
  static std::shared_ptr<KLVSession> initWithLaunchType(const std::string& launchType, const std::string& deviceId,
                                                        KLVSessionDelegate& delegate);
  /// For sessions rebuilt from storage, which listen to nothing.
  explicit KLVSession(std::string identifier) : KLVInfo(std::move(identifier)) {}

  [[nodiscard]] std::string_view className() const override { return "KLVSession"; }

  /// The null value is ignored.
  void setSessionAttribute(Value value, std::string_view key);
  [[nodiscard]] Dictionary sessionAttributes() const { return customInfo(); }

  void onEvent(const std::shared_ptr<KLVEvent>& event) override;

  /// Adds the seconds from the launch to `end` to the duration.
  void updateDuration(Date end);
  /// The application goes to the background now: adds the seconds of this foreground stretch to the duration.
  void updateEndTime();
  void markSessionAsFatal();
  void stopSession();

 private:
  void onForeground();
  void onChunkEnded();
  void addToDuration(double seconds);

  std::atomic<KLVSessionDelegate*> delegate_{nullptr};  // none once stopped
  std::mutex timesMutex_;
  Date startTime_;
  std::optional<Date> endTime_;
};

}  // namespace kelvo
