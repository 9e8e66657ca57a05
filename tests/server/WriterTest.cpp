#include <chrono>
#include <functional>
#include <future>

#include "ServerTest.h"
#include "kelvo-server/db/Pool.h"
#include "kelvo-server/loop/Loop.h"
#include "kelvo-server/store/Statements.h"
#include "kelvo-server/store/Writer.h"

namespace kelvo::test {
namespace {

using server::Verdict;

/// A writer with one connection.
class Groups : public ServerTest {
 protected:
  Groups() {
    loop_.start();
    loop_.post([this] { pool_.open(); });
  }
  ~Groups() override { loop_.stop(); }

  struct Step {
    int milliseconds;  ///< after the start
    std::vector<ChunkBody> chunks;
  };

  /// Adds the chunks of each step at its time. Returns their verdicts.
  std::vector<Verdict> write(const std::vector<Step>& steps) {
    groups_.clear();
    std::vector<std::future<Verdict>> futures;
    std::vector<std::pair<std::chrono::milliseconds, std::function<void()>>> works;
    for (const Step& step : steps) {
      const auto entries = std::make_shared<std::vector<server::Entry>>();
      for (const ChunkBody& body : step.chunks) {
        const auto verdict = std::make_shared<std::promise<Verdict>>();
        futures.push_back(verdict->get_future());
        entries->push_back({server::decodeChunk(app, body.text()).chunk, std::nullopt,
                            [verdict](Verdict of, const auto&, const auto&) { verdict->set_value(of); }});
      }
      works.emplace_back(step.milliseconds, [this, entries] {
        for (server::Entry& entry : *entries) writer_.add(std::move(entry));
      });
    }
    // All timers start at once, so that a busy machine keeps their order.
    loop_.post([this, works] {
      for (const auto& [delay, work] : works) loop_.after(delay, work);
    });
    std::vector<Verdict> verdicts;
    for (auto& future : futures) verdicts.push_back(future.get());
    return verdicts;
  }

  /// Numbers of the entries that shared a transaction, in their order. Read it after `write`.
  std::vector<std::size_t> groups_;

 private:
  server::Loop loop_;
  server::db::Pool pool_{loop_, database(), server::statements(), 1, [](const std::string&) {}};
  server::Writer writer_{loop_, pool_, [this](auto, const auto& group) { groups_.push_back(group.size()); }};
};

TEST_F(Groups, ChunksShareATransactionUpToItsTimeRowsAndBytes) {
  int device = 0;
  const auto some = [&](int count, int rows, std::size_t kilobytes = 0) {
    std::vector<ChunkBody> made;
    for (int i = 0; i < count; ++i) {
      const std::string attributes = R"({"a":")" + std::string(kilobytes << 10U, 'x') + "\"}";
      made.push_back({.device = "D" + std::to_string(++device), .events = rows - 1, .attributes = attributes});
    }
    return made;
  };
  auto mixed = some(1, 2);
  for (const int rows : {900, 2}) mixed.push_back(some(1, rows).front());
  const struct {
    const char* what;
    std::vector<Step> steps;
    std::vector<std::size_t> groups;
  } cases[] = {
      {"within 5 ms", {{0, some(1, 2)}, {1, some(1, 2)}}, {2}},
      {"later", {{0, some(1, 2)}, {300, some(1, 2)}}, {1, 1}},
      {"rows", {{0, some(12, 100)}}, {5, 5, 2}},
      {"bytes", {{0, some(4, 2, 300)}}, {3, 1}},
      {"a larger one", {{0, mixed}}, {1, 1, 1}},
  };
  EXPECT_EQ(write({{0, some(1, 2)}}).front(), Verdict::Stored) << "the connection is open now";
  for (const auto& each : cases) {
    for (const Verdict verdict : write(each.steps)) EXPECT_EQ(verdict, Verdict::Stored) << each.what;
    EXPECT_EQ(groups_, each.groups) << each.what;
  }
}

TEST_F(Groups, AChunkThatTheDatabaseRefusesFailsAlone) {
  sql("ALTER TABLE events ADD CONSTRAINT no_bad_events CHECK (name <> 'Bad')");
  const auto verdicts = write(
      {{0, {{.device = "D1"}, {.device = "D2", .event = "Bad"}, {.device = "D1"}, {.device = "D3", .ratings = 1}}}});
  sql("ALTER TABLE events DROP CONSTRAINT no_bad_events");
  EXPECT_EQ(verdicts, (std::vector{Verdict::Stored, Verdict::Refused, Verdict::Duplicate, Verdict::Stored}));
  EXPECT_EQ(count("events"), 4);
  EXPECT_EQ(count("devices"), 2);
}

}  // namespace
}  // namespace kelvo::test
