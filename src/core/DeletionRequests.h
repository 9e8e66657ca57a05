#pragma once

#include <optional>
#include <random>
#include <vector>

#include "core/ConsentFile.h"
#include "network/KLVPostman.h"
#include "platform/DispatchQueue.h"
#include "platform/ThreadSafety.h"
#include "upload/KLVResendPolicy.h"

namespace kelvo {

/// Sends the deletion requests of the consent file until the service answers each with 200 or 404.
///
/// An answered request leaves the file. Every other answer, and none, keeps it: one WARN line for each process. All
/// waiting requests are repeated one after the other, in rounds that `KLVResendPolicy` spaces. Only a process that
/// holds the home may use this. Thread-safe.
class DeletionRequests {
 public:
  /// Reads the file. If it has new requests, begins a round, unless the service has asked for a later time. Returns at
  /// once.
  void resume();

 private:
  void beginRoundIfDue() REQUIRES(queue_);
  void sendNext() REQUIRES(queue_);
  void onAnswer(const KLVDeletion& deletion, const std::optional<HTTPResponse>& response,
                const std::optional<HTTPError>& error) REQUIRES(queue_);
  void keep(const KLVDeletion& deletion, const std::optional<HTTPResponse>& response,
            const std::optional<HTTPError>& error) REQUIRES(queue_);

  DispatchQueue queue_{"com.kelvo.serial.deletions"};
  KLVPostman postman_;  // without a group: an erasure ends no deletion request
  // Queue: queue_.
  std::vector<KLVDeletion> waiting_ GUARDED_BY(queue_);
  std::vector<KLVDeletion> round_ GUARDED_BY(queue_);  // those that this round has yet to send, the next one last
  bool isUnderWay_ GUARDED_BY(queue_) = false;         // a request is
  bool hasWarned_ GUARDED_BY(queue_) = false;
  KLVResendPolicy policy_ GUARDED_BY(queue_);
  std::minstd_rand random_ GUARDED_BY(queue_){std::random_device()()};
};

}  // namespace kelvo
