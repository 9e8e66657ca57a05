#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include "kelvo-collector/store/Store.h"
#include "platform/JSON.h"
#include "road/Road.h"

namespace kelvo::test {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kDay = 86400;
constexpr std::uint64_t kLimit = 400'000;
constexpr int kEventsOfADay = 120;
/// Of a chunk with such a day: its rows, its records, and what its session has in files.
constexpr std::uint64_t kOneChunk = 70'000;

/// Tests of the limits of stored data, with a host of the public headers.
class Eviction : public Road {
 protected:
  Eviction() : port_(service.start()) {
    if (kSanitizer == "address") return;
    writeFileForTest(clock(), std::string(sizeof shift_, '\0'));
  }
  static std::string clock() { return home() + "/clock"; }
  void pass(std::int64_t seconds) {
    shift_ += seconds;
    std::fstream(clock(), std::ios::in | std::ios::out | std::ios::binary)
        .write(reinterpret_cast<const char*>(&shift_), sizeof shift_);
  }
  void comeBack() { ASSERT_EQ(service.start(port_), port_); }

  /// Starts the host. The next launch needs the home, so `end` or `kill` must come first.
  void start(const std::string& options) {
    auto environment = movableClock(KELVO_TEST_CLOCK_LIBRARY, clock());
    environment["KELVO_LOG"] = "warn";
    host_.reset(new Program(run({KELVO_MANNERS_HOST}, environment)));
    flushes_ = 0;
    for (const auto& line : {"options id=shop " + options, std::string("foreground"), std::string("ready")}) {
      host_->writeLine(line);
    }
    EXPECT_TRUE(host_->waitForOutput("status ")) << host_->errors();
  }
  /// Logs the events of a day, and waits until they are cut.
  void live(int day) {
    log(day);
    deliver();
  }
  void log(int day) {
    for (int i = 0; i < kEventsOfADay; ++i) {
      const std::string number = std::to_string(day) + "." + std::to_string(i);
      host_->writeLine("long " + number);
      logged_.insert(number);
    }
  }
  /// Cuts, and waits a little for the service.
  void deliver() {
    host_->writeLine("flush 200");
    ++flushes_;
    EXPECT_TRUE(eventually([&] { return count(host_->output(), "flushed ") == flushes_; })) << host_->errors();
  }
  void end() {
    host_->closeInput();
    EXPECT_EQ(host_->wait(), 0) << host_->errors();
    evictionsReported_ += count(host_->errors(), "chunks are deleted before the service has accepted them");
  }
  void kill() {
    host_->kill(SIGKILL);
    host_->wait();
  }
  /// The service returns, and a last launch delivers everything.
  void deliverAll(const std::string& options) {
    comeBack();
    for (int launches = 0; launches < 2; ++launches) {  // the second one reports what the first one's start deletes
      start(options);
      deliver();
      EXPECT_TRUE(eventually([&] { return waiting() == 0; })) << host_->errors();
      end();
    }
    expectAnExactLedger("at the end");
  }

  /// Without the journal, which has a limit of its own.
  [[nodiscard]] std::uint64_t bytesOfTheHome() const {
    std::uint64_t bytes = 0;
    for (const auto* part : {"/Library", "/Documents"}) {
      for (const auto& path : files(part)) {
        if (fs::path(path).filename() == "com.kelvo.journal") continue;
        std::error_code gone;
        const auto size = fs::file_size(path, gone);
        if (!gone) bytes += size;
      }
    }
    return bytes;
  }
  /// Returns the number that the query selects, 0 if it selects none or its table has just been purged. Another
  /// connection may lock the file for a moment.
  [[nodiscard]] long number(const std::string& query) const {
    Texts rows;
    EXPECT_TRUE(eventually([&] {
      rows = stored(query);
      return rows.empty() || rows.front().starts_with("no such table: events") ||
             rows.front().find_first_not_of("0123456789") == std::string::npos;
    })) << query
        << ": " << rows.front();
    return rows.empty() || rows.front().empty() ? 0 : std::atol(rows.front().c_str());
  }
  [[nodiscard]] long ledger(const std::string& entry) const {
    return number("select total from kelvo_ledger where entry = '" + entry + "'");
  }
  [[nodiscard]] long evicted() const { return ledger("evictedForSpace") + ledger("evictedForAge"); }
  /// Returns how many stored events the service has neither accepted nor lost by an eviction.
  [[nodiscard]] long waiting() const {
    const std::string types =
        "('System', 'Navigation', 'UserInteraction', 'App', 'KLVCustomError', 'ApplicationCrash')";
    long events = 0;
    for (const auto& table : stored("select name from sqlite_master where name like 'events\\_%' escape '\\'")) {
      const std::string sid = table.substr(table.find('_') + 1);
      events += number("select count(*) from '" + table + "' where type in " + types +
                       " and not exists (select 1 from chunkmeta where sid = '" + sid +
                       "' and status = 1 and identifier between start and end)");
    }
    return events;
  }
  void expectAnExactLedger(const std::string& when) const {
    const auto sum = [&] { return evicted() + waiting() + ledger("accepted") + ledger("notForUpload"); };
    // The library may move events between two reads.
    EXPECT_TRUE(eventually([&] { return ledger("stored") == sum(); }))
        << when << ": " << ledger("stored") << " stored, " << sum() << " known\n"
        << host_->errors();
  }

  /// Notes how far each session is cut.
  void noteChunks() {
    for (const auto& row : stored("select sid, max(cid) from chunkmeta group by sid")) {
      const auto bar = row.find('|');
      long& last = lastChunks_[row.substr(0, bar)];
      last = std::max(last, std::stol(row.substr(bar + 1)));
    }
  }
  void forget() {
    logged_.clear();
    evictionsReported_ = 0;
    lastChunks_.clear();
  }
  [[nodiscard]] std::string eventsTable() const {
    return stored("select max(name) from sqlite_master where name like 'events\\_%' escape '\\'").front();
  }
  /// Expects that the chunks that arrived say exactly how many events and chunks are missing.
  void expectThatArrivalsExplainWhatIsMissing(bool wasKilled = false) {
    std::set<std::string> events;
    std::map<std::string, Value> said;  // by chunk id
    long missingEvents = 0, missingChunks = 0, chunks = 0;
    for (const Value& body : service.chunks()) {
      const Value attributes = at(body, {"chunk_details", "chunk_attributes"});
      const auto [before, isNew] = said.emplace(description(at(body, {"chunk_meta", "id"})), attributes);
      EXPECT_EQ(before->second, attributes) << "a resend says the same";
      if (!isNew) continue;
      const Value arrived = at(body, {"chunk_details", "app_events"});
      for (const Value& event : *arrived.get<Array>())
        events.insert(description(at(event, {"additional_info", "number"})));
      long& last = lastChunks_[description(at(body, {"session_info", "id"}))];
      last = std::max<long>(last, at(body, {"chunk_meta", "number"}).asInt64());
      missingEvents += at(attributes, {"evicted", "events"}).asInt64();
      missingChunks += at(attributes, {"evicted", "chunks"}).asInt64();
    }
    for (const auto& [session, last] : lastChunks_) chunks += last;
    EXPECT_GT(missingChunks, 0);
    EXPECT_EQ(missingEvents, evicted());
    EXPECT_EQ(ledger("accepted") + missingEvents, ledger("stored") - ledger("notForUpload"));
    if (wasKilled) return;  // chunks came and went unseen, and calls were never stored
    EXPECT_EQ(missingChunks, chunks - static_cast<long>(said.size())) << "gaps in the numbers of all sessions";
    const auto lost = std::count_if(logged_.begin(), logged_.end(), [&](auto& name) { return !events.contains(name); });
    EXPECT_GT(lost, 0);
    EXPECT_LE(lost, missingEvents) << "the library's own events are among the evicted ones";
  }

  std::unique_ptr<Program> host_;
  std::set<std::string> logged_;
  std::size_t evictionsReported_ = 0;  // lines

 private:
  int port_;
  std::int64_t shift_ = 0;
  std::size_t flushes_ = 0;
  std::map<std::string, long> lastChunks_;  // by session
};

TEST_F(Eviction, AServiceThatIsAwayForAMonthCostsTheOldestChunksAndLearnsHowMany) {
  if (kSanitizer == "address") GTEST_SKIP() << "this sanitizer bypasses the preloaded clock";
  for (const char* delivery : {"complete", "classic"}) {
    SCOPED_TRACE(delivery);
    moveToFreshHome(delivery);
    ASSERT_TRUE(service.store().reset());
    forget();
    const std::string options = std::string("delivery=") + delivery + " bytes=" + std::to_string(kLimit);
    service.stop();
    for (int day = 1; day <= 30; ++day) {
      // Under `classic`, a session after an absence is not stored: each day is a launch.
      if (day % 5 == 1 || options.starts_with("delivery=classic")) {
        if (day > 1) end();
        start(options);
      } else {
        host_->writeLine("background");
        deliver();  // then the last chunk of the session can be noted before a later cut deletes it
        noteChunks();
        pass(kDay);
        host_->writeLine("foreground");
      }
      live(day);
      noteChunks();
      // The last chunks may still be in flight, and are deleted when they have failed.
      EXPECT_TRUE(eventually([&] { return bytesOfTheHome() <= kLimit + kOneChunk; })) << day << host_->errors();
      expectAnExactLedger("day " + std::to_string(day));
    }
    end();
    EXPECT_GT(evictionsReported_, 0U);
    deliverAll(options);
    expectThatArrivalsExplainWhatIsMissing();
  }
}

TEST_F(Eviction, AKillAtAnyMomentKeepsTheLedgerExact) {
  service.stop();
  const std::string options = "delivery=complete bytes=" + std::to_string(kLimit);
  for (int day = 1; day <= 16; ++day) {
    start(options);
    log(day);
    host_->writeLine("flush 200");
    usleep(static_cast<useconds_t>(day * 7919 % 150) * 1000);
    kill();
    noteChunks();
    expectAnExactLedger("kill " + std::to_string(day));
  }
  deliverAll(options);
  expectThatArrivalsExplainWhatIsMissing(true);
}

TEST_F(Eviction, DataBeyondItsAgeIsDeletedAtTheStartAndOnceAnHour) {
  if (kSanitizer == "address") GTEST_SKIP() << "this sanitizer bypasses the preloaded clock";
  service.stop();
  const std::string options = "delivery=complete days=3";
  start(options);
  live(1);
  noteChunks();
  const long ofTheFirstDay = waiting();
  end();
  pass(2 * kDay);
  start(options);
  live(2);
  noteChunks();
  EXPECT_EQ(evicted(), 0) << "two days are not beyond three";
  pass(2 * kDay);
  deliver();
  EXPECT_EQ(ledger("evictedForAge"), ofTheFirstDay) << host_->errors();
  EXPECT_EQ(count(host_->errors(), " events of 1 chunks are deleted before"), 1U) << host_->errors();
  end();
  pass(2 * kDay);
  comeBack();
  start(options);
  live(5);
  EXPECT_TRUE(eventually([&] { return waiting() == 0; }));
  end();
  EXPECT_EQ(count(service.chunks().empty() ? "" : describingJSONText(service.chunks().front()), R"("number":"2.)"), 0U);
  expectThatArrivalsExplainWhatIsMissing();
}

TEST_F(Eviction, AcceptedDataLeavesTheHomeAndTheFileShrinks) {
  service.stop();
  start("delivery=complete");
  for (int day = 1; day <= 20; ++day) log(day);
  deliver();
  EXPECT_GT(bytesOfTheHome(), 1'000'000U);
  comeBack();
  host_->writeLine("background");
  deliver();
  EXPECT_TRUE(eventually([&] { return waiting() == 0; })) << host_->errors();
  const auto events = [&] { return stored("select count(*) from '" + eventsTable() + "'").front(); };
  EXPECT_EQ(events(), "0");
  for (int cuts = 0; cuts < 2; ++cuts) {  // give space back
    host_->writeLine("background");
    host_->writeLine("foreground");
    deliver();
  }
  EXPECT_TRUE(eventually([&] { return bytesOfTheHome() < 500'000; })) << bytesOfTheHome();
  live(21);
  const std::string last = std::to_string(20 * kEventsOfADay);
  EXPECT_EQ(stored("select max(start) > " + last + " from chunkmeta").front(), "1") << "the numbers go on";
  end();
  expectAnExactLedger("at the end");
}

TEST_F(Eviction, AStormOfCallsIsBoundedAndCounted) {
  start("delivery=complete calls=200");
  host_->writeLine("burst 2000 0");  // on eight threads
  host_->writeLine("join");
  host_->writeLine("pause 1500000");
  host_->writeLine("Afterwards");
  end();
  const std::string lines = host_->errors();
  long refused = 0;
  for (auto place = lines.find(" calls are refused"); place != std::string::npos;
       place = lines.find(" calls are refused", place + 1)) {
    refused += std::stol(lines.substr(lines.rfind(' ', place - 1) + 1));
  }
  EXPECT_GT(refused, 0) << lines;
  EXPECT_EQ(refused, ledger("refusedStorm"));
  EXPECT_LE(count(lines, " calls are refused"), 5U) << "one line a second";
  const auto events = storedEvents();
  EXPECT_EQ(std::count(events.begin(), events.end(), "burst") + ledger("accepted") + refused, 16'000) << lines;
}

}  // namespace
}  // namespace kelvo::test
