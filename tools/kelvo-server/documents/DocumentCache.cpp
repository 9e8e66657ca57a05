#include "kelvo-server/documents/DocumentCache.h"

#include <chrono>
#include <utility>

#include "kelvo-server/db/Connection.h"
#include "kelvo-server/loop/Loop.h"

namespace kelvo::server {
namespace {

constexpr std::chrono::milliseconds kBetweenAttempts{500};
constexpr std::chrono::milliseconds kBetweenPolls{500};
// A notification may be lost with a connection that breaks unnoticed.
constexpr std::chrono::milliseconds kBetweenChecks{10000};

enum : unsigned char { kSelect, kListen };
constexpr const char* kTexts[] = {kSelectDocuments, "LISTEN kelvo_documents"};

}  // namespace

/// Thread: the loop's.
struct DocumentCache::Reader : std::enable_shared_from_this<Reader> {
  Reader(DocumentCache& theCache, Loop& theLoop, std::string theDatabase)
      : cache(&theCache), loop(theLoop), database(std::move(theDatabase)) {}

  void open() {
    const auto texts = std::span(kTexts).first(listens ? 2 : 1);
    connection = std::make_unique<db::Connection>(loop, database, texts);
    connection->setNotified([this] { read(); });
    isReading = false;
    const auto again = [this] { later(kBetweenAttempts, &Reader::open); };
    connection->open(
        [this, again](const std::optional<db::Failure>& failure) {
          if (!failure) return subscribe();
          // An engine that does not know LISTEN refuses to prepare it.
          listens = failure->isLoss() || !listens;
          again();
        },
        again);
  }

  void subscribe() {
    if (!listens) return read();
    connection->run({{kListen}}, [this](const db::Outcome& outcome) {
      if (outcome.failure && outcome.failure->isLoss()) return;
      listens = !outcome.failure;
      read();
    });
  }

  void read() {
    // What changes during a read is read again behind it.
    hasNews = isReading;
    if (std::exchange(isReading, true)) return;
    connection->run({{kSelect}}, [this](const db::Outcome& outcome) {
      isReading = false;
      if (outcome.failure && outcome.failure->isLoss()) return;
      if (!outcome.failure && cache != nullptr) cache->set(documentsFrom(outcome.rows[0]));
      if (std::exchange(hasNews, false)) return read();
      if (!std::exchange(isPolling, true)) later(listens ? kBetweenChecks : kBetweenPolls, &Reader::poll);
    });
  }

  void poll() {
    isPolling = false;
    if (connection->isReady()) read();
  }

  void later(std::chrono::milliseconds delay, void (Reader::*step)()) {
    loop.after(delay, [weak = weak_from_this(), step] {
      const auto self = weak.lock();
      if (self && self->cache != nullptr) (*self.*step)();
    });
  }

  DocumentCache* cache;  // null once the cache is gone
  Loop& loop;
  const std::string database;
  std::unique_ptr<db::Connection> connection;
  bool listens = true;
  bool isReading = false;
  bool hasNews = false;
  bool isPolling = false;
};

DocumentCache::DocumentCache(Loop& loop, std::string database)
    : reader_(std::make_shared<Reader>(*this, loop, std::move(database))) {}

DocumentCache::~DocumentCache() {
  reader_->cache = nullptr;
}

void DocumentCache::start() {
  reader_->open();
}

std::shared_ptr<const service::ServiceState> DocumentCache::of(const std::string& app) const {
  const Lock lock(mutex_);
  if (!documents_) return nullptr;
  const auto found = documents_->find(app);
  return found == documents_->end() ? defaults_ : found->second;
}

void DocumentCache::set(AppDocuments documents) {
  auto fresh = std::make_shared<const AppDocuments>(std::move(documents));
  const Lock lock(mutex_);
  documents_ = std::move(fresh);
}

}  // namespace kelvo::server
