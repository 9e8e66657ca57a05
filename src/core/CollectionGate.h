#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "records/KLVEvent.h"

namespace kelvo {

/// Attributes of one host call that arrived before the record of the user or the session existed.
struct BufferedAttributes {
  bool isUser = false;  ///< of the user, else of the session
  Dictionary attributes;
};

/// Decides whether a call is stored, buffered in memory or refused, and owns the buffers.
///
/// | State        | Meaning                                                | Destination exists | Destination missing |
/// |--------------|--------------------------------------------------------|--------------------|---------------------|
/// | idle         | `initializeWithKelvoID` has accepted no id             | buffer             | buffer              |
/// | initialising | an id is accepted; collection is not enabled           | buffer             | buffer              |
/// | running      | collection is enabled                                  | store              | buffer              |
/// | terminated   | another process owns the home, or collection is denied | refuse             | refuse              |
///
/// The destination of an event is the database. The destination of attributes or a token is the record of the user, the
/// session or the device. Records exist before the database, so a running gate may store attributes and still buffer
/// events. `isSDKInitCalled` is true in every state but idle, and `enableSDK` in the state running only.
///
/// Thread: not thread-safe. The controller owns the gate and guards it with its mutex.
class CollectionGate {
 public:
  enum class State { idle, initialising, running, terminated };
  enum class Decision { store, buffer, refuse };

  /// Leaves the state idle. Returns false if an earlier call did.
  [[nodiscard]] bool begin() noexcept;
  /// Changes between initialising and running. Does nothing in the other states.
  void setEnabled(bool enabled) noexcept;
  /// The database is ready: from now on it exists as the destination of events.
  void openDatabase() noexcept { databaseExists_ = true; }
  /// The start-up has ended, with the gate running or terminated.
  void finishStartUp() noexcept { startUpHasEnded_ = true; }
  /// Drops the buffered events and attributes, and refuses every later call permanently.
  /// Kept: once the database is ready, a running gate still stores.
  void terminate() noexcept;

  [[nodiscard]] State state() const noexcept { return state_; }
  [[nodiscard]] bool databaseExists() const noexcept { return databaseExists_; }
  [[nodiscard]] bool startUpHasEnded() const noexcept { return startUpHasEnded_; }
  [[nodiscard]] Decision decide(bool destinationExists) const noexcept;

  // Each of these returns true if the caller must store the data now. Otherwise it has buffered the data, or refused it
  // with one ERROR line.
  [[nodiscard]] bool admitEvent(const std::shared_ptr<KLVEvent>& event);
  /// Refuses where `admitEvent` buffers.
  [[nodiscard]] bool admitEventUnbuffered() const;
  [[nodiscard]] bool admitAttributes(BufferedAttributes call, bool recordExists);
  /// Keeps the latest token only.
  [[nodiscard]] bool admitToken(const std::string& token, bool recordExists);
  /// Logs that a call was refused. `kind`: "event" or "call".
  static void logRefusal(const char* kind);

  /// Appends to the buffered events without a decision.
  void bufferEvent(std::shared_ptr<KLVEvent> event) { events_.push_back(std::move(event)); }
  /// Returns the buffered events in the order of arrival, and empties the buffer.
  [[nodiscard]] std::vector<std::shared_ptr<KLVEvent>> takeEvents() noexcept { return std::exchange(events_, {}); }
  /// Returns the buffered attributes in the order of arrival, and empties the buffer.
  [[nodiscard]] std::vector<BufferedAttributes> takeAttributes() noexcept { return std::exchange(attributes_, {}); }
  /// Returns the latest buffered token, nullopt if there is none. It stays in the buffer.
  [[nodiscard]] const std::optional<std::string>& token() const noexcept { return token_; }

 private:
  template <class Buffer>
  bool admit(bool destinationExists, const char* kind, const Buffer& buffer);

  State state_ = State::idle;
  bool databaseExists_ = false;
  bool startUpHasEnded_ = false;
  std::vector<std::shared_ptr<KLVEvent>> events_;
  std::vector<BufferedAttributes> attributes_;
  std::optional<std::string> token_;
};

}  // namespace kelvo
