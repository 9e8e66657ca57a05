#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "network/KLVHTTPSession.h"

namespace kelvo {

/// One HTTP request in progress: curl's easy handle and the data that must live as long as the handle.
///
/// Thread: the network thread only.
class HTTPTransfer {
 public:
  struct Settings {
    std::chrono::seconds limit{30};  ///< in all, or below the lowest speed (`HTTPRequest::limits`)
    std::string caFile;              ///< replaces the system's certificate authorities unless empty
    std::string noProxy;             ///< hosts to reach without a proxy, separated by commas
  };
  struct Outcome {
    std::optional<std::string> data;
    std::optional<HTTPResponse> response;
    std::optional<HTTPError> error;
  };

  /// Returns nullptr if curl refuses a setting: a request is never sent with fewer settings.
  static std::unique_ptr<HTTPTransfer> make(HTTPRequest request, HTTPCompletion completion, const Settings& settings);
  HTTPTransfer(const HTTPTransfer&) = delete;
  HTTPTransfer& operator=(const HTTPTransfer&) = delete;
  ~HTTPTransfer();

  /// Returns the easy handle (a CURL*), to be added to a multi handle.
  [[nodiscard]] void* handle() const noexcept { return easy_; }
  /// Returns the outcome of the finished transfer; `code` is its CURLcode. Moves the body out, so call it once.
  [[nodiscard]] Outcome outcome(int code);
  /// Returns whether the request's group is closed and the service does not have the whole body yet.
  [[nodiscard]] bool mustEnd() const;
  [[nodiscard]] HTTPCompletion takeCompletion() noexcept { return std::move(completion_); }

 private:
  HTTPTransfer(HTTPRequest request, HTTPCompletion completion);
  // Each returns false if curl refuses a setting.
  [[nodiscard]] bool configure(const Settings& settings);
  [[nodiscard]] bool configureMethod();
  [[nodiscard]] bool addHeader(const std::string& line);

  /// Returns whether the current target, after redirects, may be contacted: it is encrypted or on this machine, and a
  /// POST is still a POST. Otherwise sets `refusal_`.
  [[nodiscard]] bool isTargetAllowed() noexcept;
  /// Sets `refusal_` for an answer that is too large.
  void refuseAnswer();
  /// Returns true for a POST that a redirect (301, 302 or 303) has made a GET. The page behind it has not received the
  /// body, so its 200 must not count as accepted.
  [[nodiscard]] bool hasLostItsBody() const;

  // curl calls these; each gets its transfer as a void*.
  static int openSocket(void* transfer, int family, int type, int protocol) noexcept;
  static int beforeRequest(void* transfer, char*, char*, int, int) noexcept;
  static std::size_t receive(char* bytes, std::size_t size, std::size_t count, void* transfer) noexcept;
  static std::size_t send(char* bytes, std::size_t size, std::size_t count, void* transfer) noexcept;
  static int rewind(void* transfer, std::int64_t offset, int origin) noexcept;
  static int checkProgress(void* transfer, std::int64_t, std::int64_t received, std::int64_t, std::int64_t) noexcept;

  static constexpr std::size_t kReasonSize = 256;  // of curl's error buffer, at least

  HTTPRequest request_;
  SlicedText::Reader body_;  // the rest of the request's body
  HTTPCompletion completion_;
  void* easy_ = nullptr;     // a CURL*
  void* headers_ = nullptr;  // a curl_slist*
  std::string data_;
  std::string refusal_;                     // why a callback of ours ended the transfer; empty if none did
  std::array<char, kReasonSize> reason_{};  // curl's error text
};

}  // namespace kelvo
