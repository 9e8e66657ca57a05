#include "Fleet.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdio>
#include <fstream>
#include <functional>

namespace kelvo::bench {
namespace {

using std::chrono::duration;
using std::chrono::milliseconds;
using Real = std::chrono::steady_clock;

constexpr milliseconds kTick(5);
constexpr int kAccepted = 200;

double since(Real::time_point begin) {
  return duration<double>(Real::now() - begin).count();
}

float percentile(std::vector<float>& values, double part) {
  if (values.empty()) return 0;
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

void print(const char* name, Figures& figures, double seconds, std::size_t events) {
  const double chunks = static_cast<double>(figures.accepted) / seconds;
  std::printf(
      "%-10s %7.0f chunks/s %8.0f events/s   p50 %6.1f ms  p99 %7.1f ms   refused %llu  rejected %llu  unanswered %llu",
      name, chunks, chunks * static_cast<double>(events), percentile(figures.answers, 0.5),
      percentile(figures.answers, 0.99), static_cast<unsigned long long>(figures.refused),
      static_cast<unsigned long long>(figures.rejected), static_cast<unsigned long long>(figures.unanswered));
}

}  // namespace

Fleet::Fleet(const Plan& plan, boost::asio::io_context& loop)
    : plan_(plan), loop_(loop), bodies_(plan.events, plan.timer), start_(Real::now()), players_(plan.devices) {
  usage_.watch("fleet", {getpid()});
  for (const auto& [name, processes] : plan.processes) usage_.watch(name, processes);
  for (std::uint32_t index = 0; index < plan.devices; ++index) {
    Player& player = players_[index];
    player.index = index;
    player.nextCut = at(static_cast<double>(plan.timer) * index / plan.devices);
    const std::string address = "10." + std::to_string(index >> 16U & 255U) + "." + std::to_string(index >> 8U & 255U) +
                                "." + std::to_string(index & 255U);
    player.connection = Connection::make(loop, plan.services[index % plan.services.size()], !plan.reconnects,
                                         plan.isForwarded ? address : "");
    this->plan(player);
  }
}

Fleet::~Fleet() = default;

Device::Instant Fleet::at(double seconds) const {
  return start_ + std::chrono::duration_cast<Clock::Duration>(duration<double>(seconds));
}

Device::Instant Fleet::now() const {
  return at(since(start_) * plan_.pace);
}

bool Fleet::play() {
  const double outage = plan_.before, after = outage + plan_.outage, settle = after + plan_.after;
  reported_ = phaseStart_ = Real::now();
  usedAtReport_ = usedAtPhase_ = usage_.seconds();
  const char* phase = "steady";
  boost::asio::steady_timer timer(loop_);
  std::function<void()> step = [&] {
    const double seconds = since(start_) * plan_.pace;
    const auto enter = [&](const char* next) {
      summarise(phase);
      phase = next;
    };
    if (plan_.outage > 0 && !isOut_ && seconds >= outage && seconds < after) enter("outage"), setOutage(true);
    if (isOut_ && seconds >= after) enter("return"), setOutage(false);
    if (cuts_ && seconds >= settle) enter("settle"), cuts_ = false;
    if (since(reported_) >= plan_.report) report(phase);
    if (!cuts_ && (waiting() == 0 || seconds >= settle + plan_.settle)) return loop_.stop();
    tick();
    timer.expires_after(kTick);
    timer.async_wait([&](auto) { step(); });
  };
  step();
  loop_.run();
  summarise(phase);
  writeLedger();
  const auto left = waiting();
  if (left > 0) std::printf("%llu chunks are not accepted\n", static_cast<unsigned long long>(left));
  return left == 0;
}

void Fleet::tick() {
  for (const auto time = now(); !later_.empty() && later_.front().time <= time;) {
    std::pop_heap(later_.begin(), later_.end(), std::greater<>());
    Player& player = players_[later_.back().index];
    const bool isLatest = player.wakeUp == later_.back().time;
    later_.pop_back();
    if (isLatest) wake(player);
  }
}

void Fleet::wake(Player& player) {
  player.wakeUp.reset();
  if (cuts_ && player.nextCut <= now()) {
    player.device.cut();
    player.nextCut += std::chrono::seconds(plan_.timer);
  }
  post(player);
}

void Fleet::post(Player& player) {
  while (const auto number = player.device.next(now(), random_)) {
    if (isOut_) {
      player.device.answered(false, std::nullopt, now(), random_);
      continue;
    }
    const std::string id = Bodies::deviceId(plan_.group, player.index);
    player.connection->post(
        "/v2/api/" + plan_.application + "/chunks", bodies_.body(id, *number),
        [this, &player, posted = Real::now()](const Answer& answer) { finish(player, answer, posted); });
    break;
  }
  plan(player);
}

void Fleet::finish(Player& player, const Answer& answer, Real::time_point posted) {
  const bool isAccepted = answer.status == kAccepted;
  for (Figures* figures : {&latest_, &phase_}) {
    if (isAccepted) {
      ++figures->accepted;
      figures->answers.push_back(static_cast<float>(since(posted) * 1000));
    } else if (answer.status == 503 || answer.status == 429) {
      ++figures->refused;
    } else if (answer.status != 0) {
      ++figures->rejected;
    } else if (!isOut_) {
      ++figures->unanswered;
    }
  }
  player.device.answered(isAccepted, answer.retryAfter, now(), random_);
  post(player);
}

/// Plans the next cut or round, whichever is first.
void Fleet::plan(Player& player) {
  std::optional<Device::Instant> next;
  if (cuts_) next = player.nextCut;
  const auto round = player.device.isPosting() ? std::nullopt : player.device.wakeUp();
  if (round && (!next || *round < *next)) next = round;
  if (!next || (player.wakeUp && *player.wakeUp <= *next)) return;
  player.wakeUp = next;
  later_.push_back({*next, player.index});
  std::push_heap(later_.begin(), later_.end(), std::greater<>());
}

void Fleet::setOutage(bool isOut) {
  isOut_ = isOut;
  if (!isOut) return;
  for (Player& player : players_) player.connection->close();
}

std::uint64_t Fleet::waiting() const {
  std::uint64_t count = 0;
  for (const Player& player : players_) count += player.device.lastNumber() - player.device.accepted();
  return count;
}

void Fleet::report(const char* phase) {
  print(phase, latest_, since(reported_), plan_.events);
  const auto used = usage_.seconds();
  for (const auto& [name, seconds] : used)
    std::printf("  %s %.2f", name.c_str(), (seconds - usedAtReport_[name]) / since(reported_));
  std::printf("  waiting %llu\n", static_cast<unsigned long long>(waiting()));
  std::fflush(stdout);
  usedAtReport_ = used;
  latest_ = {};
  reported_ = Real::now();
}

void Fleet::summarise(const char* phase) {
  const double seconds = since(phaseStart_);
  std::printf("= ");
  print(phase, phase_, seconds, plan_.events);
  const auto used = usage_.seconds();
  for (const auto& [name, cpu] : used) std::printf("  %s %.2f", name.c_str(), (cpu - usedAtPhase_[name]) / seconds);
  std::printf("  in %.1f s\n", seconds);
  std::fflush(stdout);
  usedAtPhase_ = used;
  phase_ = {};
  phaseStart_ = Real::now();
}

void Fleet::writeLedger() const {
  if (plan_.ledger.empty()) return;
  std::ofstream file(plan_.ledger);
  for (const Player& player : players_) {
    file << bodies_.session(Bodies::deviceId(plan_.group, player.index)) << ',' << player.device.accepted() << '\n';
  }
}

}  // namespace kelvo::bench
