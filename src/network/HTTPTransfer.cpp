#include "network/HTTPTransfer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "network/Curl.h"
#include "network/HTTPURL.h"
#include "network/RetryAfter.h"
#include "platform/Clock.h"
#include "platform/Privileges.h"
#include "records/KLVSDKInfo.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr long kMaximumRedirects = 10;
constexpr const char* kHTTPAndHTTPS = "http,https";
constexpr long kVerifyNameInCertificate = 2;

constexpr std::string_view kPOST = "POST";
constexpr long kTooManyRequests = 429;
constexpr long kServiceUnavailable = 503;

/// Sets options of an easy handle.
class Options {
 public:
  explicit Options(CURL* easy) : easy_(easy) {}

  template <class T>
  void set(CURLoption option, T value) {
    accepted_ = accepted_ && curl().easy_setopt(easy_, option, value) == CURLE_OK;
  }
  /// Returns false once curl has refused an option.
  [[nodiscard]] bool accepted() const noexcept { return accepted_; }

 private:
  CURL* easy_;
  bool accepted_ = true;
};

void setRedirects(Options& options, bool startsOnThisMachine) {
  options.set(CURLOPT_PROTOCOLS_STR, kHTTPAndHTTPS);
  options.set(CURLOPT_REDIR_PROTOCOLS_STR, startsOnThisMachine ? kHTTPAndHTTPS : "https");
  options.set(CURLOPT_FOLLOWLOCATION, 1L);
  options.set(CURLOPT_MAXREDIRS, kMaximumRedirects);
}

/// curl copies a connection's secrets to the file that SSLKEYLOGFILE of the environment names. This hook of curl takes
/// them away again. The function is OpenSSL's, which only curl uses.
CURLcode keepSecrets(CURL*, void* context, void*) {
  using Setter = void (*)(void* context, void (*log)(const void*, const char*));
  const auto setLog = reinterpret_cast<Setter>(Curl::functionBehind("SSL_CTX_set_keylog_callback"));
  if (setLog == nullptr) return CURLE_SSL_CONNECT_ERROR;
  setLog(context, nullptr);
  return CURLE_OK;
}

/// For a program with more rights than its caller. curl itself trusts the environment of any program.
void ignoreEnvironment(Options& options) {
  options.set(CURLOPT_PROXY, "");
  if (std::getenv("SSLKEYLOGFILE") != nullptr) options.set(CURLOPT_SSL_CTX_FUNCTION, keepSecrets);
}

void setTLS(Options& options, const std::string& caFile) {
  options.set(CURLOPT_SSL_VERIFYPEER, 1L);
  options.set(CURLOPT_SSL_VERIFYHOST, kVerifyNameInCertificate);
  options.set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (caFile.empty()) return;
  options.set(CURLOPT_CAINFO, caFile.c_str());
  options.set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // or curl would trust the system's authorities, too
}

void setTimeLimits(Options& options, const KLVAnswerLimits& limits, long seconds) {
  options.set(CURLOPT_CONNECTTIMEOUT, seconds);
  if (limits.lowestSpeed == 0) return options.set(CURLOPT_TIMEOUT, seconds);
  options.set(CURLOPT_LOW_SPEED_LIMIT, limits.lowestSpeed);
  options.set(CURLOPT_LOW_SPEED_TIME, seconds);
}

/// Returns the last response's `Retry-After` field, empty if there is none.
std::string retryAfterField(CURL* easy) {
  constexpr std::size_t kFirst = 0;
  constexpr int kLastResponse = -1;
  curl_header* header = nullptr;
  const auto code = curl().easy_header(easy, "Retry-After", kFirst, CURLH_HEADER, kLastResponse, &header);
  return code == CURLHE_OK ? header->value : "";
}

}  // namespace

std::unique_ptr<HTTPTransfer> HTTPTransfer::make(HTTPRequest request, HTTPCompletion completion,
                                                 const Settings& settings) {
  std::unique_ptr<HTTPTransfer> transfer(new HTTPTransfer(std::move(request), std::move(completion)));
  if (transfer->easy_ == nullptr || !transfer->configure(settings)) return nullptr;
  return transfer;
}

HTTPTransfer::HTTPTransfer(HTTPRequest request, HTTPCompletion completion)
    : request_(std::move(request)),
      body_(request_.body),
      completion_(std::move(completion)),
      easy_(curl().easy_init()) {}

HTTPTransfer::~HTTPTransfer() {
  curl().easy_cleanup(easy_);
  curl().slist_free_all(static_cast<curl_slist*>(headers_));
}

bool HTTPTransfer::mustEnd() const {
  if (request_.group == nullptr || !request_.group->isClosed()) return false;
  curl_off_t sent = 0;
  curl().easy_getinfo(easy_, CURLINFO_SIZE_UPLOAD_T, &sent);
  return request_.body.empty() || static_cast<std::uint64_t>(sent) < request_.body.size();
}

bool HTTPTransfer::configure(const Settings& settings) {
  const auto url = HTTPURL::parse(request_.url);
  const bool startsOnThisMachine = url && url->isLoopback();
  const std::string userAgent = "Kelvo/" + std::to_string(static_cast<int>(kKLVSDKVersion));
  const curl_opensocket_callback open = [](void* transfer, curlsocktype, curl_sockaddr* address) {
    return openSocket(transfer, address->family, address->socktype, address->protocol);
  };
  static_assert(CURL_ERROR_SIZE <= kReasonSize);

  Options options(easy_);
  options.set(CURLOPT_URL, request_.url.c_str());
  options.set(CURLOPT_PRIVATE, static_cast<void*>(this));
  options.set(CURLOPT_ERRORBUFFER, reason_.data());
  options.set(CURLOPT_NOSIGNAL, 1L);
  options.set(CURLOPT_USERAGENT, userAgent.c_str());
  setRedirects(options, startsOnThisMachine);
  options.set(CURLOPT_PREREQFUNCTION, &HTTPTransfer::beforeRequest);
  options.set(CURLOPT_PREREQDATA, static_cast<void*>(this));

  options.set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  options.set(CURLOPT_PIPEWAIT, 1L);  // wait to share a connection rather than open another
  options.set(CURLOPT_NOPROXY, settings.noProxy.c_str());
  options.set(CURLOPT_OPENSOCKETFUNCTION, open);
  options.set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(this));
  setTLS(options, settings.caFile);
  if (mustIgnoreEnvironment()) ignoreEnvironment(options);
  setTimeLimits(options, request_.limits, static_cast<long>(settings.limit.count()));
  options.set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(request_.limits.bytes));
  options.set(CURLOPT_WRITEFUNCTION, &HTTPTransfer::receive);
  options.set(CURLOPT_WRITEDATA, static_cast<void*>(this));
  options.set(CURLOPT_XFERINFOFUNCTION, &HTTPTransfer::checkProgress);
  options.set(CURLOPT_XFERINFODATA, static_cast<void*>(this));
  options.set(CURLOPT_NOPROGRESS, 0L);
  return options.accepted() && configureMethod();
}

bool HTTPTransfer::configureMethod() {
  Options options(easy_);
  if (request_.method == kPOST) {
    options.set(CURLOPT_POST, 1L);
    options.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size()));
    if (const auto body = request_.body.onlySlice()) {
      options.set(CURLOPT_POSTFIELDS, body->data());  // curl sends it with the header
    } else {
      options.set(CURLOPT_READFUNCTION, &HTTPTransfer::send);
      options.set(CURLOPT_READDATA, static_cast<void*>(this));
      options.set(CURLOPT_SEEKFUNCTION, &HTTPTransfer::rewind);
      options.set(CURLOPT_SEEKDATA, static_cast<void*>(this));
    }
    if (!addHeader("Expect:")) return false;  // removes curl's header, so that a large body is sent without asking
  } else if (request_.method != "GET") {
    options.set(CURLOPT_CUSTOMREQUEST, request_.method.c_str());
  }
  for (const auto& [name, value] : request_.headers) {
    // curl takes "name:" as a request to remove the header; "name;" sends it without a value.
    if (!addHeader(value.empty() ? name + ";" : name + ": " + value)) return false;
  }
  options.set(CURLOPT_HTTPHEADER, headers_);
  return options.accepted();
}

bool HTTPTransfer::addHeader(const std::string& line) {
  auto* longer = curl().slist_append(static_cast<curl_slist*>(headers_), line.c_str());
  if (longer == nullptr) return false;
  headers_ = longer;
  return true;
}

HTTPTransfer::Outcome HTTPTransfer::outcome(int code) {
  if (code == CURLE_FILESIZE_EXCEEDED) refuseAnswer();
  if (code != CURLE_OK) {
    std::string text = reason_[0] != '\0' ? reason_.data() : curl().easy_strerror(static_cast<CURLcode>(code));
    return {std::nullopt, std::nullopt, HTTPError{code, refusal_.empty() ? std::move(text) : std::move(refusal_)}};
  }
  HTTPResponse response;
  curl().easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &response.statusCode);
  const char* url = nullptr;
  curl().easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &url);
  response.url = url != nullptr ? url : request_.url;
  if (response.statusCode == kTooManyRequests || response.statusCode == kServiceUnavailable) {
    response.retryAfter = retryAfter(retryAfterField(easy_), Clock::now());
  }
  return {std::move(data_), std::move(response), std::nullopt};
}

std::size_t HTTPTransfer::receive(char* bytes, std::size_t size, std::size_t count, void* transfer) noexcept {
  auto& self = *static_cast<HTTPTransfer*>(transfer);
  const std::size_t length = size * count;
  try {
    if (length > self.request_.limits.bytes - self.data_.size()) {
      self.refuseAnswer();
      return 0;
    }
    self.data_.append(bytes, length);
    return length;
  } catch (...) {  // no memory; a result below `length` ends the transfer
    return 0;
  }
}

std::size_t HTTPTransfer::send(char* bytes, std::size_t size, std::size_t count, void* transfer) noexcept {
  return static_cast<HTTPTransfer*>(transfer)->body_.read(bytes, size * count);
}

/// curl sends the body again after a redirect, and on a new connection if the service has closed the one that it kept.
int HTTPTransfer::rewind(void* transfer, std::int64_t offset, int origin) noexcept {
  auto& body = static_cast<HTTPTransfer*>(transfer)->body_;
  const bool isDone = origin == SEEK_SET && offset >= 0 && body.seek(static_cast<std::uint64_t>(offset));
  return isDone ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}

/// Counts also the bytes that `receive` does not get: the body of a redirect.
int HTTPTransfer::checkProgress(void* transfer, std::int64_t, std::int64_t received, std::int64_t,
                                std::int64_t) noexcept {
  auto& self = *static_cast<HTTPTransfer*>(transfer);
  if (received <= static_cast<std::int64_t>(self.request_.limits.bytes)) return 0;
  try {
    self.refuseAnswer();
  } catch (...) {  // no memory for the text: any other value than 0 ends the transfer
  }
  return 1;
}

void HTTPTransfer::refuseAnswer() {
  refusal_ = fmt::format("The answer is larger than {} bytes", request_.limits.bytes);
}

bool HTTPTransfer::isTargetAllowed() noexcept {
  try {
    const char* text = nullptr;
    curl().easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &text);
    const auto url = HTTPURL::parse(text != nullptr ? text : "");
    if (!url || url->exposesCleartext()) {
      refusal_ = "A redirect to cleartext was refused";
    } else if (hasLostItsBody()) {
      refusal_ = "A redirect from POST to GET was refused";
      KLV_WARN("{}: {}", refusal_, request_.url);
    } else {
      return true;
    }
  } catch (...) {  // no memory to parse the URL: refuse
  }
  return false;
}

bool HTTPTransfer::hasLostItsBody() const {
  const char* method = nullptr;
  curl().easy_getinfo(easy_, CURLINFO_EFFECTIVE_METHOD, &method);
  return request_.method == kPOST && (method == nullptr || method != kPOST);
}

/// Returns the socket for a new connection, or CURL_SOCKET_BAD if the target is not allowed or no socket is free.
int HTTPTransfer::openSocket(void* transfer, int family, int type, int protocol) noexcept {
  if (!static_cast<HTTPTransfer*>(transfer)->isTargetAllowed()) return CURL_SOCKET_BAD;
  // A program that the host starts must not inherit the connection.
  const int opened = ::socket(family, type | SOCK_CLOEXEC, protocol);
  if (opened < 0 || opened > STDERR_FILENO) return opened;
  // The host has closed a standard stream but may still print to it, so the socket must not take its number.
  const int moved = ::fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  ::close(opened);
  return moved;
}

/// curl calls this before it sends a request, redirected ones included. curl may reuse a proxy connection, so check the
/// target again.
int HTTPTransfer::beforeRequest(void* transfer, char*, char*, int, int) noexcept {
  return static_cast<HTTPTransfer*>(transfer)->isTargetAllowed() ? CURL_PREREQFUNC_OK : CURL_PREREQFUNC_ABORT;
}

}  // namespace kelvo
