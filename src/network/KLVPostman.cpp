#include "network/KLVPostman.h"

#include <strings.h>

#include <algorithm>

#include "network/HTTPURL.h"
#include "platform/Immortal.h"
#include "platform/JSON.h"
#include "platform/ServiceEndpoint.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// Returns nullopt if the encoded text is not a URL.
std::optional<std::string> encodedURL(const std::string& text) {
  std::string encoded = percentEncoded(text);
  if (!HTTPURL::parse(encoded)) return std::nullopt;
  return encoded;
}

/// Returns `baseURL` followed by `path`, encoded; nullopt if that is not a URL. If `baseURL` itself is missing or not a
/// URL, returns it alone: the session then ends the request in an error. Without a callback, a start-up would never
/// end.
std::optional<std::string> appendedURL(const std::string& baseURL, const std::string& path) {
  if (!HTTPURL::parse(baseURL)) return baseURL;
  return encodedURL(baseURL + path);
}

std::optional<std::string> urlFor(const std::string& baseURL, const std::string& path) {
  return path.find("https:") != std::string::npos ? encodedURL(path) : appendedURL(baseURL, path);
}

bool fitsOneLine(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == text.npos;
}

void setHeader(HTTPRequest& request, const std::string& name, std::string value) {
  auto& headers = request.headers;
  const auto same = std::find_if(headers.begin(), headers.end(), [&](const auto& header) {
    return strcasecmp(header.first.c_str(), name.c_str()) == 0;
  });
  if (same == headers.end()) {
    headers.emplace_back(name, std::move(value));
  } else {
    same->second = std::move(value);
  }
}

void setHeaders(HTTPRequest& request, const std::optional<Dictionary>& headerFields) {
  if (!headerFields) return;
  for (const auto& [name, value] : *headerFields) {
    const auto* text = value.get<std::string>();
    const bool named = !name.empty() && name.find_first_of(": ") == std::string::npos && fitsOneLine(name);
    if (!named || text == nullptr || !fitsOneLine(*text)) {
      KLV_WARN("Left out a header that cannot be sent: {}", name);
      continue;
    }
    setHeader(request, name, *text);
  }
}

HTTPRequest jsonRequest(std::string method, std::string url) {
  return {std::move(method), std::move(url), {{"Content-Type", "application/json"}}, {}};
}

}  // namespace

KLVHTTPSession& KLVPostman::sharedSession() {
  static Immortal<KLVHTTPSession> session;
  return *session;
}

void KLVPostman::getDataFromURLPath(const std::string& path, HTTPCompletion completion, const KLVAnswerLimits& limits) {
  auto url = urlFor(ServiceEndpoint::shared().baseURL, path);
  if (!url) {
    KLV_WARN("Error in URL encoding");
    return;
  }
  HTTPRequest request = jsonRequest("GET", *std::move(url));
  request.limits = limits;
  send(std::move(request), std::move(completion));
}

void KLVPostman::postDataToURL(const std::string& path, const std::optional<Dictionary>& body,
                               const std::optional<Dictionary>& headerFields, HTTPCompletion completion) {
  auto url = urlFor(ServiceEndpoint::shared().baseURL, path);
  if (!url) {
    KLV_WARN("Error in URL encoding");
    return;
  }
  KLV_DEBUG("request URL: {}", *url);
  HTTPRequest request = jsonRequest("POST", *std::move(url));
  setHeaders(request, headerFields);
  if (body) {
    std::string error;
    auto json = jsonText(*body, &error);
    if (!json) {
      KLV_ERROR("Error geting json object from data: {}", error);
      KLV_WARN("Unable to create requestBody");
      return;
    }
    KLV_DEBUG("request json: {}", *json);
    request.body = *std::move(json);
  }
  send(std::move(request), std::move(completion));
}

void KLVPostman::makeDeleteRequestToURLPath(const std::string& path, const std::optional<Dictionary>& headerFields,
                                            HTTPCompletion completion) {
  auto url = appendedURL(ServiceEndpoint::shared().baseURL, path);
  if (!url) {
    KLV_WARN("Error in URL encoding");
    return;
  }
  HTTPRequest request = jsonRequest("DELETE", *std::move(url));
  setHeaders(request, headerFields);
  send(std::move(request), std::move(completion));
}

void KLVPostman::setGroup(std::shared_ptr<HTTPGroup> group) {
  const Lock lock(mutex_);
  group_.swap(group);  // `group` ends after the lock: see ~HTTPGroup
}

std::shared_ptr<HTTPGroup> KLVPostman::group() const {
  const Lock lock(mutex_);
  return group_;
}

void KLVPostman::send(HTTPRequest request, HTTPCompletion completion) {
  request.group = group();
  if (request.group != nullptr) completion = request.group->guard(std::move(completion));
  sharedSession().start(std::move(request), [completion = std::move(completion)](auto data, auto response, auto error) {
    KLV_DEBUG("Response: {}", describe(response));
    if (completion) completion(std::move(data), std::move(response), std::move(error));
  });
}

}  // namespace kelvo
