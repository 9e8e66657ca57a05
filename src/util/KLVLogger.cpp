#include "util/KLVLogger.h"

#include <fcntl.h>
#include <fmt/args.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

#include "platform/Immortal.h"
#include "platform/Problem.h"
#include "platform/Thread.h"

namespace kelvo {
namespace {

constexpr std::size_t kMaximumWaitingLines = 4096;

std::atomic<int> logLevel{0};
thread_local bool onLogThread = false;

/// `std::vector<int> kelvo::KLVPostman::init(int)::<lambda()>` becomes `KLVPostman::init`.
std::string_view methodName(std::string_view pretty) {
  constexpr std::string_view kAnonymous =
      "(anonymous namespace)";  // one compiler's spelling; "{anonymous}" the other's
  std::size_t start = 0;
  int brackets = 0;
  for (std::size_t i = 0; i < pretty.size(); ++i) {
    if (pretty[i] == '<') ++brackets;
    if (pretty[i] == '>') --brackets;
    if (brackets > 0) continue;
    if (pretty[i] == ' ') start = i + 1;  // what stood before is the type of the result
    if (pretty[i] != '(') continue;
    if (pretty.substr(i).starts_with(kAnonymous)) {
      i += kAnonymous.size() - 1;
      continue;
    }
    pretty = pretty.substr(0, i);
  }
  pretty.remove_prefix(start);
  for (const std::string_view prefix : {"kelvo::", "{anonymous}::", "(anonymous namespace)::"}) {
    if (pretty.starts_with(prefix)) pretty.remove_prefix(prefix.size());
  }
  return pretty;
}

const char* word(KLVLogger::Level level) {
  switch (level) {
    case KLVLogger::Level::debug: return "DEBUG";
    case KLVLogger::Level::info: return "INFO";
    case KLVLogger::Level::warn: return "WARN";
    case KLVLogger::Level::error: return "ERROR";
  }
  return "";
}

struct Record {
  KLVLogger::Level level;
  const char* function;
  int line;
  fmt::string_view format;
  std::vector<Value> arguments;

  [[nodiscard]] std::string text() const {
    fmt::dynamic_format_arg_store<fmt::format_context> texts;
    for (const Value& argument : arguments) texts.push_back(description(argument));
    return fmt::format("<KLV {}> {} {}:{}\n", word(level), fmt::vformat(format, texts), methodName(function), line);
  }
};

/// Standard error, for one batch of lines.
///
/// A host may close it, and the next file that anybody in the process opens gets its number: a database, a connection.
/// Lines go there only while it is the file that it was at first, or one that lines may be added to: a terminal or
/// another device, a pipe, a file opened for appending.
class StandardError {
 public:
  struct Identity {
    bool isOpen = false;
    struct stat facts {};
  };
  static Identity identityOf(int descriptor) {
    Identity identity;
    identity.isOpen = ::fstat(descriptor, &identity.facts) == 0;
    return identity;
  }

  explicit StandardError(const Identity& atFirst) {
    // A descriptor of our own: between the look and the write, nothing else can take its place.
    own_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    target_ = own_ < 0 && errno != EBADF ? STDERR_FILENO : own_;  // none is left to the process
    if (!takesLines(atFirst)) target_ = -1;
  }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;
  ~StandardError() {
    if (own_ >= 0) ::close(own_);
  }

  void write(std::string_view text) const {
    while (target_ >= 0 && !text.empty()) {
      const ssize_t written = ::write(target_, text.data(), text.size());
      if (written > 0) {
        text.remove_prefix(static_cast<std::size_t>(written));
      } else if (written < 0 && errno == EAGAIN) {  // the host made it non-blocking
        pollfd room{target_, POLLOUT, 0};
        ::poll(&room, 1, -1);
      } else if (written == 0 || errno != EINTR) {
        return;  // nobody to tell
      }
    }
  }

 private:
  [[nodiscard]] bool takesLines(const Identity& atFirst) const {
    const Identity now = identityOf(target_);
    if (!now.isOpen) return false;
    const bool isTheSame =
        atFirst.isOpen && now.facts.st_dev == atFirst.facts.st_dev && now.facts.st_ino == atFirst.facts.st_ino;
    if (isTheSame || S_ISCHR(now.facts.st_mode) || S_ISFIFO(now.facts.st_mode)) return true;
    return S_ISREG(now.facts.st_mode) && (::fcntl(target_, F_GETFL) & O_APPEND) != 0;
  }

  int own_ = -1;
  int target_ = -1;
};

class Writer {
 public:
  void accept(Record record) {
    std::unique_lock lock(mutex_);
    if (lines_.size() >= kMaximumWaitingLines) {
      ++dropped_;
      return;
    }
    lines_.push_back(std::move(record));
    ++accepted_;
    if (!running_) running_ = startThread("kelvo.log", [this] { run(); });
    const bool wakes = std::exchange(idle_, false);
    lock.unlock();  // the thread that it wakes finds the mutex free
    if (wakes) wake_.notify_one();
  }

  void setSink(KLVLogger::Sink sink) {
    auto shared = sink ? std::make_shared<KLVLogger::Sink>(std::move(sink)) : nullptr;
    const std::lock_guard lock(mutex_);
    sink_.swap(shared);
  }

  bool drain(std::chrono::milliseconds limit) {
    if (onLogThread) return false;  // a sink that ends the process
    std::unique_lock lock(mutex_);
    return written_.wait_for(lock, limit, [this, last = accepted_] { return done_ >= last; });
  }

 private:
  void run() {
    onLogThread = true;
    std::unique_lock lock(mutex_);
    for (;;) {
      idle_ = true;
      wake_.wait(lock, [this] { return !lines_.empty(); });
      idle_ = false;
      std::deque<Record> batch;
      batch.swap(lines_);
      const auto dropped = std::exchange(dropped_, 0);
      const auto sink = sink_;
      lock.unlock();
      if (dropped > 0) {
        batch.push_back({KLVLogger::Level::warn,
                         __PRETTY_FUNCTION__,
                         __LINE__,
                         "{} log lines were dropped: nobody read them",
                         {Value(dropped)}});
      }
      write(batch, sink.get());
      const auto count = batch.size() - (dropped > 0 ? 1 : 0);
      batch.clear();
      lock.lock();
      done_ += count;
      written_.notify_all();
    }
  }

  void write(const std::deque<Record>& batch, const KLVLogger::Sink* sink) const {
    std::optional<StandardError> standardError;
    if (sink == nullptr) standardError.emplace(standardErrorAtFirst_);
    for (const Record& record : batch) {
      try {
        const std::string line = record.text();
        if (standardError) {
          standardError->write(line);
        } else {
          (*sink)(record.level, std::string_view(line).substr(0, line.size() - 1));
        }
      } catch (...) {  // a host's sink may throw anything; the log has nowhere left to tell it
      }
    }
  }

  const StandardError::Identity standardErrorAtFirst_ = StandardError::identityOf(STDERR_FILENO);
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable written_;
  std::deque<Record> lines_;
  std::shared_ptr<KLVLogger::Sink> sink_;
  std::uint64_t accepted_ = 0;
  std::uint64_t done_ = 0;
  std::uint64_t dropped_ = 0;
  bool running_ = false;
  bool idle_ = false;
};

Writer& writer() {
  static Immortal<Writer> instance;
  return *instance;
}

/// Failures of the layer below the logger arrive here.
const bool problemsAreLogged = [] {
  setProblemHandler([](const char* where, std::string what) {
    if (KLVLogger::writes(KLVLogger::Level::error)) {
      KLVLogger::log(KLVLogger::Level::error, where, 0, "{}", std::move(what));
    }
  });
  return true;
}();

}  // namespace

void KLVLogger::setLogLevel(int level) noexcept {
  logLevel.store(level, std::memory_order_relaxed);
}

bool KLVLogger::writes(Level level) noexcept {
  if (level == Level::info) return true;
  const int threshold = logLevel.load(std::memory_order_relaxed);
  if (level == Level::debug) return threshold < 2;
  return level == Level::warn ? threshold < 3 : threshold < 4;
}

void KLVLogger::setSink(Sink sink) {
  writer().setSink(std::move(sink));
}

bool KLVLogger::drain(std::chrono::milliseconds limit) {
  return inForkedChild() || writer().drain(limit);
}

void KLVLogger::write(Level level, const char* function, int line, fmt::string_view format,
                      std::vector<Value> arguments) {
  if (inForkedChild()) return;
  writer().accept({level, function, line, format, std::move(arguments)});
}

}  // namespace kelvo
