#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kelvo/Value.h"
#include "network/KLVHTTPSession.h"
#include "platform/ThreadSafety.h"

namespace kelvo {

/// Sends JSON requests to the service and passes the raw outcomes on. It never interprets them.
///
/// Thread-safe; every call returns at once. A request that cannot be formed is logged and never calls back. Every other
/// request calls back exactly once, on the HTTP callback queue, unless the process exits or its group is closed.
class KLVPostman {
 public:
  /// Returns the HTTP session of the process, made on first use and never destroyed.
  static KLVHTTPSession& sharedSession();

  /// Later requests belong to `group`. Without a call, requests belong to no group.
  void setGroup(std::shared_ptr<HTTPGroup> group) EXCLUDES(mutex_);
  [[nodiscard]] std::shared_ptr<HTTPGroup> group() const EXCLUDES(mutex_);

  // `path` is the whole URL if it contains "https:"; otherwise it is appended to the base URL of `ServiceEndpoint`.

  void getDataFromURLPath(const std::string& path, HTTPCompletion completion,
                          const KLVAnswerLimits& limits = kStartUpLimits);
  /// `headerFields` replace the client's own headers. nullopt as `body` sends an empty body.
  void postDataToURL(const std::string& path, const std::optional<Dictionary>& body,
                     const std::optional<Dictionary>& headerFields, HTTPCompletion completion);
  /// The same with the JSON text of a body.
  void postJSON(const std::string& path, SlicedText body, const Dictionary& headerFields, HTTPCompletion completion);
  /// Kept: always appends `path` to the base URL, even if it is a whole URL.
  void makeDeleteRequestToURLPath(const std::string& path, const std::optional<Dictionary>& headerFields,
                                  HTTPCompletion completion);

 private:
  void sendJSON(HTTPRequest request, SlicedText body, HTTPCompletion completion);
  void send(HTTPRequest request, HTTPCompletion completion) EXCLUDES(mutex_);

  mutable Mutex mutex_;
  std::shared_ptr<HTTPGroup> group_ GUARDED_BY(mutex_);
};

}  // namespace kelvo
