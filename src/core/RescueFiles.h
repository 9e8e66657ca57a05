#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/CollectionGate.h"
#include "journal/KLVSequenceSet.h"

namespace kelvo {

/// The files of the Library directory that keep what a process logged before its storage was ready.
///
/// `com.kelvo.db.eventsbuffer` collects the events of the processes that hold the home. A launch renames it before it
/// stores it, so that a name always means the same events. A process that does not hold the home writes files with
/// such unique names itself. An event of a call in the journal names its entry, so that a kill before the entry is
/// finished lets nobody store the event twice. `com.kelvo.db.user` gets waiting user attributes.
/// Thread: the caller lets one thread at a time call `writeEvents`, `writeUserAttributes` and `retire`. All block on
/// the disk.
namespace RescueFiles {

using Events = std::vector<std::shared_ptr<KLVEvent>>;

/// Appends `events` to the rescue file, or, without the home, writes them to a new file. Returns how many of them are
/// in a file, counted from the first. An event whose attributes cannot be cleaned costs one ERROR line and counts.
[[nodiscard]] std::size_t writeEvents(const Events& events, bool holdsHome);
/// Writes the bare custom attributes of the user: the stored ones, then those of `calls` in their order. On failure,
/// returns false and leaves the file unchanged.
[[nodiscard]] bool writeUserAttributes(const std::vector<BufferedAttributes>& calls);

/// Returns true if the rescue file exists: events wait in it under its changing name.
[[nodiscard]] bool isPending();
/// Renames the rescue file to a unique name, if it exists. Returns false on failure.
bool retire();
/// Returns the names of the files with a unique name, the oldest first.
[[nodiscard]] std::vector<std::string> names();
/// Returns the events of the file `name`. Logs one ERROR line and returns nullopt if it cannot be read; a file that is
/// no JSON array is renamed to `com.kelvo.db.eventsbuffer.corrupt`.
[[nodiscard]] std::optional<Events> read(const std::string& name);
/// Returns the entries of the journal with this epoch whose events are in any of the files.
[[nodiscard]] KLVSequenceSet entries(std::uint64_t epoch);
/// Deletes the file `name`. Returns false, after an ERROR line, on failure.
[[nodiscard]] bool remove(const std::string& name);

}  // namespace RescueFiles
}  // namespace kelvo
