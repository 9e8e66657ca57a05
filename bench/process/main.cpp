// Measures whole processes. Starts a collector and, one after the other, hosts that each play one part. Prints a
// Markdown table with each figure beside its aim. With --growth, prints how the cost grows with the input.
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "process/Child.h"
#include "process/Measuring.h"

namespace kelvo::bench {
namespace {

constexpr double kMegabyte = 1e6;
constexpr int kRuns = 5;                // of a part, for its medians
constexpr int kStartRuns = 31;          // of a program, for the median time to its main function
constexpr int kNeverDuringARun = 3600;  // seconds
constexpr int kEventsPerChunk = 10;     // in the homes that the host's part `prepare` fills
constexpr int kPieces = 10;             // of the host's part `long-session`

using Figures = std::map<std::string, double>;

/// A temporary home for one host. The destructor removes it.
class Home {
 public:
  Home() {
    std::string path = (std::filesystem::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = path;
  }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;
  ~Home() {
    std::error_code inUse;
    std::filesystem::remove_all(path_, inUse);
  }

  /// Saves a configuration for the next launch: the timer cuts a chunk every `seconds`.
  void setChunkInterval(int seconds) const {
    std::filesystem::create_directories(path_ + "/Library");
    std::ofstream(path_ + "/Library/com.kelvo.SDK.config.json")
        << R"({"enable":true,"max_fg_chunk_send_time":)" << seconds << "}";
  }
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

/// Starts a collector, and hosts that report to it.
class HostRunner {
 public:
  HostRunner() : collector_({BENCH_COLLECTOR, "--port", "0"}, {}) {
    const std::string line = collector_.readLine();
    url_ = line.substr(line.rfind(' ') + 1);
  }

  /// Runs a host with the arguments `part` and returns its figures. If `peak` is given, sets it to the host's highest
  /// private memory in bytes.
  Figures runHost(const std::vector<std::string>& part, const Home& home, double* peak = nullptr) const {
    std::vector<std::string> command{BENCH_HOST};
    command.insert(command.end(), part.begin(), part.end());
    Child child(command, {{"KELVO_HOME", home.path()}, {"KELVO_SERVER_BASE_URL", url_}});
    Figures figures = child.readFigures(peak);
    if (figures.count("failed") > 0) std::fprintf(stderr, "%s did not finish\n", part[0].c_str());
    return figures;
  }

  /// Returns the median of each figure over `runs` runs. Each run has a new home, and the timer cuts no chunk in it.
  [[nodiscard]] Figures median(const std::string& part, int runs) const {
    std::map<std::string, std::vector<double>> all;
    for (int run = 0; run < runs; ++run) {
      const Home home;
      home.setChunkInterval(kNeverDuringARun);
      for (const auto& [key, value] : runHost({part}, home)) all[key].push_back(value);
    }
    Figures result;
    for (auto& [key, values] : all) {
      std::sort(values.begin(), values.end());
      result[key] = values[values.size() / 2];
    }
    return result;
  }

 private:
  Child collector_;
  std::string url_;
};

/// Returns the median of the milliseconds from the start of a process to its `main`.
double untilMain(const char* program) {
  std::vector<double> milliseconds;
  const Home home;
  for (int run = 0; run < kStartRuns; ++run) {
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    Child child({program}, {{"KELVO_HOME", home.path()}});
    const double main = child.readFigures()["main"];
    milliseconds.push_back((main - static_cast<double>(before.tv_sec) - static_cast<double>(before.tv_nsec) / 1e9) *
                           1e3);
  }
  std::sort(milliseconds.begin(), milliseconds.end());
  return milliseconds[milliseconds.size() / 2];
}

/// Returns the size of a program's text and data in kilobytes, as the command `size` counts them.
double sizeOf(const std::string& program) {
  std::FILE* const pipe = popen(("size " + program).c_str(), "r");
  if (pipe == nullptr) return 0;
  long text = 0;
  long data = 0;
  if (std::fscanf(pipe, "%*[^\n] %ld %ld", &text, &data) != 2) text = data = 0;
  pclose(pipe);
  return static_cast<double>(text + data) / 1e3;
}

std::string machine() {
  std::string processor = "unknown processor";
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("model name", 0) != 0) continue;
    processor = line.substr(line.find(':') + 2);
    break;
  }
  utsname system{};
  uname(&system);
  double load = 0;
  getloadavg(&load, 1);
  std::ostringstream text;
  text << processor << ", " << std::thread::hardware_concurrency() << " cores, Linux " << system.release
#ifdef __clang__
       << ", clang " << __clang_version__
#else
       << ", g++ " << __VERSION__
#endif
       << ", load average " << load << " at the start";
  return text.str();
}

std::string text(const char* format, double a, double b = 0, double c = 0) {
  char buffer[128];
  std::snprintf(buffer, sizeof buffer, format, a, b, c);
  return buffer;
}

void row(const char* figure, const std::string& measured, const char* aim) {
  std::printf("| %s | %s | %s |\n", figure, measured.c_str(), aim);
  std::fflush(stdout);
}

void printTable() {
  std::printf("%s\n\n| Figure | Measured | Aim |\n|---|---|---|\n", machine().c_str());
  const HostRunner runner;
  auto calls = runner.median("latency", kRuns);
  row("a call, 10,000 in a row: p50 / p99 / p99.9",
      text("%.2f / %.1f / %.0f µs", calls["p50"], calls["p99"], calls["p999"]), "1 / 6 / 60 µs");
  row("a call, one every half millisecond: p50 / p99", text("%.1f / %.0f µs", calls["paced_p50"], calls["paced_p99"]),
      "");
  auto durable = runner.median("durable", kRuns);
  row("events made durable a second, of 50,000", text("%.0f", durable["rate"]), "25,000, better 40,000");
  row("from the last call of 1,000 until all are durable",
      text("%.0f ms", runner.median("burst", kRuns)["seconds"] * 1e3), "50 ms");
  row("CPU time for 1,000 events", text("%.4f s", durable["cpu"]), "0.03 s");
  row("10,000 stored events read, built, posted, accepted", text("%.2f s", runner.median("chunk", kRuns)["seconds"]),
      "0.35 s");
  double peak = 0;
  {
    const Home home;
    home.setChunkInterval(kNeverDuringARun);
    runner.runHost({"durable"}, home, &peak);
  }
  auto idle = runner.median("idle", 1);
  row("private memory: peak of the 50,000 / idle / of that written to",
      text("%.1f / %.1f / %.1f MB", peak / kMegabyte, idle["memory"] / kMegabyte, idle["dirty"] / kMegabyte),
      "60 / 5 MB");
  row("text and data of a static host", text("%.0f kB", sizeOf(BENCH_MINIMAL_STATIC)), "700 kB");
  row("threads / voluntary switches in 30 idle seconds", text("%.0f / %.0f", idle["threads"], idle["switches"]),
      "5 / 5");
  row("start of the process to main: shared / static / without",
      text("%.1f / %.1f / %.1f ms", untilMain(BENCH_MINIMAL_SHARED), untilMain(BENCH_MINIMAL_STATIC),
           untilMain(BENCH_BARE)),
      "5 ms above the last");
  row("start to first chunk accepted", text("%.0f ms", runner.median("first-chunk", kRuns)["seconds"] * 1e3), "300 ms");
}

void growthRow(const std::string& label, const Figures& figures, double peak) {
  row(label.c_str(), text("%.2f s, %.2f s CPU", figures.at("seconds"), figures.at("cpu_seconds")),
      text("%.0f MB | %.0f", peak / kMegabyte, figures.at("requests")).c_str());
}

void printGrowth() {
  std::printf("%s\n\n| What | Time | Private memory at its peak | Chunks accepted |\n|---|---|---|---|\n",
              machine().c_str());
  for (const int events : {100000, 1000000}) {
    const HostRunner runner;
    const Home home;
    home.setChunkInterval(1);
    double peak = 0;
    auto figures = runner.runHost({"long-session", std::to_string(events)}, home, &peak);
    for (int piece = 0; piece < kPieces; ++piece) figures["seconds"] += figures["piece" + std::to_string(piece)];
    std::ostringstream label;
    label << "one session of " << events << " events, a chunk a second (first tenth "
          << text("%.2f s, last %.2f s)", figures["piece0"], figures["piece" + std::to_string(kPieces - 1)]);
    growthRow(label.str(), figures, peak);
  }
  for (const int chunks : {1000, 10000}) {
    const HostRunner runner;
    const Home home;
    home.setChunkInterval(kNeverDuringARun);
    runner.runHost({"prepare", "1", std::to_string(chunks)}, home);
    double peak = 0;
    const auto figures = runner.runHost({"launch", std::to_string(chunks * kEventsPerChunk)}, home, &peak);
    growthRow("launch with " + std::to_string(chunks) + " unsent chunks of 10 events", figures, peak);
  }
  for (const int sessions : {100, 1000}) {
    const HostRunner runner;
    const Home home;
    home.setChunkInterval(kNeverDuringARun);
    runner.runHost({"prepare", std::to_string(sessions), "0"}, home);
    double peak = 0;
    const std::string number = std::to_string(sessions);
    const auto cut = runner.runHost({"launch", std::to_string(sessions * kEventsPerChunk)}, home, &peak);
    growthRow("launch with " + number + " earlier sessions never cut", cut, peak);
    peak = 0;
    const auto purge = runner.runHost({"purge"}, home, &peak);
    growthRow("launch that purges " + number + " sessions", purge, peak);
  }
}

}  // namespace
}  // namespace kelvo::bench

int main(int count, char** arguments) {
  try {
    if (count > 1 && std::string(arguments[1]) == "--growth") {
      kelvo::bench::printGrowth();
    } else {
      kelvo::bench::printTable();
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kelvo-bench-process: %s\n", error.what());
    return 1;
  }
}
