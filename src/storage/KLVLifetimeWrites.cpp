#include "storage/KLVLifetimeWrites.h"

#include <fmt/format.h>

#include <utility>

#include "platform/Immortal.h"
#include "sqlite/FMKLVDatabase.h"
#include "storage/KLVPersistantStore.h"
#include "storage/KLVSchema.h"
#include "util/KLVLogger.h"

namespace kelvo {

bool KLVLifetimeWrites::write(FMKLVDatabase& db) {
  static Immortal<std::string> update(fmt::format("UPDATE {0} SET {2}={2}+? where {1} = ?", kKLVLifetimeEvents,
                                                  kKLVLifetimeEventName, kKLVLifetimeCount));
  static Immortal<std::string> insert(fmt::format("INSERT INTO {0} ({2}, {1}) VALUES (?, ?)", kKLVLifetimeEvents,
                                                  kKLVLifetimeEventName, kKLVLifetimeCount));
  bool allWritten = true;
  for (const auto& [name, count] : std::exchange(added_, {})) {
    const Array values{count, name};
    if (db.updateKeepingStatement(*update, values) &&
        (db.changes() > 0 || db.updateKeepingStatement(*insert, values))) {
      continue;
    }
    allWritten = false;
    if (KLVPersistantStore::reportsFailures()) KLV_ERROR("Couldn't update lifetime event count");
  }
  return allWritten;
}

}  // namespace kelvo
