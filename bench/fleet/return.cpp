#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <queue>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Device.h"

// Computes what happens when a service returns after an outage, and draws it. All devices have cut chunks meanwhile and
// resend as the library does. The service answers at most `capacity` chunks a second; beyond half a second of waiting
// chunks, it refuses with 503 and a random `Retry-After`.

namespace kelvo::bench {
namespace {

constexpr double kTimer = 30;         // seconds between two cuts
constexpr double kRoundTrip = 0.1;    // seconds of the network, for an accepted or refused chunk
constexpr double kLongestWait = 0.5;  // seconds in the service
constexpr double kHorizon = 4 * 3600;
constexpr double kBin = 20;  // seconds of one point of the plot

struct Setting {
  double capacity;            ///< as a multiple of the normal load
  int retryLeast, retryMost;  ///< Retry-After is drawn from this range; 0 for none
  const char* color;
};

/// One run, in multiples of the normal load; one value for each bin since the return.
struct Course {
  std::vector<double> posted, accepted, waiting;
  double recovered = 0;  ///< seconds until no old chunk waits
  double posts = 0, refused = 0;
};

class Simulation {
 public:
  Simulation(std::uint32_t devices, double outage, const Setting& setting)
      : setting_(setting), outage_(outage), normal_(devices / kTimer), players_(devices) {
    for (std::uint32_t index = 0; index < devices; ++index) {
      players_[index].nextCut = kTimer * index / devices;
      plan(index);
    }
  }

  Course run() {
    for (double bin = 0; !steps_.empty() && !isOver_;) {
      const Step step = steps_.top();
      if (step.time >= outage_ + bin) {
        closeBin(bin += kBin);
        continue;
      }
      steps_.pop();
      now_ = step.time;
      if (step.isAnswer) {
        answer(step);
      } else if (players_[step.index].wakeUp == step.time) {
        wake(step.index);
      }
    }
    return course_;
  }

 private:
  struct Player {
    Device device;
    double nextCut = 0;
    double wakeUp = -1;
  };
  struct Step {
    double time;
    std::uint32_t index;
    bool isAnswer, isAccepted;
    bool operator>(const Step& other) const { return time > other.time; }
  };

  static Device::Instant instant(double seconds) {
    return Device::Instant(std::chrono::duration_cast<Clock::Duration>(std::chrono::duration<double>(seconds)));
  }

  void wake(std::uint32_t index) {
    Player& player = players_[index];
    player.wakeUp = -1;
    if (player.nextCut <= now_) {
      player.device.cut();
      ++cut_;
      player.nextCut += kTimer;
    }
    post(index);
  }

  void post(std::uint32_t index) {
    Player& player = players_[index];
    while (player.device.next(instant(now_), random_)) {
      if (now_ >= outage_) {
        offer(index);
        break;
      }
      player.device.answered(false, std::nullopt, instant(now_), random_);
    }
    plan(index);
  }

  /// The service takes the chunk, or refuses it.
  void offer(std::uint32_t index) {
    busyUntil_ = std::max(busyUntil_, now_);
    const bool isAccepted = busyUntil_ - now_ < kLongestWait;
    if (isAccepted) busyUntil_ += 1 / (normal_ * setting_.capacity);
    ++posted_;
    steps_.push({(isAccepted ? busyUntil_ : now_) + kRoundTrip, index, true, isAccepted});
  }

  void answer(const Step& step) {
    std::optional<std::chrono::seconds> retryAfter;
    if (step.isAccepted) {
      ++accepted_;
      ++acceptedInBin_;
    } else {
      ++course_.refused;
      if (setting_.retryMost > 0)
        retryAfter =
            std::chrono::seconds(std::uniform_int_distribution(setting_.retryLeast, setting_.retryMost)(random_));
    }
    players_[step.index].device.answered(step.isAccepted, retryAfter, instant(now_), random_);
    post(step.index);
  }

  void plan(std::uint32_t index) {
    Player& player = players_[index];
    double next = player.nextCut;
    if (const auto round = player.device.wakeUp(); round && !player.device.isPosting()) {
      next = std::min(next, std::chrono::duration<double>(round->time_since_epoch()).count() + 1e-6);
    }
    if (player.wakeUp >= 0 && player.wakeUp <= next) return;
    player.wakeUp = next;
    steps_.push({next, index, false, false});
  }

  void closeBin(double end) {
    const double waiting = static_cast<double>(cut_ - accepted_) / normal_;
    course_.posted.push_back(static_cast<double>(posted_) / kBin / normal_);
    course_.accepted.push_back(static_cast<double>(acceptedInBin_) / kBin / normal_);
    course_.waiting.push_back(waiting);
    course_.posts += static_cast<double>(posted_);
    posted_ = acceptedInBin_ = 0;
    // One second of the normal load is under way even when nothing waits.
    isOver_ = waiting < 1 || end >= kHorizon;
    if (isOver_) course_.recovered = end;
  }

  Setting setting_;
  double outage_;
  double normal_;  // chunks a second
  std::vector<Player> players_;
  std::priority_queue<Step, std::vector<Step>, std::greater<>> steps_;
  Device::Random random_{4711};
  double now_ = 0, busyUntil_ = 0;
  std::uint64_t cut_ = 0, accepted_ = 0, posted_ = 0, acceptedInBin_ = 0;
  bool isOver_ = false;
  Course course_;
};

/// A chart of curves over the minutes since the return.
class Chart {
 public:
  Chart(std::ostream& out, double top, const std::string& title, double minutes, double most)
      : out_(out), top_(top), minutes_(minutes), most_(most) {
    out_ << "<text x='60' y='" << top_ - 12 << "' class='title'>" << title << "</text>\n";
    for (int part = 0; part <= 4; ++part) {
      const double y = top_ + kHeight * (4 - part) / 4, x = 60 + kWidth * part / 4;
      out_ << "<path class='grid' d='M60 " << y << "H" << 60 + kWidth << "'/><text x='54' y='" << y + 4
           << "' text-anchor='end'>" << most_ * part / 4 << "</text><text x='" << x << "' y='" << top_ + kHeight + 16
           << "' text-anchor='middle'>" << minutes_ * part / 4 << (part == 4 ? " min" : "") << "</text>\n";
    }
  }
  void curve(const std::vector<double>& values, const char* color, bool isDashed) {
    out_ << "<polyline fill='none' stroke='" << color << "' stroke-width='1.5'"
         << (isDashed ? " stroke-dasharray='3 3'" : "") << " points='";
    for (std::size_t i = 0; i < values.size(); ++i) {
      const double minute = (static_cast<double>(i) + 0.5) * kBin / 60;
      if (minute > minutes_) break;
      out_ << std::round((60 + kWidth * minute / minutes_) * 10) / 10 << ','
           << std::round((top_ + kHeight * (1 - std::min(1.0, values[i] / most_))) * 10) / 10 << ' ';
    }
    out_ << "'/>\n";
  }

  static constexpr double kWidth = 660, kHeight = 220;

 private:
  std::ostream& out_;
  double top_, minutes_, most_;
};

std::string inDigits(double value, int digits) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

double largest(const std::vector<double>& values) {
  return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

/// Rounds up to a number that four parts divide well.
double rounded(double value) {
  const double step = value > 400 ? 100 : value > 40 ? 20 : 4;
  return std::ceil(value / step) * step;
}

void draw(const std::string& path, const std::vector<Setting>& settings, const std::vector<Course>& courses) {
  double minutes = 0, load = 0, waiting = 0;
  for (const Course& course : courses) {
    minutes = std::max(minutes, course.recovered / 60);
    load = std::max(load, largest(course.posted));
    waiting = std::max(waiting, largest(course.waiting));
  }
  std::ofstream out(path);
  out << "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 760 640' font-family='sans-serif' font-size='12'>\n"
         "<style>.grid{stroke:#ddd;fill:none}.title{font-size:14px}</style><rect width='760' height='640' "
         "fill='white'/>\n";
  Chart loads(out, 40, "Chunks posted (dashed) and accepted, in multiples of the normal load", rounded(minutes),
              rounded(load));
  Chart rest(out, 340, "Chunks that wait on the devices, in seconds of the normal load", rounded(minutes),
             rounded(waiting));
  for (std::size_t i = 0; i < settings.size(); ++i) {
    loads.curve(courses[i].posted, settings[i].color, true);
    loads.curve(courses[i].accepted, settings[i].color, false);
    rest.curve(courses[i].waiting, settings[i].color, false);
    out << "<text x='" << 60 + 168 * i << "' y='605' fill='" << settings[i].color << "'>capacity "
        << inDigits(settings[i].capacity, 1) << (settings[i].retryMost > 0 ? "" : ", no Retry-After") << "</text>\n";
  }
  out << "</svg>\n";
}

}  // namespace
}  // namespace kelvo::bench

int main(int count, char** arguments) {
  using namespace kelvo::bench;
  std::uint32_t devices = 3000;
  double outage = 3600;
  std::string picture;
  for (int i = 1; i + 1 < count; i += 2) {
    const std::string_view name = arguments[i], value = arguments[i + 1];
    if (name == "--devices") std::from_chars(value.data(), value.data() + value.size(), devices);
    if (name == "--outage") std::from_chars(value.data(), value.data() + value.size(), outage);
    if (name == "--svg") picture = value;
  }
  if (count % 2 == 0 || devices == 0) {
    std::fputs("usage: kelvo-bench-return [--devices N] [--outage SECONDS] [--svg FILE]\n", stderr);
    return 2;
  }
  const std::vector<Setting> settings{
      {1.5, 20, 60, "#c0392b"}, {2, 20, 60, "#2471a3"}, {4, 20, 60, "#1e8449"}, {2, 0, 0, "#7d3c98"}};
  std::vector<Course> courses;
  std::puts(
      "| Capacity / normal load | Retry-After | recovered after | most posts / normal load | posts refused "
      "|\n|---|---|---|---|---|");
  for (const Setting& setting : settings) {
    courses.push_back(Simulation(devices, outage, setting).run());
    const Course& course = courses.back();
    const std::string asked = std::to_string(setting.retryLeast) + " to " + std::to_string(setting.retryMost) + " s";
    std::printf("| %.1f | %s | %.0f min | %.1f | %.0f %% |\n", setting.capacity,
                setting.retryMost > 0 ? asked.c_str() : "none", course.recovered / 60, largest(course.posted),
                100 * course.refused / course.posts);
  }
  if (!picture.empty()) draw(picture, settings, courses);
  return 0;
}
