#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "records/KLVEvent.h"
#include "util/KLVLedger.h"

namespace kelvo {

/// Attributes of one host call that arrived before the stored user was merged.
struct BufferedAttributes {
  bool isUser = false;  ///< of the user, else of the session
  Dictionary attributes;
  KLVWaitingCall call{};

  /// Sets the attributes on the record that they are for.
  void applyTo(KLVInfo& record) const;
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
/// The destination of an event is the database. The destination of attributes is the record of the user or the session,
/// and the destination of a token is the record of the device. Each destination exists from its own moment on, after
/// which later calls are stored. `isSDKInitCalled` is true in every state but idle, and `enableSDK` in the state
/// running only. A process that must leave the home to another one stays initialising, so that it buffers.
///
/// Thread: not thread-safe. The controller owns the gate and guards it with its mutex.
class CollectionGate {
 public:
  enum class State { idle, initialising, running, terminated };
  enum class Decision { store, buffer, refuse, drop };

  /// Leaves the state idle. Returns false if an earlier call did.
  [[nodiscard]] bool begin() noexcept;
  /// Changes between initialising and running. Does nothing in the other states.
  void setEnabled(bool enabled) noexcept;
  /// Returns the buffered events for the caller to store, and empties the buffer. Once it returns none, the database
  /// exists as the destination of events. Called repeatedly, it keeps later events behind the buffered ones.
  [[nodiscard]] std::vector<std::shared_ptr<KLVEvent>> openDatabase() noexcept;
  /// The stored user is merged: from now on the records exist as the destination of attributes.
  void openRecords() noexcept { recordsExist_ = !isClosed_; }
  /// The start-up has ended, with the gate running or terminated.
  void finishStartUp() noexcept { startUpHasEnded_ = !isClosed_; }
  /// An erasure begins: empties all buffers, and drops every event and attribute silently until `reopen`, whatever the
  /// state. A token is buffered. Leaves a state other than idle for initialising, and keeps it. The ledger counts
  /// dropped events as not stored.
  void close() noexcept;
  /// The erasure has ended: begins again without destinations. Tokens from the time since `close` stay buffered.
  void reopen() noexcept;
  /// Drops the buffered events and attributes, and refuses every later call permanently. The ledger counts dropped and
  /// refused events under `reason`.
  /// Kept: once the database is ready, a running gate still stores.
  void terminate(KLVLedgerEntry reason = KLVLedgerEntry::refusedTerminated) noexcept;

  /// Returns true from `close` to `reopen`.
  [[nodiscard]] bool isClosed() const noexcept { return isClosed_; }
  [[nodiscard]] State state() const noexcept { return state_; }
  [[nodiscard]] bool databaseExists() const noexcept { return databaseExists_; }
  [[nodiscard]] bool recordsExist() const noexcept { return recordsExist_; }
  [[nodiscard]] bool startUpHasEnded() const noexcept { return startUpHasEnded_; }
  [[nodiscard]] Decision decide(bool destinationExists) const noexcept;

  // Each of these returns true if the caller must store the data now. Otherwise it has buffered the data, or refused it
  // with one ERROR line.
  [[nodiscard]] bool admitEvent(const std::shared_ptr<KLVEvent>& event);
  /// Admits the lifetime count of `event`. Buffers nothing if the latest `admitEvent` of an application event buffered
  /// this one: it is counted where it is stored, even if that has happened meanwhile.
  [[nodiscard]] bool admitCount(const std::shared_ptr<KLVEvent>& event);
  /// Refuses where `admitEvent` buffers.
  [[nodiscard]] bool admitEventUnbuffered() const;
  [[nodiscard]] bool admitAttributes(const BufferedAttributes& call);
  /// Keeps the latest token only. `call`: the host call that gives it.
  [[nodiscard]] bool admitToken(const std::string& token, bool recordExists, const KLVWaitingCall& call = {});
  /// Logs that a call was refused. `kind`: "event" or "call".
  static void logRefusal(const char* kind);

  // Each of these returns buffered data in the order of arrival, and empties the buffer.
  [[nodiscard]] std::vector<std::shared_ptr<KLVEvent>> takeEvents() noexcept { return std::exchange(events_, {}); }
  [[nodiscard]] std::vector<BufferedAttributes> takeAttributes() noexcept { return std::exchange(attributes_, {}); }
  /// The attributes of the session stay buffered.
  [[nodiscard]] std::vector<BufferedAttributes> takeUserAttributes();
  // Each of these puts taken data back, in front of what arrived meanwhile.
  void putBack(const std::vector<std::shared_ptr<KLVEvent>>& events);
  void putBack(const std::vector<BufferedAttributes>& calls);
  /// Returns the latest buffered token, nullopt if there is none. It stays in the buffer.
  [[nodiscard]] const std::optional<std::string>& token() const noexcept { return token_; }
  [[nodiscard]] const KLVWaitingCall& tokenCall() const noexcept { return tokenCall_; }

 private:
  template <class Buffer>
  bool admit(bool destinationExists, const char* kind, const Buffer& buffer);
  void countRefusal(const KLVEvent& event) const;

  State state_ = State::idle;
  KLVLedgerEntry refusal_ = KLVLedgerEntry::refusedDisabled;
  bool isClosed_ = false;
  bool databaseExists_ = false;
  bool recordsExist_ = false;
  bool startUpHasEnded_ = false;
  std::vector<std::shared_ptr<KLVEvent>> events_;
  std::shared_ptr<KLVEvent> awaitsCount_;  ///< the event that `admitCount` must not buffer again
  std::vector<BufferedAttributes> attributes_;
  std::optional<std::string> token_;
  KLVWaitingCall tokenCall_;
};

}  // namespace kelvo
