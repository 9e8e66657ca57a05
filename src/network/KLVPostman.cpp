#include "network/KLVPostman.h"

#include <strings.h>

#include <algorithm>

#include "network/HTTPURL.h"
#include "platform/JSON.h"
#include "platform/ProcessWide.h"
#include "platform/ServiceEndpoint.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

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

HTTPRequest jsonRequest(std::string method, const std::string& url) {
  return {std::move(method), percentEncoded(url), {{"Content-Type", "application/json"}}, {}};
}

/// Without a service endpoint, the request has no URL.
HTTPRequest requestToService(std::string method, const std::string& path) {
  const std::string& endpoint = ServiceEndpoint::shared().baseURL;
  HTTPRequest request = jsonRequest(std::move(method), endpoint.empty() ? "" : endpoint + path);
  request.endpoint = endpoint;
  return request;
}

HTTPRequest requestTo(std::string method, const std::string& path) {
  const bool isWhole = path.find("https:") != path.npos;
  return isWhole ? jsonRequest(std::move(method), path) : requestToService(std::move(method), path);
}

/// Returns a POST without a body yet.
HTTPRequest postRequest(const std::string& path, const std::optional<Dictionary>& headerFields) {
  HTTPRequest request = requestTo("POST", path);
  KLV_DEBUG("request URL: {}", request.url);
  setHeaders(request, headerFields);
  return request;
}

}  // namespace

KLVHTTPSession& KLVPostman::sharedSession() {
  static ProcessWide<KLVHTTPSession> session;
  return *session;
}

void KLVPostman::getDataFromURLPath(const std::string& path, HTTPCompletion completion, const KLVAnswerLimits& limits) {
  HTTPRequest request = requestTo("GET", path);
  request.limits = limits;
  send(std::move(request), std::move(completion));
}

void KLVPostman::postDataToURL(const std::string& path, const std::optional<Dictionary>& body,
                               const std::optional<Dictionary>& headerFields, HTTPCompletion completion) {
  HTTPRequest request = postRequest(path, headerFields);
  if (!body) return send(std::move(request), std::move(completion));
  std::string error;
  const auto json = jsonText(*body, &error);
  if (!json) {
    KLV_ERROR("Error geting json object from data: {}", error);
    KLV_WARN("Unable to create requestBody");
    return;
  }
  sendJSON(std::move(request), SlicedText(*json), std::move(completion));
}

void KLVPostman::postJSON(const std::string& path, SlicedText body, const Dictionary& headerFields,
                          HTTPCompletion completion) {
  sendJSON(postRequest(path, headerFields), std::move(body), std::move(completion));
}

void KLVPostman::makeDeleteRequestToURLPath(const std::string& path, const std::optional<Dictionary>& headerFields,
                                            HTTPCompletion completion) {
  HTTPRequest request = requestToService("DELETE", path);
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

void KLVPostman::sendJSON(HTTPRequest request, SlicedText body, HTTPCompletion completion) {
  KLV_DEBUG("request json: {}", body.inOnePiece());
  request.body = std::move(body);
  send(std::move(request), std::move(completion));
}

void KLVPostman::send(HTTPRequest request, HTTPCompletion completion) {
  request.group = group();
  if (request.group != nullptr) completion = request.group->guard(std::move(completion));
  sharedSession().start(std::move(request), [completion = std::move(completion)](const auto& data, const auto& response,
                                                                                 const auto& error) {
    KLV_DEBUG("Response: {}", describe(response));
    if (completion) completion(data, response, error);
  });
}

}  // namespace kelvo
