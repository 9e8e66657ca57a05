#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace kelvo {

/// Counts by name that the database was seen to hold, so that those of names in frequent use need no query.
///
/// Every entry belongs to a generation of the database, the number of its rollbacks: what a rolled back group wrote is
/// not known any more. Safe to use from any thread.
class KLVCountCache {
 public:
  [[nodiscard]] std::optional<std::int64_t> find(const std::string& name, std::uint64_t generation);
  /// What a query found that was begun in `generation`. Gives way to what was written meanwhile.
  void found(const std::string& name, std::int64_t count, std::uint64_t generation);
  /// What a statement has just made of it; writers take turns.
  void written(const std::string& name, std::int64_t count, std::uint64_t generation);

 private:
  void enter(std::uint64_t generation);

  std::mutex mutex_;
  std::uint64_t generation_ = 0;
  std::map<std::string, std::int64_t> counts_;
};

}  // namespace kelvo
