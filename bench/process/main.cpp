// Measures whole processes: starts a collector and, one after the other, hosts that each play one part, and prints a
// Markdown table of what was found beside what is aimed at. With --growth, how the cost grows with the input.
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

using Figures = std::map<std::string, double>;

/// A home for one host, removed at the end.
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

  /// The configuration that the next launch finds: a chunk is cut every `seconds`.
  void setChunkInterval(int seconds) const {
    std::filesystem::create_directories(path_ + "/Library");
    std::ofstream(path_ + "/Library/com.kelvo.SDK.config.json")
        << R"({"enable":true,"max_fg_chunk_send_time":)" << seconds << "}";
  }
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

class Bench {
 public:
  Bench() : collector_({BENCH_COLLECTOR, "--port", "0"}, {}) {
    const std::string line = collector_.readLine();
    url_ = line.substr(line.rfind(' ') + 1);
  }

  Figures host(const std::vector<std::string>& part, const Home& home, double* peak = nullptr) const {
    std::vector<std::string> command{BENCH_HOST};
    command.insert(command.end(), part.begin(), part.end());
    Child child(command, {{"KELVO_HOME", home.path()}, {"KELVO_SERVER_BASE_URL", url_}});
    Figures figures = child.readFigures(peak);
    if (figures.count("failed") > 0) std::fprintf(stderr, "%s did not come to its end\n", part[0].c_str());
    return figures;
  }

  /// Each figure's median over `runs` runs, each with a fresh home and no chunk cut by the timer.
  [[nodiscard]] Figures median(const std::string& part, int runs) const {
    std::map<std::string, std::vector<double>> all;
    for (int run = 0; run < runs; ++run) {
      const Home home;
      home.setChunkInterval(3600);
      for (const auto& [key, value] : host({part}, home)) all[key].push_back(value);
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

/// Milliseconds from the start of the process to its `main`; the median of some runs.
double untilMain(const char* program) {
  std::vector<double> milliseconds;
  const Home home;
  for (int run = 0; run < 31; ++run) {
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

/// Text and data of a program, in kilobytes, as `size` counts them.
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
  const Bench bench;
  auto calls = bench.median("latency", 5);
  row("a call, 10,000 in a row: p50 / p99 / p99.9",
      text("%.2f / %.1f / %.0f µs", calls["p50"], calls["p99"], calls["p999"]), "1 / 6 / 60 µs");
  row("a call, one every half millisecond: p50 / p99", text("%.1f / %.0f µs", calls["paced_p50"], calls["paced_p99"]),
      "");
  auto durable = bench.median("durable", 5);
  row("events made durable a second, of 50,000", text("%.0f", durable["rate"]), "25,000, better 40,000");
  row("from the last call of 1,000 until all are durable", text("%.0f ms", bench.median("burst", 5)["seconds"] * 1e3),
      "50 ms");
  row("CPU time for 1,000 events", text("%.4f s", durable["cpu"]), "0.03 s");
  row("10,000 stored events read, built, posted, accepted", text("%.2f s", bench.median("chunk", 5)["seconds"]),
      "0.35 s");
  double peak = 0;
  {
    const Home home;
    home.setChunkInterval(3600);
    bench.host({"durable"}, home, &peak);
  }
  auto idle = bench.median("idle", 1);
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
  row("start to first chunk accepted", text("%.0f ms", bench.median("first-chunk", 5)["seconds"] * 1e3), "300 ms");
}

void growthRow(const std::string& what, const Figures& figures, double peak) {
  row(what.c_str(), text("%.2f s, %.2f s CPU", figures.at("seconds"), figures.at("cpu_seconds")),
      text("%.0f MB | %.0f", peak / kMegabyte, figures.at("requests")).c_str());
}

void printGrowth() {
  std::printf("%s\n\n| What | Time | Private memory at its peak | Chunks accepted |\n|---|---|---|---|\n",
              machine().c_str());
  for (const int events : {100000, 1000000}) {
    const Bench bench;
    const Home home;
    home.setChunkInterval(1);
    double peak = 0;
    auto figures = bench.host({"long-session", std::to_string(events)}, home, &peak);
    for (int piece = 0; piece < 10; ++piece) figures["seconds"] += figures["piece" + std::to_string(piece)];
    std::ostringstream what;
    what << "one session of " << events << " events, a chunk a second (first tenth "
         << text("%.2f s, last %.2f s)", figures["piece0"], figures["piece9"]);
    growthRow(what.str(), figures, peak);
  }
  for (const int chunks : {1000, 10000}) {
    const Bench bench;
    const Home home;
    home.setChunkInterval(3600);
    bench.host({"prepare", "1", std::to_string(chunks)}, home);
    double peak = 0;
    const auto figures = bench.host({"launch", std::to_string(chunks * 10)}, home, &peak);
    growthRow("launch with " + std::to_string(chunks) + " unsent chunks of 10 events", figures, peak);
  }
  for (const int sessions : {100, 1000}) {
    const Bench bench;
    const Home home;
    home.setChunkInterval(3600);
    bench.host({"prepare", std::to_string(sessions), "0"}, home);
    double peak = 0;
    const std::string number = std::to_string(sessions);
    const auto cut = bench.host({"launch", std::to_string(sessions * 10)}, home, &peak);
    growthRow("launch with " + number + " earlier sessions never cut", cut, peak);
    peak = 0;
    const auto purge = bench.host({"purge"}, home, &peak);
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
