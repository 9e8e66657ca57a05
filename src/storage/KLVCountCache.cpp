#include "storage/KLVCountCache.h"

namespace kelvo {
namespace {
/// An application uses a few dozen names. The limit bounds the memory if one makes up names.
constexpr std::size_t kMaxNames = 512;
}  // namespace

std::optional<std::int64_t> KLVCountCache::find(const std::string& name, std::uint64_t generation) {
  const Lock lock(mutex_);
  if (!enter(generation)) return std::nullopt;
  const auto place = counts_.find(name);
  return place == counts_.end() ? std::nullopt : std::optional(place->second);
}

void KLVCountCache::found(const std::string& name, std::int64_t count, std::uint64_t generation) {
  const Lock lock(mutex_);
  if (enter(generation) && counts_.size() < kMaxNames) counts_.try_emplace(name, count);
}

void KLVCountCache::written(const std::string& name, std::int64_t count, std::uint64_t generation) {
  const Lock lock(mutex_);
  if (!enter(generation)) return;
  const auto place = counts_.find(name);
  if (place != counts_.end()) {
    place->second = count;
  } else if (counts_.size() < kMaxNames) {
    counts_.emplace(name, count);
  }
}

void KLVCountCache::makeRoom() {
  const Lock lock(mutex_);
  if (counts_.size() >= kMaxNames) counts_.clear();
}

bool KLVCountCache::enter(std::uint64_t generation) {
  if (generation > generation_) {
    counts_.clear();
    generation_ = generation;
  }
  return generation == generation_;
}

}  // namespace kelvo
