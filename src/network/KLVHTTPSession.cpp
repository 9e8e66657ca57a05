#include "network/KLVHTTPSession.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>
#include <unordered_map>

#include "network/Curl.h"
#include "network/ExitParking.h"
#include "network/HTTPTransfer.h"
#include "network/HTTPURL.h"
#include "network/WakeUpDescriptors.h"
#include "platform/DispatchQueue.h"
#include "platform/Privileges.h"
#include "platform/Problem.h"
#include "platform/ServiceEndpoint.h"
#include "platform/Thread.h"
#include "platform/ThreadSafety.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr std::chrono::seconds kLimit{30};
constexpr long kMaximumConnectionsToHost = 6;
constexpr int kPollUntilWoken = INT_MAX;  // milliseconds
constexpr int kPollWithoutWakeUp = 1000;  // milliseconds
constexpr std::chrono::milliseconds kPauseAfterFailedPoll{100};

/// Copies a text for curl, except for the name of the file for TLS secrets.
char* copiedWithoutKeyLog(const char* text) {
  return text == std::getenv("SSLKEYLOGFILE") ? nullptr : ::strdup(text);
}

/// curl opens the file that SSLKEYLOGFILE of the environment names when it is initialised: in a program with more
/// rights than its caller, any file. curl reads the variable by copying it with the function that we provide. The
/// library must not change the environment, which is the host's.
CURLcode initialiseCurl() {
  if (!mustIgnoreEnvironment()) return curl().global_init(CURL_GLOBAL_DEFAULT);
  return curl().global_init_mem(CURL_GLOBAL_DEFAULT, std::malloc, std::free, std::realloc, copiedWithoutKeyLog,
                                std::calloc);
}

/// Puts `parkAtExit` into OpenSSL's list of exit handlers, so that OpenSSL calls it before it frees its data. This
/// happens before OpenSSL initialises: then the order holds even if the process exits during the initialisation.
void parkBeforeOpenSSLEnds() {
  using Register = int (*)(void (*)());
  const auto registerHandler = reinterpret_cast<Register>(Curl::functionBehind("OPENSSL_atexit"));
  if (registerHandler != nullptr) registerHandler(ExitParking::parkAtExit);
}

/// Initialises the loaded curl once per process. Returns whether curl is ready for use. Exit handlers run in reverse
/// order, so the last one runs before those that curl's initialisation registered: those of a TLS library other than
/// OpenSSL, too.
bool setUpCurl() {
  static const bool ready = [] {
    parkBeforeOpenSSLEnds();
    return initialiseCurl() == CURLE_OK && std::atexit(ExitParking::parkAtExit) == 0;
  }();
  return ready;
}

/// Returns the environment's list of hosts to reach without a proxy, with the loopback hosts added.
std::string hostsWithoutProxy() {
  const char* listed = secure_getenv("no_proxy");
  if (listed == nullptr) listed = secure_getenv("NO_PROXY");
  const std::string own = "localhost,127.0.0.0/8,::1";
  if (listed == nullptr || *listed == '\0') return own;
  return std::string(listed) == "*" ? "*" : listed + ("," + own);
}

HTTPTransfer::Outcome failure(CURLcode code, std::string why) {
  return {std::nullopt, std::nullopt, HTTPError{code, std::move(why)}};
}

/// For a reason that also ends every later request.
HTTPTransfer::Outcome finalFailure(CURLcode code, std::string why) {
  return {std::nullopt, std::nullopt, HTTPError{code, std::move(why), true}};
}

HTTPTransfer::Outcome cancelled() {
  return failure(CURLE_ABORTED_BY_CALLBACK, "The request was cancelled");
}

/// Returns the outcome of a request to a service endpoint that is missing (empty) or not a URL. Logs it once per
/// process.
HTTPTransfer::Outcome endpointFault(const std::string& endpoint) {
  static std::atomic<bool> isLogged{false};
  const bool logs = !isLogged.exchange(true);
  if (endpoint.empty()) {
    if (logs) KLV_ERROR("No service endpoint: set KELVO_SERVER_BASE_URL, or KelvoServerBaseURL in Info.plist");
    return finalFailure(CURLE_URL_MALFORMAT, "No service endpoint is configured");
  }
  if (logs) {
    KLV_ERROR("The service endpoint is malformed: {} is not a URL; use the form https://HOST[:PORT]",
              withoutCredentials(endpoint));
  }
  return finalFailure(CURLE_URL_MALFORMAT, "The service endpoint is malformed");
}

/// Returns the outcome of a request that must not be sent, nullopt for one that may. The outcome is empty if the
/// request never calls back.
std::optional<HTTPTransfer::Outcome> refusalOf(const HTTPRequest& request) {
  if (request.group != nullptr && request.group->isClosed()) return cancelled();
  if (!request.endpoint.empty() && !HTTPURL::parse(request.endpoint)) return endpointFault(request.endpoint);
  const auto parsed = HTTPURL::parse(request.url);
  if (!parsed) {
    KLV_WARN("Error in URL encoding");
    return HTTPTransfer::Outcome();
  }
  if (!parsed->exposesCleartext()) return std::nullopt;
  KLV_ERROR("Refused to send cleartext to {}: only https: leaves this machine", parsed->host);
  return finalFailure(CURLE_UNSUPPORTED_PROTOCOL, "Cleartext to another machine was refused");
}

}  // namespace

/// The state that the session's handle, its network thread and its pending callbacks share.
struct KLVHTTPSession::Impl final : ExitParking::NetworkThread, std::enable_shared_from_this<Impl> {
  explicit Impl(std::chrono::seconds limit) { settings_.limit = limit; }

  void start(HTTPRequest request, HTTPCompletion completion) EXCLUDES(mutex_) {
    ++unfinished_;
    if (request.url.empty()) return finish(std::move(completion), endpointFault(request.url));
    if (request.group != nullptr && request.group->isClosed()) return finish(std::move(completion), cancelled());
    Lock lock(mutex_);
    if (ExitParking::shared().isExiting()) return;
    if (!running_)
      running_ = startThread(
          "kelvo.net", [self = shared_from_this()] { self->run(); }, [] {});
    if (!running_) {
      lock.unlock();
      return finish(std::move(completion), failure(CURLE_OUT_OF_MEMORY, "The network thread could not be started"));
    }
    waiting_.push_back({std::move(request), std::move(completion)});
    if (multi_ != nullptr) curl().multi_wakeup(multi_);
  }

  /// Lets the network thread end once all requests are finished.
  void close() EXCLUDES(mutex_) {
    {
      const Lock lock(mutex_);
      closed_ = true;
    }
    wake();
  }

  void wake() override EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    if (multi_ != nullptr) curl().multi_wakeup(multi_);
  }

  void endClosedGroups() {
    endsGroups_ = true;
    wake();
  }

  [[nodiscard]] std::size_t unfinished() const noexcept { return unfinished_.load(); }

 private:
  struct Waiting {
    HTTPRequest request;
    HTTPCompletion completion;
  };

  /// The network thread's body.
  void run() noexcept {
    auto& parking = ExitParking::shared();
    parking.enter(*this);
    parking.parkIfExiting(*this);
    try {
      serve();
    } catch (const std::exception& exception) {
      reportProblem("KLVHTTPSession", exception.what());
    }
    end();
    parking.leave(*this);
  }

  /// Runs requests until the session is closed and all of them are finished. Returns at once if curl cannot be loaded
  /// or set up.
  void serve() EXCLUDES(mutex_) {
    if (!Curl::load()) return;
    ExitParking::shared().parkIfExiting(*this);  // an exit need not wait for the set-up, too
    if (!setUpCurl()) return;
    const WakeUpDescriptors wakeUp;
    CURLM* const multi = curl().multi_init();
    if (multi == nullptr) return;
    curl().multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaximumConnectionsToHost);
    settings_.caFile = ServiceEndpoint::shared().caFile;
    settings_.noProxy = hostsWithoutProxy();
    {
      const Lock lock(mutex_);
      multi_ = multi;
    }
    // If no descriptor was free for curl's wake-up, poll for new requests once a second.
    const int patience = curl().multi_wakeup(multi) == CURLM_OK ? kPollUntilWoken : kPollWithoutWakeUp;
    wakeUp.closeOnExec();
    for (;;) {
      ExitParking::shared().parkIfExiting(*this);
      if (!acceptWaiting(multi)) return;
      if (endsGroups_.exchange(false)) endTransfersOfClosedGroups(multi);
      int running = 0;
      curl().multi_perform(multi, &running);
      deliverFinished(multi);
      if (curl().multi_poll(multi, nullptr, 0, patience, nullptr) != CURLM_OK) {
        std::this_thread::sleep_for(kPauseAfterFailedPoll);  // no memory or no descriptors: do not spin
      }
    }
  }

  /// Hands the waiting requests to curl. Returns false if the session is closed and all requests are finished.
  [[nodiscard]] bool acceptWaiting(CURLM* multi) EXCLUDES(mutex_) {
    std::deque<Waiting> accepted;
    {
      const Lock lock(mutex_);
      accepted.swap(waiting_);
      if (closed_ && accepted.empty() && active_.empty()) return false;
    }
    for (Waiting& each : accepted) {
      if (auto refusal = refusalOf(each.request)) {
        finish(std::move(each.completion), *std::move(refusal));
        continue;
      }
      auto completion = each.completion;
      auto transfer = HTTPTransfer::make(std::move(each.request), std::move(each.completion), settings_);
      if (transfer == nullptr || curl().multi_add_handle(multi, transfer->handle()) != CURLM_OK) {
        finish(std::move(completion), failure(CURLE_FAILED_INIT, "The request could not be set up"));
        continue;
      }
      active_.emplace(transfer->handle(), std::move(transfer));
    }
    return true;
  }

  void endTransfersOfClosedGroups(CURLM* multi) {
    for (auto next = active_.begin(); next != active_.end();) {
      const auto current = next++;
      if (!current->second->mustEnd()) continue;
      curl().multi_remove_handle(multi, current->first);
      finish(current->second->takeCompletion(), cancelled());
      active_.erase(current);
    }
  }

  void deliverFinished(CURLM* multi) {
    int left = 0;
    while (const CURLMsg* message = curl().multi_info_read(multi, &left)) {
      const CURLcode code = message->data.result;
      const auto found = active_.find(message->easy_handle);
      curl().multi_remove_handle(multi, message->easy_handle);  // also frees `message`
      if (found == active_.end()) continue;
      const auto transfer = std::move(found->second);
      active_.erase(found);
      finish(transfer->takeCompletion(), transfer->outcome(code));
    }
  }

  /// Ends all remaining requests in an error. The next request starts a new network thread.
  void end() EXCLUDES(mutex_) {
    CURLM* const multi = currentMulti();
    for (auto& [handle, transfer] : active_) {
      curl().multi_remove_handle(multi, handle);
      finish(transfer->takeCompletion(), failure(CURLE_FAILED_INIT, "The network thread ended"));
    }
    active_.clear();
    std::deque<Waiting> waiting;
    {
      const Lock lock(mutex_);
      waiting.swap(waiting_);
      multi_ = nullptr;
      running_ = false;
    }
    if (multi != nullptr) curl().multi_cleanup(multi);
    for (Waiting& each : waiting) {
      constexpr const char* kReason = "The network could not be set up";
      finish(std::move(each.completion),
             Curl::load() ? failure(CURLE_FAILED_INIT, kReason) : finalFailure(CURLE_FAILED_INIT, kReason));
    }
  }

  [[nodiscard]] CURLM* currentMulti() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    return multi_;
  }

  /// Calls `completion` on the callback queue, unless `outcome` is empty. The request counts as unfinished until
  /// `completion` has returned or thrown.
  void finish(HTTPCompletion completion, HTTPTransfer::Outcome outcome) {
    callbacks_.async([self = shared_from_this(), completion = std::move(completion), outcome = std::move(outcome)] {
      const std::shared_ptr<Impl> counted(self.get(), [](Impl* impl) { --impl->unfinished_; });
      if (completion && (outcome.response || outcome.error)) {
        completion(outcome.data, outcome.response, outcome.error);
      }
    });
  }

  DispatchQueue callbacks_{"com.kelvo.concurrent.KLVPostman.callbacks", DispatchQueue::Kind::concurrent};
  std::atomic<std::size_t> unfinished_{0};
  std::atomic<bool> endsGroups_{false};  // a group was closed

  Mutex mutex_;
  std::deque<Waiting> waiting_ GUARDED_BY(mutex_);
  // Only the network thread uses it; other threads only wake it, with the mutex held so that it lives meanwhile.
  CURLM* multi_ GUARDED_BY(mutex_) = nullptr;
  bool running_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;

  // Thread: the network thread only.
  HTTPTransfer::Settings settings_;
  std::unordered_map<CURL*, std::unique_ptr<HTTPTransfer>> active_;
};

KLVHTTPSession::KLVHTTPSession() : KLVHTTPSession(kLimit) {}
KLVHTTPSession::KLVHTTPSession(std::chrono::seconds limit) : impl_(std::make_shared<Impl>(limit)) {}
KLVHTTPSession::~KLVHTTPSession() {
  impl_->close();
}

void KLVHTTPSession::start(HTTPRequest request, HTTPCompletion completion) {
  if (inForkedChild()) return;
  impl_->start(std::move(request), std::move(completion));
}

void KLVHTTPSession::endClosedGroups() {
  if (!inForkedChild()) impl_->endClosedGroups();
}

std::size_t KLVHTTPSession::unfinished() const {
  return impl_->unfinished();
}

}  // namespace kelvo
