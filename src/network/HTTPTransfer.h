#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "network/KLVHTTPSession.h"

namespace kelvo {

/// One request on its way: the transport's handle with all that must live as long as it. Belongs to the network
/// thread.
class HTTPTransfer {
 public:
  struct Settings {
    std::chrono::seconds limit{30};  ///< without progress
    std::string caFile;              ///< in place of the system's authorities, when not empty
    std::string noProxy;             ///< hosts that are reached directly
  };
  struct Outcome {
    std::optional<std::string> data;
    std::optional<HTTPResponse> response;
    std::optional<HTTPError> error;
  };

  /// nullptr when the transport refuses one of the settings: a request never goes out with fewer of them.
  static std::unique_ptr<HTTPTransfer> make(HTTPRequest request, HTTPCompletion completion, const Settings& settings);
  HTTPTransfer(const HTTPTransfer&) = delete;
  HTTPTransfer& operator=(const HTTPTransfer&) = delete;
  ~HTTPTransfer();

  /// A CURL*, for the thread's multi handle.
  [[nodiscard]] void* handle() const noexcept { return easy_; }
  /// The end of the transfer; `code` is its CURLcode. Takes the body away.
  [[nodiscard]] Outcome outcome(int code);
  [[nodiscard]] HTTPCompletion takeCompletion() noexcept { return std::move(completion_); }

 private:
  HTTPTransfer(HTTPRequest request, HTTPCompletion completion);
  [[nodiscard]] bool configure(const Settings& settings);
  [[nodiscard]] bool configureMethod();
  bool addHeader(const std::string& line);

  static std::size_t receive(char* bytes, std::size_t size, std::size_t count, void* transfer) noexcept;
  /// Whether the current target, after redirects, may be spoken to.
  [[nodiscard]] bool mayLeave() noexcept;
  static int beforeRequest(void* transfer, char*, char*, int, int) noexcept;

  HTTPRequest request_;
  HTTPCompletion completion_;
  void* easy_ = nullptr;
  void* headers_ = nullptr;
  std::string data_;
  std::string refusal_;             // why this side ended the transfer
  std::array<char, 256> reason_{};  // of the transport's own
};

}  // namespace kelvo
