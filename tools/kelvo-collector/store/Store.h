#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo-collector/store/Database.h"
#include "kelvo/Value.h"

namespace kelvo::collector {

/// One request as it arrived.
struct ReceivedRequest {
  std::int64_t sequence = 0;  ///< 1, 2, 3 ... in order of arrival
  std::int64_t time = 0;      ///< milliseconds since 1970
  std::string method;
  std::string path;    ///< as sent, percent-encoded
  std::string query;   ///< as sent, without the question mark
  Dictionary headers;  ///< names in lower case
  std::string body;
  int status = 0;  ///< what was answered; 0 when no complete answer was given

  /// The body as JSON; the null value when it is none.
  [[nodiscard]] Value json() const;
  /// The header of that lower-case name; the empty text when there is none.
  [[nodiscard]] std::string header(std::string_view name) const;
};

/// One accepted chunk. The same chunk may arrive again, when its sender never learnt that it had arrived.
struct ReceivedChunk {
  std::int64_t request = 0;  ///< `sequence` of the request that brought it
  std::int64_t time = 0;     ///< milliseconds since 1970
  std::string application;
  std::string id;
  std::string session;
  std::int64_t number = 0;
  Dictionary eventCounts;  ///< kind of event, "app_events" and so on, to the number of events
  bool duplicate = false;  ///< came before with the same events
  bool conflict = false;   ///< came before with other events
};

/// What a request brought that the service accepted: the application that sent a chunk or its user's attributes.
struct Accepted {
  std::optional<std::string> chunkOf;
  std::optional<std::string> userOf;
};

/// Keeps what arrived, and the service's documents, in SQLite. Safe to use from any thread.
class Store {
 public:
  /// `path` is a file to open or make; throws std::runtime_error when that fails.
  explicit Store(const std::string& path = ":memory:");
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// Keeps the request, together with the chunk that it brought when `chunkOf` names the application that sent one.
  /// Both or neither are kept; false when they could not be.
  [[nodiscard]] bool add(const ReceivedRequest& request, const std::optional<std::string>& chunkOf) {
    return add(request, Accepted{chunkOf, std::nullopt});
  }
  [[nodiscard]] bool add(const ReceivedRequest& request, const Accepted& accepted);
  /// Forgets what arrived; the documents stay, and sequence numbers go on.
  [[nodiscard]] bool reset();

  /// Requests whose path and query contain `fragment`, after the one with the sequence number `after`, and no more than
  /// `most`; of chunks, it is the sequence number of the request that brought one.
  [[nodiscard]] std::vector<ReceivedRequest> requests(const std::string& fragment = {}, std::int64_t after = 0,
                                                      std::int64_t most = INT64_MAX) const;
  [[nodiscard]] std::vector<ReceivedChunk> chunks(std::int64_t after = 0, std::int64_t most = INT64_MAX) const;
  /// The bodies of the accepted chunks, in order of arrival.
  [[nodiscard]] std::vector<Value> chunkBodies() const;

  /// Waits until that many have arrived; false when `timeout` has passed first.
  [[nodiscard]] bool waitForRequests(std::size_t count, const std::string& fragment,
                                     std::chrono::milliseconds timeout) const;
  [[nodiscard]] bool waitForChunks(std::size_t count, std::chrono::milliseconds timeout) const;

  /// A document of the service by its name; nullopt when none was kept.
  [[nodiscard]] std::optional<std::string> document(const std::string& name) const;
  [[nodiscard]] bool keepDocument(const std::string& name, const std::string& body);

  /// What `reader` makes of the database, while nothing else uses it.
  template <class Reader>
  auto read(Reader reader) const {
    const std::lock_guard lock(mutex_);
    return reader(*database_);
  }

 private:
  [[nodiscard]] std::size_t count(const char* sql, const std::string& fragment) const;

  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::unique_ptr<Database> database_;
};

}  // namespace kelvo::collector
