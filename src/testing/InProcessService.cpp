#include "testing/InProcessService.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/JSON.h"

namespace kelvo::testing {
namespace {

using collector::Script;

constexpr std::chrono::seconds kPatienceOfClient(30);
// Numbers of curl, as real requests end in them.
constexpr int kTimedOut = 28;
constexpr int kGotNothing = 52;

/// Returns the text without percent-encoding.
std::string decoded(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned byte = 0;
    const auto digits = text.substr(i + 1, 2);
    const bool isEncoded = text[i] == '%' && digits.size() == 2 &&
                           std::from_chars(digits.data(), digits.data() + 2, byte, 16).ptr == digits.data() + 2;
    result += isEncoded ? static_cast<char>(byte) : text[i];
    if (isEncoded) i += 2;
  }
  return result;
}

/// Returns "/path?query" of a URL.
std::string_view targetOf(std::string_view url) {
  const auto authority = url.find("://");
  const auto path = url.find('/', authority == url.npos ? 0 : authority + 3);
  return path == url.npos ? "/" : url.substr(path);
}

service::Request decodedRequest(const HTTPRequest& request, std::string_view target) {
  const auto mark = target.find('?');
  service::Request result{request.method, decoded(target.substr(0, mark)), {}, request.body.inOnePiece()};
  for (auto rest = mark == target.npos ? std::string_view() : target.substr(mark + 1); !rest.empty();) {
    const auto pair = rest.substr(0, rest.find('&'));
    const auto equals = std::min(pair.find('='), pair.size());
    const auto value = pair.substr(std::min(equals + 1, pair.size()));
    result.parameters.emplace(decoded(pair.substr(0, equals)), decoded(value));
    rest.remove_prefix(std::min(pair.size() + 1, rest.size()));
  }
  for (const auto& [name, value] : request.headers) {
    if (::strcasecmp(name.c_str(), "X-Kelvo-Erase") == 0) result.eraseSecret = value;
  }
  return result;
}

InProcessService::Answer answered(const HTTPRequest& request, int status, std::string body) {
  return {{std::move(body), HTTPResponse{status, request.url}, std::nullopt}};
}

InProcessService::Answer failed(int code, const char* reason, std::chrono::nanoseconds after = {}) {
  return {{std::nullopt, std::nullopt, HTTPError{code, reason}}, after};
}

std::string idOf(const Dictionary& chunk, const char* record) {
  const auto* info = chunk[record].get<Dictionary>();
  return info != nullptr ? (*info)["id"].asText().value_or("") : "";
}

}  // namespace

InProcessService::Answer InProcessService::answer(const HTTPRequest& request) {
  const auto target = targetOf(request.url);
  const std::string line = request.method + " " + std::string(target);
  {
    const Lock lock(mutex_);
    requests_.push_back(line);
  }
  const auto script = scripts_.take(line);
  if (script && !script->serves()) {
    if (script->kind() == Script::Kind::Answer) return answered(request, script->status(), script->body());
    if (script->kind() == Script::Kind::Never) return failed(kTimedOut, "Operation timed out", kPatienceOfClient);
    return failed(kGotNothing, "Empty reply from server");
  }
  const auto reply = process(decodedRequest(request, target));
  if (script && script->kind() == Script::Kind::LoseAnswer) return failed(kGotNothing, "Empty reply from server");
  if (script && script->delay() >= kPatienceOfClient)
    return failed(kTimedOut, "Operation timed out", kPatienceOfClient);
  Answer result = answered(request, reply.status, jsonText(reply.body).value_or(""));
  if (script) result.after = script->delay();
  return result;
}

service::Reply InProcessService::process(const service::Request& request) {
  auto reply = service::reply(request, state).value_or(service::refusal(404, "there is no such path"));
  const Lock lock(mutex_);
  if (reply.accepted.chunkOf) accept(request.body);
  if (!request.eraseSecret.empty() && reply.status == 200 && !reply.accepted.erasureOf) {
    const Dictionary body = parseJSON(request.body).value_or(Value()).asDictionary().value_or(Dictionary());
    secrets_.emplace(idOf(body, "device_info"), request.eraseSecret);
  }
  return reply.accepted.erasureOf ? erase(*reply.accepted.erasureOf, request.eraseSecret) : reply;
}

void InProcessService::accept(const std::string& body) {
  const Dictionary chunk = parseJSON(body).value_or(Value()).asDictionary().value_or(Dictionary());
  if (erased_.count(idOf(chunk, "device_info")) > 0 || !ids_.insert(idOf(chunk, "chunk_meta")).second) return;
  chunks_.push_back(chunk);
  if (!copy_.empty()) std::ofstream(copy_, std::ios::app) << body << std::endl;
}

service::Reply InProcessService::erase(const service::Device& device, const std::string& secret) {
  const auto isOfDevice = [&](const Dictionary& chunk) { return idOf(chunk, "device_info") == device.id; };
  const auto known = secrets_.find(device.id);
  if (erased_.count(device.id) > 0 ||
      (known == secrets_.end() && std::none_of(chunks_.begin(), chunks_.end(), isOfDevice))) {
    return service::replyToErasure(service::Erasure::unknownDevice);
  }
  if (known == secrets_.end()) return service::replyToErasure(service::Erasure::noSecret);
  if (known->second != secret) return service::replyToErasure(service::Erasure::wrongSecret);
  std::erase_if(chunks_, isOfDevice);
  erased_.insert(device.id);
  return service::replyToErasure(service::Erasure::done);
}

std::vector<std::string> InProcessService::requests() const {
  const Lock lock(mutex_);
  return requests_;
}

std::vector<Dictionary> InProcessService::chunks() const {
  const Lock lock(mutex_);
  return chunks_;
}

void InProcessService::copyTo(const std::string& path) {
  const Lock lock(mutex_);
  copy_ = path;
}

void InProcessService::takeCopies(const std::string& path) {
  const Lock lock(mutex_);
  std::ifstream file(path);
  for (std::string body; std::getline(file, body);) accept(body);
}

}  // namespace kelvo::testing
