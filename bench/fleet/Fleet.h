#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Bodies.h"
#include "Connection.h"
#include "Device.h"
#include "Usage.h"

namespace kelvo::bench {

struct Plan {
  std::vector<Service> services;  ///< each device uses one of them
  std::string application = "fleet";
  std::uint32_t group = 1;  ///< two fleets with different groups have different devices
  std::uint32_t devices = 1000;
  std::size_t events = 10;  ///< in a chunk
  unsigned timer = 30;      ///< seconds between two cuts
  // Phases, in the devices' seconds.
  unsigned before = 60;
  unsigned outage = 0;
  unsigned after = 0;
  unsigned settle = 120;  ///< at most, for the chunks that wait at the end
  double pace = 1;        ///< seconds of a device in one second
  bool reconnects = false;
  bool isForwarded = false;                             ///< gives each device an address of its own in X-Forwarded-For
  unsigned report = 10;                                 ///< real seconds between two lines
  std::map<std::string, std::vector<pid_t>> processes;  ///< whose CPU time is printed
  std::string ledger;                                   ///< a file that receives "session,chunks" for each device
};

/// What happened to the chunks of a stretch of time.
struct Figures {
  std::uint64_t accepted = 0;
  std::uint64_t refused = 0;     ///< answered 503 or 429
  std::uint64_t rejected = 0;    ///< any other answer
  std::uint64_t unanswered = 0;  ///< by a service that is not cut off
  std::vector<float> answers;    ///< milliseconds of the accepted ones
};

/// Plays a plan. All devices live on the loop of one thread; their cuts are spread over the timer. During the outage,
/// no device reaches the service, and all connections are closed.
class Fleet {
 public:
  Fleet(const Plan& plan, boost::asio::io_context& loop);
  ~Fleet();
  /// Returns true if all chunks are accepted at the end.
  bool play();

 private:
  struct Player {
    Device device;
    std::shared_ptr<Connection> connection;
    std::uint32_t index = 0;
    Device::Instant nextCut;
    std::optional<Device::Instant> wakeUp;  // the earliest one that is planned
  };
  struct Later {
    Device::Instant time;
    std::uint32_t index;
    bool operator>(const Later& other) const { return time > other.time; }
  };

  [[nodiscard]] Device::Instant now() const;
  [[nodiscard]] Device::Instant at(double seconds) const;
  void tick();
  void wake(Player& player);
  void post(Player& player);
  void finish(Player& player, const Answer& answer, std::chrono::steady_clock::time_point posted);
  void plan(Player& player);
  void setOutage(bool isOut);
  void report(const char* phase);
  void summarise(const char* phase);
  [[nodiscard]] std::uint64_t waiting() const;
  void writeLedger() const;

  const Plan& plan_;
  boost::asio::io_context& loop_;
  Bodies bodies_;
  Usage usage_;
  std::chrono::steady_clock::time_point start_;
  Device::Random random_{4711};
  std::vector<Player> players_;
  std::vector<Later> later_;  // a heap
  bool isOut_ = false;
  bool cuts_ = true;
  Figures latest_;  // since the latest line
  Figures phase_;
  std::chrono::steady_clock::time_point reported_, phaseStart_;
  std::map<std::string, double> usedAtReport_, usedAtPhase_;
};

}  // namespace kelvo::bench
