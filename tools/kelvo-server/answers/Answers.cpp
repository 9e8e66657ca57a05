#include "kelvo-server/answers/Answers.h"

#include <utility>

#include "kelvo-server/documents/DocumentCache.h"
#include "kelvo-server/loop/Loop.h"
#include "kelvo-server/loop/Random.h"
#include "platform/JSON.h"

namespace kelvo::server {
namespace {

constexpr int kBadRequest = 400;
constexpr int kNotFound = 404;
constexpr int kTooMany = 429;
constexpr int kUnavailable = 503;
constexpr std::size_t kMostAppBytes = 200;
/// A larger body is decoded by a worker, because the other connections of the loop would wait.
constexpr std::size_t kLargeBody = 256U << 10U;

Answer answerOf(const service::Reply& reply) {
  Answer answer;
  answer.status = reply.status;
  answer.body = jsonText(reply.body).value_or("{}");
  answer.allow = reply.allow;
  return answer;
}

Answer accepted() {
  return answerOf(service::success({{"accepted", true}}));
}

}  // namespace

Answer refusalAnswer(int status, const std::string& reason, const AnswersSettings& settings) {
  Answer answer = answerOf(service::refusal(status, reason));
  if (status != kTooMany && status != kUnavailable) return answer;
  answer.retryAfter = randomBetween(settings.retryAfter, settings.retryAfter * 3);
  return answer;
}

void Answers::answer(service::Request request, Done done) {
  const std::string app = service::applicationOf(request);
  if (app.size() > kMostAppBytes || !service::isUTF8(app)) {
    return done(answerOf(service::refusal(kBadRequest, "the application's id is too long or not UTF-8")));
  }
  AppCounts& counts = parts_.metrics.of(app);
  ++counts.requests;
  if (!parts_.limits.allows(app)) {
    ++counts.tooMany;
    return done(refusalAnswer(kTooMany, "the application sends too many requests", parts_.settings));
  }
  if (service::isChunkUpload(request)) return takeChunk(std::move(request), app, std::move(done));
  const auto documents = parts_.documents.of(app);
  if (!documents) return done(unavailable(counts));
  const auto reply = service::reply(request, *documents);
  if (!reply) return done(answerOf(service::refusal(kNotFound, "there is no such path")));
  if (reply->accepted.userOf) return takeUserInfo(std::move(request), app, std::move(done));
  if (reply->accepted.erasureOf) return takeErasure(*reply->accepted.erasureOf, request.eraseSecret, std::move(done));
  done(answerOf(*reply));
}

void Answers::takeChunk(service::Request request, const std::string& app, Done done) {
  if (request.body.size() < kLargeBody) {
    return storeChunk(decodeChunk(app, std::move(request.body), request.eraseSecret), app, std::move(done));
  }
  Loop& loop = parts_.loop;  // outlives this object, which a worker may not
  parts_.workers.post([this, &loop, app, request = std::move(request), done = std::move(done)]() mutable {
    const auto decoded = std::make_shared<DecodedChunk>(decodeChunk(app, std::move(request.body), request.eraseSecret));
    loop.post([this, decoded, app, done = std::move(done)] { storeChunk(std::move(*decoded), app, done); });
  });
}

void Answers::storeChunk(DecodedChunk decoded, const std::string& app, Done done) {
  if (!decoded.chunk) return quarantine(app, {}, std::move(decoded.body), std::move(decoded.fault), std::move(done));
  AppCounts& counts = parts_.metrics.of(app);
  const std::size_t events = decoded.chunk->events.size();
  ++counts.waiting;
  Entry entry;
  entry.chunk = std::move(decoded.chunk);
  entry.done = [this, &counts, events, done = std::move(done)](Verdict verdict, Entry& stored,
                                                               const std::string& reason) {
    --counts.waiting;
    if (verdict != Verdict::Refused) return finish(verdict, counts, events, done);
    Chunk& chunk = *stored.chunk;
    quarantine(chunk.device.app, chunk.device.device, std::move(chunk.body), reason, done);
  };
  parts_.writer.add(std::move(entry));
}

void Answers::finish(Verdict verdict, AppCounts& counts, std::size_t events, const Done& done) {
  switch (verdict) {
    case Verdict::Unavailable: return done(unavailable(counts));
    case Verdict::Stored:
      ++counts.chunks;
      counts.events += events;
      break;
    case Verdict::Duplicate: ++counts.duplicates; break;
    case Verdict::Conflict: ++counts.conflicts; break;
    case Verdict::Erased: ++counts.dropped; break;
    case Verdict::Refused: break;
  }
  done(accepted());
}

void Answers::quarantine(const std::string& app, const std::string& device, std::string body, std::string reason,
                         Done done) {
  if (parts_.settings.isStrict) return done(answerOf(service::refusal(kBadRequest, reason)));
  AppCounts& counts = parts_.metrics.of(app);
  const auto kept = [this, &counts, done = std::move(done)](bool isKept) {
    if (!isKept) return done(unavailable(counts));
    ++counts.quarantined;
    done(accepted());
  };
  parts_.writer.keepUnreadable(app, device, std::move(body), std::move(reason), kept);
}

void Answers::takeUserInfo(service::Request request, const std::string& app, Done done) {
  Entry entry;
  entry.report = decodeUserInfo(app, std::move(request.body), request.eraseSecret);
  entry.done = [this, app, done = std::move(done)](Verdict verdict, const Entry&, const std::string& reason) {
    if (verdict == Verdict::Unavailable) return done(unavailable(parts_.metrics.of(app)));
    // The device does not repeat this request, whatever the answer is.
    done(verdict == Verdict::Refused ? answerOf(service::refusal(kBadRequest, reason)) : accepted());
  };
  parts_.writer.add(std::move(entry));
}

void Answers::takeErasure(const service::Device& device, const std::string& secret, Done done) {
  AppCounts& counts = parts_.metrics.of(device.application);
  parts_.writer.erase(device, secret, [this, &counts, done = std::move(done)](std::optional<service::Erasure> outcome) {
    if (!outcome) return done(unavailable(counts));
    if (*outcome == service::Erasure::done) ++counts.erasures;
    done(answerOf(service::replyToErasure(*outcome)));
  });
}

Answer Answers::unavailable(AppCounts& counts) const {
  ++counts.unavailable;
  return refusalAnswer(kUnavailable, "the service cannot store this now", parts_.settings);
}

}  // namespace kelvo::server
