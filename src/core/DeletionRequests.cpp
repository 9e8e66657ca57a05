#include "core/DeletionRequests.h"

#include <string>
#include <utility>

#include "platform/Clock.h"
#include "util/KLVLogger.h"
#include "util/KLVServicePaths.h"

namespace kelvo {
namespace {

using Trigger = KLVResendPolicy::Trigger;

constexpr long kErased = 200;
constexpr long kUnknown = 404;  // the service has nothing of this device

void remove(std::vector<KLVDeletion>& deletions, const KLVDeletion& answered) {
  std::erase_if(deletions, [&](const auto& each) { return each.isForDeviceOf(answered); });
}

}  // namespace

void DeletionRequests::resume() {
  queue_.async([this] {
    queue_.assertCurrent();
    bool isOneNew = false;
    for (const KLVDeletion& each : KLVConsentFile::read().deletions) {
      if (each.isIn(waiting_)) continue;
      waiting_.push_back(each);
      isOneNew = true;
    }
    if (!isOneNew) return;
    policy_ = policy_.after(Trigger::demanded, Clock::monotonic(), 0);
    beginRoundIfDue();
  });
}

void DeletionRequests::beginRoundIfDue() {
  const auto now = Clock::monotonic();
  if (isUnderWay_ || !policy_.due || waiting_.empty()) return;
  if (!policy_.isDue(now)) {
    return queue_.after(*policy_.due - now, [this] {
      queue_.assertCurrent();
      beginRoundIfDue();
    });
  }
  policy_ = policy_.afterStartOfRound(now);
  round_.assign(waiting_.rbegin(), waiting_.rend());
  sendNext();
}

void DeletionRequests::sendNext() {
  if (round_.empty()) return beginRoundIfDue();
  const KLVDeletion deletion = std::move(round_.back());
  round_.pop_back();
  isUnderWay_ = true;
  std::string path = byReplacing(kKLVSDKUserDeletionURL, "<app-id>", deletion.appId);
  path = byReplacing(path, "<user-id>", deletion.userId);
  KLV_DEBUG("Sending a deletion request");
  postman_.makeDeleteRequestToURLPath(path, Dictionary{{std::string(kKLVEraseHeader), deletion.secret}},
                                      [this, deletion](const auto&, const auto& response, const auto& error) {
                                        queue_.async([this, deletion, response, error] {
                                          queue_.assertCurrent();
                                          isUnderWay_ = false;
                                          onAnswer(deletion, response, error);
                                        });
                                      });
}

void DeletionRequests::onAnswer(const KLVDeletion& deletion, const std::optional<HTTPResponse>& response,
                                const std::optional<HTTPError>& error) {
  const long status = response && !error ? response->statusCode : 0;
  if (status != kErased && status != kUnknown) {
    keep(deletion, response, error);
  } else if (KLVConsentFile::change([&](KLVConsentFile& file) { remove(file.deletions, deletion); })) {
    KLV_INFO("The service has answered the deletion request: {}", status);
    remove(waiting_, deletion);
  }  // else the answer is not on record: the next launch asks again
  sendNext();
}

void DeletionRequests::keep(const KLVDeletion& deletion, const std::optional<HTTPResponse>& response,
                            const std::optional<HTTPError>& error) {
  if (!std::exchange(hasWarned_, true)) {
    KLV_WARN("A deletion request is not answered yet ({}); it is repeated until it is",
             error ? error->localizedDescription : "status " + std::to_string(response->statusCode));
  }
  if (error) round_.clear();                                       // the others would fail, too
  if (error && error->isFinal) return remove(waiting_, deletion);  // until the next launch
  const double random = std::uniform_real_distribution(0.0, 1.0)(random_);
  policy_ = policy_.after(Trigger::failed, Clock::monotonic(), random, response ? response->retryAfter : std::nullopt);
}

}  // namespace kelvo
