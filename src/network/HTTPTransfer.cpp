#include "network/HTTPTransfer.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "network/HTTPURL.h"
#include "records/KLVSDKInfo.h"

namespace kelvo {
namespace {

constexpr std::size_t kMaximumBody = 64U * 1024 * 1024;
constexpr long kMaximumRedirects = 10;
static_assert(CURL_ERROR_SIZE <= 256);

}  // namespace

std::unique_ptr<HTTPTransfer> HTTPTransfer::make(HTTPRequest request, HTTPCompletion completion,
                                                 const Settings& settings) {
  std::unique_ptr<HTTPTransfer> transfer(new HTTPTransfer(std::move(request), std::move(completion)));
  if (transfer->easy_ == nullptr || !transfer->configure(settings)) return nullptr;
  return transfer;
}

HTTPTransfer::HTTPTransfer(HTTPRequest request, HTTPCompletion completion)
    : request_(std::move(request)), completion_(std::move(completion)), easy_(curl_easy_init()) {}

HTTPTransfer::~HTTPTransfer() {
  curl_easy_cleanup(easy_);
  curl_slist_free_all(static_cast<curl_slist*>(headers_));
}

bool HTTPTransfer::configure(const Settings& settings) {
  bool accepted = true;
  const auto set = [&](CURLoption option, auto value) {
    accepted = accepted && curl_easy_setopt(easy_, option, value) == CURLE_OK;
  };
  const auto url = HTTPURL::parse(request_.url);
  const bool startsOnThisMachine = url && url->isLoopback();

  set(CURLOPT_URL, request_.url.c_str());
  set(CURLOPT_PRIVATE, static_cast<void*>(this));
  set(CURLOPT_ERRORBUFFER, reason_.data());
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_USERAGENT, fmt::format("Kelvo/{:.0f}", kKLVSDKVersion).c_str());

  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_REDIR_PROTOCOLS_STR, startsOnThisMachine ? "http,https" : "https");
  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_MAXREDIRS, kMaximumRedirects);
  set(CURLOPT_PREREQFUNCTION, &HTTPTransfer::beforeRequest);
  set(CURLOPT_PREREQDATA, static_cast<void*>(this));

  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  set(CURLOPT_PIPEWAIT, 1L);  // rather share a connection than open another
  set(CURLOPT_NOPROXY, settings.noProxy.c_str());
  const curl_opensocket_callback openSocket = [](void* transfer, curlsocktype, curl_sockaddr* address) {
    if (!static_cast<HTTPTransfer*>(transfer)->mayLeave()) return CURL_SOCKET_BAD;
    // A program that the host starts must not inherit the connection.
    const int opened = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (opened < 0 || opened > STDERR_FILENO) return opened;
    // The host has closed a standard stream, and may print to it all the same.
    const int moved = ::fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(opened);
    return moved;
  };
  set(CURLOPT_OPENSOCKETFUNCTION, openSocket);
  set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(this));

  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (!settings.caFile.empty()) {
    set(CURLOPT_CAINFO, settings.caFile.c_str());
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // else the system's authorities count as well
  }

  const auto seconds = static_cast<long>(settings.limit.count());
  set(CURLOPT_CONNECTTIMEOUT, seconds);
  set(CURLOPT_LOW_SPEED_LIMIT, 1L);
  set(CURLOPT_LOW_SPEED_TIME, seconds);

  set(CURLOPT_WRITEFUNCTION, &HTTPTransfer::receive);
  set(CURLOPT_WRITEDATA, static_cast<void*>(this));
  return accepted && configureMethod();
}

bool HTTPTransfer::configureMethod() {
  bool accepted = true;
  // A POST must be one by nature, not by name, or a redirect that asks for a GET would repeat it.
  if (request_.method == "POST") {
    accepted = curl_easy_setopt(easy_, CURLOPT_POST, 1L) == CURLE_OK &&
               curl_easy_setopt(easy_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size())) ==
                   CURLE_OK &&
               curl_easy_setopt(easy_, CURLOPT_POSTFIELDS, request_.body.data()) == CURLE_OK &&
               addHeader("Expect:");  // do not ask for leave before a large body
  } else if (request_.method != "GET") {
    accepted = curl_easy_setopt(easy_, CURLOPT_CUSTOMREQUEST, request_.method.c_str()) == CURLE_OK;
  }
  for (const auto& [name, value] : request_.headers) {
    // "name:" would take the header away; "name;" sends it empty.
    accepted = accepted && addHeader(value.empty() ? name + ";" : name + ": " + value);
  }
  return accepted && curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, headers_) == CURLE_OK;
}

bool HTTPTransfer::addHeader(const std::string& line) {
  auto* longer = curl_slist_append(static_cast<curl_slist*>(headers_), line.c_str());
  if (longer == nullptr) return false;
  headers_ = longer;
  return true;
}

HTTPTransfer::Outcome HTTPTransfer::outcome(int code) {
  if (code != CURLE_OK) {
    std::string text = reason_[0] != '\0' ? reason_.data() : curl_easy_strerror(static_cast<CURLcode>(code));
    return {std::nullopt, std::nullopt, HTTPError{code, refusal_.empty() ? std::move(text) : std::move(refusal_)}};
  }
  HTTPResponse response;
  curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &response.statusCode);
  const char* url = nullptr;
  curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &url);
  response.url = url != nullptr ? url : request_.url;
  return {std::move(data_), std::move(response), std::nullopt};
}

std::size_t HTTPTransfer::receive(char* bytes, std::size_t size, std::size_t count, void* transfer) noexcept {
  auto& self = *static_cast<HTTPTransfer*>(transfer);
  const std::size_t length = size * count;
  try {
    if (length > kMaximumBody - self.data_.size()) {
      self.refusal_ = "The answer is larger than 64 MiB";
      return 0;
    }
    self.data_.append(bytes, length);
    return length;
  } catch (...) {  // no memory; less than `length` ends the transfer
    return 0;
  }
}

bool HTTPTransfer::mayLeave() noexcept {
  try {
    const char* text = nullptr;
    curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &text);
    const auto url = HTTPURL::parse(text != nullptr ? text : "");
    if (url && !url->exposesCleartext()) return true;
    refusal_ = "A redirect to cleartext was refused";
  } catch (...) {  // no memory to look at it: refuse
  }
  return false;
}

/// A connection to a proxy may be used again without a look at the new target, so it takes a second one here: before
/// anything of a request is sent, redirected ones included.
int HTTPTransfer::beforeRequest(void* transfer, char*, char*, int, int) noexcept {
  return static_cast<HTTPTransfer*>(transfer)->mayLeave() ? CURL_PREREQFUNC_OK : CURL_PREREQFUNC_ABORT;
}

}  // namespace kelvo
