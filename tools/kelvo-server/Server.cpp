#include "kelvo-server/Server.h"

#include <algorithm>
#include <cstdio>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "kelvo-server/answers/Answers.h"
#include "kelvo-server/answers/Metrics.h"
#include "kelvo-server/db/Pool.h"
#include "kelvo-server/documents/DocumentCache.h"
#include "kelvo-server/http/Limits.h"
#include "kelvo-server/http/Listener.h"
#include "kelvo-server/loop/Loop.h"
#include "kelvo-server/store/Statements.h"
#include "kelvo-server/store/Writer.h"

namespace kelvo::server {
namespace {

constexpr std::chrono::seconds kLongestDrain{9};
constexpr std::chrono::milliseconds kBetweenLooks{10};
constexpr std::chrono::milliseconds kBetweenMaintenance{10 * 60 * 1000};
constexpr std::chrono::milliseconds kBetweenSamples{200};
constexpr std::size_t kMegabyte = 1U << 20U;

void report(const std::string& line) {
  std::fprintf(stderr, "kelvo-server: %s\n", line.c_str());
}

Limits::Settings limitsOf(const Settings& settings) {
  return {settings.connections, settings.connectionsPerAddress, settings.flightMegabytes * kMegabyte,
          settings.requestsPerApp};
}

const char* reasonOf(int status) {
  switch (status) {
    case 413: return "the body is too large";
    case 415: return "bodies are uncompressed JSON";
    case 503: return "too much is under way";
    default: return "this is no request that can be served";
  }
}

}  // namespace

struct Server::Impl {
  /// What belongs to one loop. Other threads read the atomics only.
  struct Share {
    Share(Impl& server, Loop& theLoop, std::size_t connections)
        : loop(theLoop),
          pool(theLoop, server.settings.database, statements(), connections, report),
          writer(theLoop, pool, [&server](auto time, const auto& group) { server.committed(time, group); }),
          answers({theLoop, server.workers, writer, server.documents, server.limits, server.metrics,
                   server.answersSettings()}) {}

    /// Publishes the state that other threads see, and ends what has waited for too long.
    void sample() {
      writer.dropOld();
      isReady = pool.isReady();
      loop.after(kBetweenSamples, [this] { sample(); });
    }
    void maintain(int keepDays) {
      if (pool.isReady()) writer.maintain(keepDays);
      loop.after(pool.isReady() ? kBetweenMaintenance : std::chrono::seconds(1),
                 [this, keepDays] { maintain(keepDays); });
    }

    Loop& loop;
    db::Pool pool;
    Writer writer;
    Answers answers;
    std::atomic<bool> isReady{false};
  };

  explicit Impl(const Settings& theSettings);
  [[nodiscard]] AnswersSettings answersSettings() const { return {settings.isStrict, settings.retryAfter}; }
  void committed(std::chrono::microseconds time, const std::vector<Entry>& group);
  [[nodiscard]] Answer refuse(int status, const std::string& app);
  [[nodiscard]] Answer admin(const service::Request& request);
  [[nodiscard]] ListenerSettings listenerSettings();

  const Settings settings;
  Metrics metrics;
  Limits limits;
  Limits adminLimits{{100, 100, kMegabyte, 0}};
  std::vector<std::unique_ptr<Loop>> loops = makeLoops();
  DocumentCache documents{*loops.front(), settings.database};
  Workers workers{1};  // one: a decoded large body takes much memory
  std::vector<std::unique_ptr<Share>> shares;
  std::unique_ptr<Listener> listener;
  std::unique_ptr<Listener> adminListener;
  std::atomic<bool> isDraining{false};
  int port = 0;
  int adminPort = 0;
};

Server::Impl::Impl(const Settings& theSettings) : settings(theSettings), limits(limitsOf(theSettings)) {
  const std::size_t each = std::max<std::size_t>(1, settings.databaseConnections / loops.size());
  for (auto& loop : loops) shares.push_back(std::make_unique<Share>(*this, *loop, each));

  std::vector<Loop*> all;
  std::vector<Handler> handlers;
  for (auto& share : shares) {
    all.push_back(&share->loop);
    handlers.emplace_back([&answers = share->answers](service::Request request, auto done) {
      answers.answer(std::move(request), std::move(done));
    });
  }
  listener = std::make_unique<Listener>(all, handlers, limits, listenerSettings());
  ListenerSettings adminSettings;
  adminSettings.address = settings.admin.address;
  adminSettings.port = settings.admin.port;
  adminSettings.mostBodyBytes = kMegabyte;
  adminSettings.refuse = [this](int status, const auto&) {
    return refusalAnswer(status, reasonOf(status), answersSettings());
  };
  const Handler handler = [this](const service::Request& request, const auto& done) { done(admin(request)); };
  adminListener = std::make_unique<Listener>(std::vector<Loop*>{all.front()}, std::vector<Handler>{handler},
                                             adminLimits, adminSettings);
}

ListenerSettings Server::Impl::listenerSettings() {
  ListenerSettings made{settings.listen.address,
                        settings.listen.port,
                        settings.certificate,
                        settings.key,
                        settings.proxies,
                        settings.bodyMegabytes * kMegabyte,
                        {}};
  made.refuse = [this](int status, const std::string& app) { return refuse(status, app); };
  return made;
}

void Server::Impl::committed(std::chrono::microseconds time, const std::vector<Entry>& group) {
  for (const Entry& entry : group) {
    if (entry.chunk) metrics.of(entry.chunk->device.app).committed(time);
  }
}

Answer Server::Impl::refuse(int status, const std::string& app) {
  AppCounts& counts = metrics.of(app);
  ++counts.requests;
  if (status == 413) ++counts.tooLarge;
  if (status == 503) ++counts.unavailable;
  return refusalAnswer(status, reasonOf(status), answersSettings());
}

Answer Server::Impl::admin(const service::Request& request) {
  Gauges gauges{limits.connections(), limits.bytes(), limits.refusedConnections(), false};
  for (const auto& share : shares) {
    gauges.isDatabaseReady = gauges.isDatabaseReady || share->isReady;
  }
  Answer answer{200, "ok\n", "text/plain; version=0.0.4; charset=utf-8"};
  if (request.path == "/healthz") return answer;
  if (request.path == "/metrics") {
    answer.body = metrics.text(gauges);
    return answer;
  }
  if (request.path != "/readyz") return {404, "/healthz, /readyz, /metrics\n", "text/plain"};
  if (isDraining) return {503, "draining\n", "text/plain"};
  if (!gauges.isDatabaseReady) return {503, "the database is away\n", "text/plain"};
  return answer;
}

Server::Server(const Settings& settings) : impl_(std::make_unique<Impl>(settings)) {}

Server::~Server() {
  drain();
  for (auto& loop : impl_->loops) loop->stop();
}

void Server::start() {
  impl_->port = impl_->listener->start();
  impl_->adminPort = impl_->adminListener->start();
  for (auto& share : impl_->shares) {
    share->loop.post([&share = *share] {
      share.pool.open();
      share.sample();
    });
  }
  impl_->loops.front()->post([this] {
    impl_->documents.start();
    impl_->shares.front()->maintain(impl_->settings.keepDays);
  });
  for (auto& loop : impl_->loops) loop->start();
}

void Server::reload() {
  const std::string error = impl_->listener->reloadCertificate();
  if (!error.empty()) report("the certificate stays: " + error);
}

void Server::drain() {
  if (impl_->port == 0 || impl_->isDraining.exchange(true)) return;
  impl_->listener->drain();
  const auto end = std::chrono::steady_clock::now() + kLongestDrain;
  while (impl_->listener->open() > 0 && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(kBetweenLooks);
}

int Server::port() const noexcept {
  return impl_->port;
}

int Server::adminPort() const noexcept {
  return impl_->adminPort;
}

}  // namespace kelvo::server
