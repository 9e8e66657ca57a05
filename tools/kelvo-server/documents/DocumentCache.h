#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kelvo-server/documents/LoadDocuments.h"
#include "platform/ThreadSafety.h"

namespace kelvo::server {

class Loop;

/// The documents in memory. It reads them at its start and at each notification, with a connection of its own, and
/// twice a second from an engine without notifications. While the database is away, the last documents stay.
class DocumentCache {
 public:
  DocumentCache(Loop& loop, std::string database);
  ~DocumentCache();
  DocumentCache(const DocumentCache&) = delete;
  DocumentCache& operator=(const DocumentCache&) = delete;

  /// Begins to read. Thread: the loop's.
  void start();
  /// Returns the documents of `app`, the defaults if it has none, and null until the documents were read once.
  /// Thread: any.
  [[nodiscard]] std::shared_ptr<const service::ServiceState> of(const std::string& app) const EXCLUDES(mutex_);

 private:
  struct Reader;
  void set(AppDocuments documents) EXCLUDES(mutex_);

  const std::shared_ptr<const service::ServiceState> defaults_ = std::make_shared<const service::ServiceState>();
  mutable Mutex mutex_;
  std::shared_ptr<const AppDocuments> documents_ GUARDED_BY(mutex_);
  std::shared_ptr<Reader> reader_;
};

}  // namespace kelvo::server
