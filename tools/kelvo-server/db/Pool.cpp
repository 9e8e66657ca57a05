#include "kelvo-server/db/Pool.h"

#include <algorithm>
#include <utility>

#include "kelvo-server/loop/Loop.h"
#include "kelvo-server/loop/Random.h"

namespace kelvo::server::db {
namespace {

constexpr char kNewline = '\n';
constexpr std::chrono::milliseconds kFirstDelay{50};
constexpr std::chrono::milliseconds kLongestDelay{5000};

}  // namespace

struct Pool::Slot {
  std::unique_ptr<Connection> connection;
  bool isTaken = false;
  bool isConnecting = false;
  std::chrono::milliseconds delay{0};  // before the next attempt
};

Pool::Pool(Loop& loop, std::string database, std::span<const char* const> statements, std::size_t connections,
           std::function<void(const std::string&)> report)
    : loop_(loop), database_(std::move(database)), statements_(statements), report_(std::move(report)) {
  for (std::size_t i = 0; i < connections; ++i) slots_.push_back(std::make_unique<Slot>());
}

Pool::~Pool() = default;

void Pool::open() {
  for (auto& slot : slots_) openSlot(*slot);
}

void Pool::openSlot(Slot& slot) {
  slot.isConnecting = true;
  slot.connection = std::make_unique<Connection>(loop_, database_, statements_);
  const auto opened = [this, &slot](std::optional<Failure> failure) {
    slot.isConnecting = false;
    if (failure) {
      if (!std::exchange(isAway_, !isReady()) && isAway_)
        report_("the database is away: " + failure->message.substr(0, failure->message.find(kNewline)));
      refuseAllIfAway();
      return openLater(slot);
    }
    slot.delay = std::chrono::milliseconds(0);
    if (std::exchange(isAway_, false)) report_("the database is back");
    serve();
  };
  slot.connection->open(opened, [this, &slot] {
    // Whoever has the connection learns about the loss by the failure of its batch, and gives it back.
    if (!slot.isTaken) openLater(slot);
    refuseAllIfAway();
  });
}

void Pool::openLater(Slot& slot) {
  slot.isConnecting = true;
  // Half of the delay is drawn at random, so that the instances do not return at once.
  const std::chrono::milliseconds delay = slot.delay * randomBetween(50, 100) / 100;
  slot.delay = std::clamp(slot.delay * 2, kFirstDelay, kLongestDelay);
  loop_.after(delay, [this, &slot, alive = std::weak_ptr(alive_)] {
    if (!alive.expired()) openSlot(slot);
  });
}

void Pool::take(std::function<void(Connection*)> use) {
  waiting_.push_back(std::move(use));
  serve();
  refuseAllIfAway();
}

void Pool::give(Connection* connection) {
  const auto slot =
      std::find_if(slots_.begin(), slots_.end(), [&](auto& s) { return s->connection.get() == connection; });
  (*slot)->isTaken = false;
  if (!connection->isReady()) {
    // Not deleted here: the caller may be a callback of this connection.
    loop_.post([dead = std::shared_ptr<Connection>(std::move((*slot)->connection))] {});
    openLater(**slot);
    refuseAllIfAway();
    return;
  }
  serve();
}

bool Pool::isReady() const noexcept {
  return std::any_of(slots_.begin(), slots_.end(), [](auto& s) { return s->connection && s->connection->isReady(); });
}

void Pool::serve() {
  for (auto& slot : slots_) {
    if (waiting_.empty()) return;
    if (slot->isTaken || slot->isConnecting || !slot->connection || !slot->connection->isReady()) continue;
    slot->isTaken = true;
    const auto use = std::move(waiting_.front());
    waiting_.pop_front();
    use(slot->connection.get());
  }
}

void Pool::refuseAllIfAway() {
  const bool mayCome = std::any_of(slots_.begin(), slots_.end(), [](auto& s) {
    return s->isTaken || (s->connection && (s->connection->isReady() || s->delay.count() == 0));
  });
  if (mayCome) return;
  const auto refused = std::exchange(waiting_, {});
  for (const auto& use : refused) use(nullptr);
}

}  // namespace kelvo::server::db
