#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "kelvo/Value.h"
#include "road/Road.h"

namespace kelvo::test {

/// What a ledger found.
struct Findings {
  long stored = 0;      ///< events that were in the database, in a rescue file or in the journal after a launch
  long delivered = 0;   ///< those of them that arrived
  long lost = 0;        ///< those of them that will never arrive; under `complete`, all that did not arrive
  long doubled = 0;     ///< events that arrived under two chunk ids, or are stored or counted twice
  long wrong = 0;       ///< chunks with two contents, with other events than their rows, or out of order
  long miscounted = 0;  ///< lifetime counts: difference from the number of stored events
  long ledger = 0;      ///< sum of the differences of the library's own ledger, after each launch
  // Losses that `classic` requires; under `complete`, they are `lost`.
  long waiting = 0;  ///< events that the flush leaves in the database, because its two counts of sessions are uneven
  long uncut = 0;    ///< aggregate counts after the last chunk of their session
  std::map<std::string, Texts> faults;  ///< description to the calls or rows that it is about

  [[nodiscard]] bool hasFault() const { return lost + doubled + wrong + miscounted + ledger > 0; }
  /// Returns a line for each fault.
  [[nodiscard]] std::string story() const;
  Findings& operator+=(const Findings& other);
};

/// Compares what the launches in one home stored with what arrived at the service.
///
/// Each call of a test has a number, which is the attribute "n" of its event. The ledger reads the database after each
/// launch, so a later purge hides nothing. The library's own events have no number; the ledger counts them by session,
/// type and name.
class Ledger {
 public:
  enum class Kind { app, aggregate, incident };

  /// Returns kelvo-log's line for a new call, made in launch `launch`, with an attribute of `padding` bytes.
  std::string newCall(Kind kind, int launch, std::size_t padding);
  [[nodiscard]] int latestCall() const { return static_cast<int>(calls_.size()) - 1; }
  /// The calls with these numbers returned, and the journal was open: a kill since must not have lost them.
  void noteReturned(const std::vector<int>& calls);
  /// Reads the database and the rescue files of `home` after launch `launch`. Reads copies: the next launch must find
  /// the files as this one left them.
  void readHome(const std::string& home, int launch);
  /// Compares the library's own ledger, as `readHome` has copied it, with what is stored and has arrived until now.
  void compareLibrarys(const std::string& home, const std::vector<Value>& chunks, int launch);
  /// Compares with the bodies of all accepted chunks. Every event must have arrived if `complete`.
  [[nodiscard]] Findings compare(const std::vector<Value>& chunks, bool complete) const;

 private:
  struct Call {
    Kind kind = Kind::app;
    std::string name;
    int launch = 0;
    bool isSafe = false;  // in the journal at least
  };
  struct Row {
    std::string key;  // type and name of the library's own event; empty for a call
    int call = 0;
    int seen = 0;        // the launch after which the row was there first
    bool isSent = true;  // chunks leave out some types
  };
  struct ChunkRow {
    std::string session;
    long number = 0, start = 0, end = 0;
    std::string status;
  };
  struct Session {
    std::map<long, Row> rows;  // by index; they stay here after the purge
    bool isKept = false;       // its table is in the database now
  };
  struct Arrivals;

  struct Fate {
    bool isStored = false;  // was in the database or in a rescue file
    bool isKept = false;    // is there now
    bool hasArrived = false;
    long times = 0;  // rows, counts or chunks, whichever is more
    std::string story;
  };

  void readSession(const std::string& file, const std::string& id, int launch);
  [[nodiscard]] static Arrivals read(const std::vector<Value>& chunks, Findings& found);
  [[nodiscard]] Fate fateOf(int number, const Arrivals& arrivals) const;
  void compareCalls(const Arrivals& arrivals, bool complete, Findings& found) const;
  void compareOwnEvents(const Arrivals& arrivals, bool complete, Findings& found) const;
  [[nodiscard]] bool sawAllRowsOf(const std::string& session, const Arrivals& arrivals) const;
  void compareChunks(const Arrivals& arrivals, Findings& found) const;
  void compareOrder(const Arrivals& arrivals, Findings& found) const;
  void compareCounts(const Arrivals& arrivals, Findings& found) const;
  [[nodiscard]] std::string whereabouts(const std::string& session, long index) const;

  std::vector<Call> calls_{Call{}};                                       // by number, from 1
  std::map<std::string, Session> sessions_;                               // by id
  std::map<int, std::vector<std::pair<std::string, long>>> rowsOfCalls_;  // call to session and index
  std::map<std::string, ChunkRow> chunkRows_;                             // by chunk id; the last state seen
  std::set<std::string> keptChunks_;                                      // ids of the chunks that have a row now
  std::map<int, std::map<std::string, long>> aggregates_;                 // call to session to count
  std::map<int, int> rescued_;             // call to the launch after which a rescue file had it
  std::set<int> keptInFiles_;              // calls that are in a rescue file now
  std::map<std::string, long> lifetimes_;  // name to count
  Texts damage_;
  Findings librarys_;   // of the library's ledger
  long notStored_ = 0;  // by the library's ledger after the last launch; a loss under `complete`
};

}  // namespace kelvo::test
