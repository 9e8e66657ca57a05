#include "network/KLVHTTPSession.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "network/HTTPTransfer.h"
#include "network/HTTPURL.h"
#include "platform/DispatchQueue.h"
#include "platform/Immortal.h"
#include "platform/Problem.h"
#include "platform/ServiceEndpoint.h"
#include "platform/Thread.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr std::chrono::seconds kLimit{30};
constexpr std::chrono::milliseconds kParkingLimit{500};
constexpr long kMaximumConnectionsToHost = 6;

thread_local bool onNetworkThread = false;

/// Where network threads stop for good at process exit: the TLS library takes itself down then, and a thread that
/// still used it would crash.
class Parking {
 public:
  class Visitor {
   public:
    virtual void wake() = 0;

   protected:
    ~Visitor() = default;
  };

  static Parking& shared() {
    static Immortal<Parking> instance;
    return *instance;
  }

  void enter(Visitor* thread) {
    const std::lock_guard lock(mutex_);
    inside_.push_back(thread);
  }

  void leave(Visitor* thread) {
    const std::lock_guard lock(mutex_);
    inside_.erase(std::find(inside_.begin(), inside_.end(), thread));  // one: its successor may be here already
    left_.notify_all();
  }

  [[nodiscard]] bool closing() const noexcept { return closing_.load(); }

  [[noreturn]] void stayFor(Visitor* thread) {
    leave(thread);
    for (;;) ::pause();
  }

  void closeAndWait() {
    closing_.store(true);
    std::unique_lock lock(mutex_);
    for (Visitor* thread : inside_) thread->wake();
    if (onNetworkThread) return;  // it cannot wait for itself
    left_.wait_for(lock, kParkingLimit, [this] { return inside_.empty(); });
  }

 private:
  std::mutex mutex_;
  std::condition_variable left_;
  std::vector<Visitor*> inside_;
  std::atomic<bool> closing_{false};
};

/// The TLS library takes itself down at exit. Asked before its set-up begins, it parks the network thread first,
/// even when the process ends in the middle of that set-up. It is curl's, so it is looked up, not linked.
void parkBeforeTLSEnds() {
  using Register = int (*)(void (*)());
  const auto atEndOfTLS = reinterpret_cast<Register>(::dlsym(RTLD_DEFAULT, "OPENSSL_atexit"));
  if (atEndOfTLS != nullptr) atEndOfTLS(KLVHTTPSession::parkAtExit);
}

/// True when curl is ready for use. Our exit handler is registered after those that its set-up registers, so it runs
/// before them.
bool setUpTransport() {
  static const bool ready = [] {
    parkBeforeTLSEnds();
    return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK && std::atexit(KLVHTTPSession::parkAtExit) == 0;
  }();
  return ready;
}

/// curl wakes itself up through a pair of sockets that a program which the host starts would inherit, and does not
/// name them. They are sought where they must be, on the numbers that were `free` right before, and known by the byte
/// that waits between them; when another thread took a number meanwhile, they stay as they are.
void keepFromChildren(const std::array<int, 2>& free) {
  const auto isLocal = [](int socket) {
    int domain = 0;
    socklen_t size = sizeof domain;
    return ::getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX;
  };
  int received = 0;
  int sent = 0;
  if (!isLocal(free[0]) || !isLocal(free[1])) return;
  if (::ioctl(free[0], FIONREAD, &received) != 0 || ::ioctl(free[1], SIOCOUTQ, &sent) != 0) return;
  if (received != 1 || sent == 0) return;
  for (const int socket : free) ::fcntl(socket, F_SETFD, FD_CLOEXEC);
}

/// The two numbers that the next descriptors of this process will have.
std::array<int, 2> freeDescriptors() {
  std::array<int, 2> pair{-1, -1};
  if (::pipe2(pair.data(), O_CLOEXEC) != 0) return pair;
  for (const int end : pair) ::close(end);
  return pair;
}

/// The environment's list of hosts to reach directly, and always those of this machine.
std::string hostsWithoutProxy() {
  const char* listed = secure_getenv("no_proxy");
  if (listed == nullptr) listed = secure_getenv("NO_PROXY");
  const std::string own = "localhost,127.0.0.0/8,::1";
  if (listed == nullptr || *listed == '\0') return own;
  return std::string(listed) == "*" ? "*" : listed + ("," + own);
}

/// Why a request for `url` cannot be let out.
std::optional<HTTPError> refusalOf(const std::string& url) {
  if (url.empty()) {
    static std::atomic<bool> told{false};
    if (!told.exchange(true)) {
      KLV_ERROR("No service endpoint: set KELVO_SERVER_BASE_URL, or KelvoServerBaseURL in Info.plist");
    }
    return HTTPError{CURLE_URL_MALFORMAT, "No service endpoint is configured"};
  }
  const auto parsed = HTTPURL::parse(url);
  if (!parsed) return HTTPError{CURLE_URL_MALFORMAT, "Not a URL"};
  if (!parsed->exposesCleartext()) return std::nullopt;
  KLV_ERROR("Refused to send cleartext to {}: only https: leaves this machine", parsed->host);
  return HTTPError{CURLE_UNSUPPORTED_PROTOCOL, "Cleartext to another machine was refused"};
}

HTTPTransfer::Outcome failure(CURLcode code, std::string why) {
  return {std::nullopt, std::nullopt, HTTPError{code, std::move(why)}};
}

}  // namespace

struct KLVHTTPSession::Impl final : Parking::Visitor, std::enable_shared_from_this<Impl> {
  explicit Impl(std::chrono::seconds limit) { settings_.limit = limit; }

  void start(HTTPRequest request, HTTPCompletion completion) {
    ++unfinished_;
    if (auto refusal = refusalOf(request.url)) {
      return finish(std::move(completion), {std::nullopt, std::nullopt, std::move(refusal)});
    }
    std::unique_lock lock(mutex_);
    if (Parking::shared().closing()) return;
    if (!running_) running_ = startThread("kelvo.net", [self = shared_from_this()] { self->run(); });
    if (!running_) {
      lock.unlock();
      return finish(std::move(completion), failure(CURLE_OUT_OF_MEMORY, "The network thread could not be started"));
    }
    waiting_.push_back({std::move(request), std::move(completion)});
    if (multi_ != nullptr) curl_multi_wakeup(multi_);
  }

  void close() {
    {
      const std::lock_guard lock(mutex_);
      closed_ = true;
    }
    wake();
  }

  void wake() override {
    const std::lock_guard lock(mutex_);
    if (multi_ != nullptr) curl_multi_wakeup(multi_);
  }

  [[nodiscard]] std::size_t unfinished() const noexcept { return unfinished_.load(); }

 private:
  struct Waiting {
    HTTPRequest request;
    HTTPCompletion completion;
  };

  void run() noexcept {
    onNetworkThread = true;
    Parking::shared().enter(this);
    if (Parking::shared().closing()) Parking::shared().stayFor(this);
    try {
      serve();
    } catch (const std::exception& exception) {
      reportProblem("KLVHTTPSession", exception.what());
    }
    end();
    Parking::shared().leave(this);
  }

  void serve() {
    if (!setUpTransport()) return;
    const auto free = freeDescriptors();
    CURLM* const multi = curl_multi_init();
    if (multi == nullptr) return;
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMaximumConnectionsToHost);
    settings_.caFile = ServiceEndpoint::shared().caFile;
    settings_.noProxy = hostsWithoutProxy();
    {
      const std::lock_guard lock(mutex_);
      multi_ = multi;
    }
    // Without a free descriptor for the wake-up at birth, look for requests once a second.
    const int patience = curl_multi_wakeup(multi) == CURLM_OK ? INT_MAX : 1000;
    keepFromChildren(free);
    for (;;) {
      if (Parking::shared().closing()) Parking::shared().stayFor(this);
      if (!acceptWaiting(multi)) return;
      int running = 0;
      curl_multi_perform(multi, &running);
      deliverFinished(multi);
      if (curl_multi_poll(multi, nullptr, 0, patience, nullptr) != CURLM_OK) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // short of memory or descriptors: no spinning
      }
    }
  }

  /// False when the session is closed and all is done.
  bool acceptWaiting(CURLM* multi) {
    std::deque<Waiting> accepted;
    {
      const std::lock_guard lock(mutex_);
      accepted.swap(waiting_);
      if (closed_ && accepted.empty() && active_.empty()) return false;
    }
    for (Waiting& each : accepted) {
      auto completion = each.completion;
      auto transfer = HTTPTransfer::make(std::move(each.request), std::move(each.completion), settings_);
      if (transfer == nullptr || curl_multi_add_handle(multi, transfer->handle()) != CURLM_OK) {
        finish(std::move(completion), failure(CURLE_FAILED_INIT, "The request could not be set up"));
        continue;
      }
      active_.emplace(transfer->handle(), std::move(transfer));
    }
    return true;
  }

  void deliverFinished(CURLM* multi) {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi, &left)) {
      const CURLcode code = message->data.result;
      const auto found = active_.find(message->easy_handle);
      curl_multi_remove_handle(multi, message->easy_handle);  // `message` is gone with it
      if (found == active_.end()) continue;
      const auto transfer = std::move(found->second);
      active_.erase(found);
      finish(transfer->takeCompletion(), transfer->outcome(code));
    }
  }

  /// The thread ends: whatever is still with it ends in an error, and the next request starts another.
  void end() {
    for (auto& [handle, transfer] : active_) {
      curl_multi_remove_handle(multi_, handle);
      finish(transfer->takeCompletion(), failure(CURLE_FAILED_INIT, "The network thread ended"));
    }
    active_.clear();
    std::deque<Waiting> waiting;
    CURLM* multi = nullptr;
    {
      const std::lock_guard lock(mutex_);
      waiting.swap(waiting_);
      multi = std::exchange(multi_, nullptr);
      running_ = false;
    }
    curl_multi_cleanup(multi);
    for (Waiting& each : waiting) {
      finish(std::move(each.completion), failure(CURLE_FAILED_INIT, "The network could not be set up"));
    }
  }

  void finish(HTTPCompletion completion, HTTPTransfer::Outcome outcome) {
    callbacks_.async(
        [self = shared_from_this(), completion = std::move(completion), outcome = std::move(outcome)]() mutable {
          const std::shared_ptr<Impl> counted(self.get(), [](Impl* impl) { --impl->unfinished_; });
          if (completion) {
            completion(std::move(outcome.data), std::move(outcome.response), std::move(outcome.error));
          }
        });
  }

  DispatchQueue callbacks_{"com.kelvo.concurrent.KLVPostman.callbacks", DispatchQueue::Kind::concurrent};
  std::atomic<std::size_t> unfinished_{0};

  std::mutex mutex_;  // guards what follows
  std::deque<Waiting> waiting_;
  CURLM* multi_ = nullptr;  // other threads only wake it
  bool running_ = false;
  bool closed_ = false;

  HTTPTransfer::Settings settings_;  // from here on for the network thread alone
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

std::size_t KLVHTTPSession::unfinished() const {
  return impl_->unfinished();
}

void KLVHTTPSession::parkAtExit() {
  if (!inForkedChild()) Parking::shared().closeAndWait();
}

}  // namespace kelvo
