#include <atomic>
#include <utility>

#include "network/ExitParking.h"
#include "network/KLVHTTPSession.h"
#include "platform/DispatchQueue.h"
#include "platform/Thread.h"
#include "platform/TimerService.h"
#include "testing/Recording.h"

// The transport of the build for tests: it hands each request to the recorder's service, and needs no thread.

namespace kelvo {

struct KLVHTTPSession::Impl : std::enable_shared_from_this<Impl> {
  void start(const HTTPRequest& request, HTTPCompletion completion) {
    ++unfinished_;
    auto* const recording = testing::Recording::present();
    if (recording == nullptr || ExitParking::shared().isExiting()) return;
    if (request.group != nullptr && request.group->isClosed()) {
      constexpr int kAborted = 42;  // curl's number
      return finish(std::move(completion), {{}, {}, HTTPError{kAborted, "The request was cancelled"}});
    }
    auto [outcome, after] = recording->service.answer(request);
    if (after.count() == 0) return finish(std::move(completion), std::move(outcome));
    TimerService::schedule(after, [self = shared_from_this(), group = request.group, completion = std::move(completion),
                                   outcome = std::move(outcome)] { self->finish(completion, outcome); });
  }

  [[nodiscard]] std::size_t unfinished() const noexcept { return unfinished_.load(); }

 private:
  void finish(HTTPCompletion completion, HTTPOutcome outcome) {
    callbacks_.async([self = shared_from_this(), completion = std::move(completion), outcome = std::move(outcome)] {
      const std::shared_ptr<Impl> counted(self.get(), [](Impl* impl) { --impl->unfinished_; });
      completion(outcome.data, outcome.response, outcome.error);
    });
  }

  DispatchQueue callbacks_{"com.kelvo.concurrent.KLVPostman.callbacks", DispatchQueue::Kind::concurrent};
  std::atomic<std::size_t> unfinished_{0};
};

KLVHTTPSession::KLVHTTPSession() : impl_(std::make_shared<Impl>()) {}
KLVHTTPSession::~KLVHTTPSession() = default;

void KLVHTTPSession::start(HTTPRequest request, HTTPCompletion completion) {
  if (!inForkedChild()) impl_->start(request, std::move(completion));
}

void KLVHTTPSession::endClosedGroups() {}  // the service has every request already

std::size_t KLVHTTPSession::unfinished() const {
  return impl_->unfinished();
}

}  // namespace kelvo
