#include "storage/KLVCountCache.h"

namespace kelvo {
namespace {
/// An application uses some dozens of names; one that makes up names must not fill the memory.
constexpr std::size_t kMostNames = 512;
}  // namespace

std::optional<std::int64_t> KLVCountCache::find(const std::string& name, std::uint64_t generation) {
  const std::lock_guard lock(mutex_);
  enter(generation);
  const auto place = generation == generation_ ? counts_.find(name) : counts_.end();
  return place == counts_.end() ? std::nullopt : std::optional(place->second);
}

void KLVCountCache::found(const std::string& name, std::int64_t count, std::uint64_t generation) {
  const std::lock_guard lock(mutex_);
  enter(generation);
  if (generation == generation_) counts_.try_emplace(name, count);
}

void KLVCountCache::written(const std::string& name, std::int64_t count, std::uint64_t generation) {
  const std::lock_guard lock(mutex_);
  enter(generation);
  if (generation == generation_) counts_[name] = count;
}

/// Under the mutex. Forgets everything when the database has been rolled back since.
void KLVCountCache::enter(std::uint64_t generation) {
  if (generation > generation_ || counts_.size() >= kMostNames) counts_.clear();
  if (generation > generation_) generation_ = generation;
}

}  // namespace kelvo
