#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo-collector/store/Erasure.h"
#include "kelvo-collector/store/Expectations.h"
#include "kelvo-service/Service.h"
#include "kelvo/Value.h"
#include "platform/ThreadSafety.h"

namespace kelvo::collector {

/// A request as it arrived.
struct ReceivedRequest {
  std::int64_t sequence = 0;  ///< 1, 2, 3 ... in order of arrival
  std::int64_t time = 0;      ///< milliseconds since 1970
  std::string method;
  std::string path;    ///< as sent, percent-encoded
  std::string query;   ///< as sent, without the question mark
  Dictionary headers;  ///< names in lower case
  std::string body;
  int status = 0;   ///< status of the answer, 0 without a complete answer
  Device device{};  ///< that the request names; without an id if it names none

  /// Returns the body parsed as JSON, null if it is not JSON.
  [[nodiscard]] Value json() const;
  /// Returns the header called `name` (in lower case), empty if there is none.
  [[nodiscard]] std::string header(std::string_view name) const;
};

/// One accepted chunk. The same chunk may arrive again if its sender did not receive the answer.
struct ReceivedChunk {
  std::int64_t request = 0;  ///< `sequence` of the request that brought it
  std::int64_t time = 0;     ///< milliseconds since 1970
  std::string application;
  std::string id;
  std::string session;
  std::int64_t number = 0;
  Dictionary eventCounts;  ///< list of events ("app_events" ...) to their number
  bool duplicate = false;  ///< an earlier chunk has the same id and the same events
  bool conflict = false;   ///< an earlier chunk has the same id and other events
};

using service::Accepted;

/// Stores requests, their content and the service's documents in SQLite. Thread-safe: one mutex serialises all use.
///
/// The store has a limit. Beyond it, each new request makes room for itself: see `forgetOldest`.
class Store {
 public:
  static constexpr std::int64_t kUsualLimit = 512LL << 20U;  ///< bytes

  /// Opens or creates the file `path`, which gets mode 0600. Throws std::runtime_error on failure, and if another user
  /// could read or replace the file.
  explicit Store(const std::string& path = ":memory:", std::int64_t mostBytes = kUsualLimit);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// Stores the request, and the chunk in its body if `chunkOf` names the application that sent one. Stores both or
  /// neither; returns false on failure. Of a request of an erased device, stores only that it came.
  [[nodiscard]] bool add(const ReceivedRequest& request, const std::optional<std::string>& chunkOf) EXCLUDES(mutex_) {
    return add(request, Accepted{chunkOf, std::nullopt});
  }
  [[nodiscard]] bool add(const ReceivedRequest& request, const Accepted& accepted) EXCLUDES(mutex_);
  /// Erases the device if `secret` is its secret. Returns the outcome, nullopt if the store failed. `time` is in
  /// milliseconds since 1970. Takes longer the more the store has.
  [[nodiscard]] std::optional<Erasure> erase(const Device& device, const std::string& secret, std::int64_t time)
      EXCLUDES(mutex_);
  /// Deletes all requests and their content, and frees their space; returns false on failure. Documents stay, and
  /// sequence numbers continue.
  [[nodiscard]] bool reset() EXCLUDES(mutex_);

  /// Returns the requests whose path and query contain `fragment` and whose sequence number is above `after`, `most` of
  /// them at most, in order of arrival. For chunks, `after` is the sequence number of the request with the chunk.
  [[nodiscard]] std::vector<ReceivedRequest> requests(const std::string& fragment = {}, std::int64_t after = 0,
                                                      std::int64_t most = INT64_MAX) const EXCLUDES(mutex_);
  [[nodiscard]] std::vector<ReceivedChunk> chunks(std::int64_t after = 0, std::int64_t most = INT64_MAX) const
      EXCLUDES(mutex_);
  /// Returns the bodies of all accepted chunks, in order of arrival.
  [[nodiscard]] std::vector<Value> chunkBodies() const EXCLUDES(mutex_);

  /// Blocks until `count` requests or chunks have arrived. Returns false if `timeout` passes first.
  [[nodiscard]] bool waitForRequests(std::size_t count, const std::string& fragment,
                                     std::chrono::milliseconds timeout) const EXCLUDES(mutex_);
  [[nodiscard]] bool waitForChunks(std::size_t count, std::chrono::milliseconds timeout) const EXCLUDES(mutex_);

  /// Returns the saved text of a document of the service, nullopt if there is none.
  [[nodiscard]] std::optional<std::string> document(const std::string& name) const EXCLUDES(mutex_);
  /// Saves a document. Returns false on failure.
  [[nodiscard]] bool keepDocument(const std::string& name, const std::string& body) EXCLUDES(mutex_);

  /// Puts the expectations in force and saves their `document`. Judges all stored events again, so the time grows with
  /// the number of events whose names it contains. Returns false on failure, and then changes nothing.
  [[nodiscard]] bool expect(const Expectations& expectations, const std::string& document) EXCLUDES(mutex_);

  /// Runs `writer(database)` in a transaction; returns false on failure. The mutex is held meanwhile.
  template <class Writer>
  [[nodiscard]] bool change(Writer writer) EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    Database& database = *database_;
    return database.transaction([&] { writer(database); });
  }

  /// Returns the result of `reader(database)`. The mutex is held meanwhile, so `reader` must not call the store.
  template <class Reader>
  auto read(Reader reader) const EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    return reader(*database_);
  }

 private:
  [[nodiscard]] std::size_t count(const char* sql, const std::string& fragment) const REQUIRES(mutex_);
  /// Blocks until the count that `sql` selects is `wanted` or more. Returns false if `timeout` passes first.
  [[nodiscard]] bool waitForCount(std::size_t wanted, const char* sql, const std::string& fragment,
                                  std::chrono::milliseconds timeout) const EXCLUDES(mutex_);

  const std::int64_t mostBytes_;
  mutable Mutex mutex_;
  mutable std::condition_variable arrived_;  // notified for each stored request
  const std::unique_ptr<Database> database_ PT_GUARDED_BY(mutex_);
  std::shared_ptr<const Expectations> expectations_ GUARDED_BY(mutex_) = std::make_shared<const Expectations>();
};

}  // namespace kelvo::collector
