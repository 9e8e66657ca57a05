#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

namespace kelvo {

/// Every difference between the two sets of delivery rules. Code asks for the rule that it needs, never for the set.
///
/// `classic` keeps the losses that the system requires; `complete` delivers every event once, also in a process that
/// lives for a year. A process chooses its set before it starts the library, and keeps it.
struct KLVDeliveryRules {
  /// Single quotes in values are doubled in SQL texts. Otherwise such a statement fails without being run.
  bool doublesQuotes = false;
  /// A session that is restarted after a long absence is stored, cut and sent like the first one.
  bool storesRestartedSessions = false;
  /// The flush cuts the events after the last chunk of every earlier session. Otherwise two counts decide which
  /// sessions it cuts.
  bool cutsEveryEarlierSession = false;
  /// Aggregate counts that changed after the last accepted chunk are sent, in a chunk without events if need be.
  bool sendsAggregateTails = false;
  /// Unaccepted chunks are resent while the process runs. Otherwise at the next launch.
  bool resendsWhileRunning = false;
  /// A host that goes to the background before the start-up has ended gets its cut at the end of the start-up.
  /// Otherwise the next trigger cuts.
  bool cutsAfterStartInBackground = false;
  /// A chunk keeps the user, application and device records of its cut. Otherwise it gets those of each sending.
  bool keepsRecordsOfTheCut = false;
  /// `setUserIdentifier` before the end of the start-up is applied. Otherwise it is refused.
  bool keepsEarlyUserIdentifier = false;
  /// An empty array or object inside attributes is left out. Otherwise the call is dropped.
  bool leavesOutEmptyContainers = false;
  /// Lifetime counts of one transaction are added up, and each name is written once. Otherwise once for each event.
  bool addsUpLifetimeCounts = false;
  /// A process that finds its home in use writes its events to a rescue file. Otherwise it collects nothing.
  bool rescuesBesideAnotherProcess = false;
  /// A journal keeps the host's calls from their return until they are stored. Otherwise a kill loses the latest ones.
  bool keepsJournal = false;
  /// A device id that breaks the names made from it is replaced. Otherwise it is kept. Both with an error line.
  bool replacesForeignDeviceIds = false;
  /// The largest chunk: events, and bytes of their stored text. A chunk has at least one event, however long.
  std::uint64_t mostEventsInAChunk = std::numeric_limits<std::uint64_t>::max();
  std::size_t mostTextInAChunk = std::numeric_limits<std::size_t>::max();

  /// Accepted events leave the database in the transaction that marks their chunk. Otherwise with their session.
  bool deletesAcceptedEvents = false;
  /// The size in bytes of the library's data on the disk, unless the host chooses another; 0: no limit.
  std::uint64_t mostStoredBytes = 0;

  /// Returns the rules of this process: `classic` unless `choose` was called. Thread-safe.
  static const KLVDeliveryRules& current() noexcept;
  static void choose(const KLVDeliveryRules& rules) noexcept;
  /// Returns the rules named "classic" or "complete", nullptr for any other name.
  [[nodiscard]] static const KLVDeliveryRules* named(std::string_view name) noexcept;

  static const KLVDeliveryRules classic;
  static const KLVDeliveryRules complete;
};

}  // namespace kelvo
