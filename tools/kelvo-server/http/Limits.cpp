#include "kelvo-server/http/Limits.h"

#include <algorithm>

namespace kelvo::server {
namespace {

constexpr double kMostSeconds = 2;  // of a bucket
constexpr std::size_t kMostBuckets = 10000;

}  // namespace

bool Limits::openConnection() noexcept {
  if (++connections_ <= settings_.connections) return true;
  --connections_;
  ++refused_;
  return false;
}

bool Limits::enter(const std::string& address) {
  const Lock lock(mutex_);
  auto& count = addresses_[address];
  if (count >= settings_.connectionsPerAddress) {
    ++refused_;
    return false;
  }
  ++count;
  return true;
}

void Limits::leave(const std::string& address) {
  const Lock lock(mutex_);
  const auto found = addresses_.find(address);
  if (--found->second == 0) addresses_.erase(found);
}

bool Limits::takeBytes(std::size_t bytes) noexcept {
  if ((bytes_ += bytes) <= settings_.bytes) return true;
  bytes_ -= bytes;
  return false;
}

bool Limits::allows(const std::string& app) {
  if (settings_.requestsPerApp == 0) return true;
  const auto rate = static_cast<double>(settings_.requestsPerApp);
  const auto now = Clock::now();
  const Lock lock(mutex_);
  const auto refill = [&](Bucket& bucket) {
    const double seconds = std::chrono::duration<double>(now - bucket.since).count();
    bucket.tokens = std::min(bucket.tokens + seconds * rate, rate * kMostSeconds);
    bucket.since = now;
  };
  // A full bucket is as good as none.
  if (buckets_.size() >= kMostBuckets && !buckets_.contains(app)) {
    std::erase_if(buckets_, [&](const auto& entry) {
      Bucket bucket = entry.second;
      refill(bucket);
      return bucket.tokens >= rate * kMostSeconds;
    });
    if (buckets_.size() >= kMostBuckets) return false;
  }
  Bucket& bucket = buckets_.try_emplace(app, Bucket{rate * kMostSeconds, now}).first->second;
  refill(bucket);
  if (bucket.tokens < 1) return false;
  bucket.tokens -= 1;
  return true;
}

}  // namespace kelvo::server
