#include "util/KLVLogger.h"

#include <fcntl.h>
#include <fmt/args.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Immortal.h"
#include "platform/Problem.h"
#include "platform/Thread.h"
#include "platform/ThreadSafety.h"
#include "util/KLVLogRules.h"
#include "util/KLVSanitiser.h"

namespace kelvo {
namespace {

constexpr std::size_t kMaximumWaitingMessages = 4096;

thread_local bool onLogThread = false;

/// Returns `KLVPostman::init` for `std::vector<int> kelvo::KLVPostman::init(int)::<lambda()>`.
std::string_view methodName(std::string_view pretty) {
  constexpr std::string_view kAnonymous = "(anonymous namespace)";  // clang's spelling; GCC writes "{anonymous}"
  std::size_t start = 0;
  int brackets = 0;
  for (std::size_t i = 0; i < pretty.size(); ++i) {
    if (pretty[i] == '<') ++brackets;
    if (pretty[i] == '>') --brackets;
    if (brackets > 0) continue;
    if (pretty[i] == ' ') start = i + 1;  // the text before the space is the result type
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
    case KLVLogger::Level::off: break;
  }
  return "";
}

/// A message that waits for the log thread.
struct Message {
  KLVLogger::Level level;
  const char* function;
  int line;
  fmt::string_view format;
  std::vector<Value> arguments;

  /// Returns the line, with its line feed.
  [[nodiscard]] std::string text() const {
    fmt::dynamic_format_arg_store<fmt::format_context> texts;
    for (const Value& argument : arguments) texts.push_back(description(argument));
    const std::string message = onOneLine(fmt::vformat(format, texts));
    return fmt::format("<KLV {}> {} {}:{}\n", word(level), message, methodName(function), line);
  }
};

/// Standard error, opened for one batch of lines.
///
/// If the host closes standard error, the next file that the process opens gets its number, for example a database.
/// Therefore lines are written only if the descriptor is still the file of the start, or a file to which any process
/// may add lines: a terminal or another device, a pipe, a file opened for appending.
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

  explicit StandardError(const Identity& atStart) {
    // We check and write a duplicate, so that no other file can take the number between the two.
    own_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    target_ = own_ < 0 && errno != EBADF ? STDERR_FILENO : own_;  // no descriptor is free
    if (!takesLines(atStart)) target_ = -1;
  }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;
  ~StandardError() {
    if (own_ >= 0) ::close(own_);
  }

  /// Without `waits`, drops the rest of `text` as soon as the thread would have to wait for the reader.
  void write(std::string_view text, bool waits) const {
    while (target_ >= 0 && !text.empty()) {
      pollfd now{target_, POLLOUT, 0};
      if (!waits && ::poll(&now, 1, 0) <= 0) return;
      const std::size_t size = waits ? text.size() : std::min<std::size_t>(text.size(), PIPE_BUF);
      const ssize_t written = ::write(target_, text.data(), size);
      if (written > 0) {
        text.remove_prefix(static_cast<std::size_t>(written));
      } else if (written < 0 && errno == EAGAIN && waits) {  // the host made it non-blocking: wait for room
        pollfd room{target_, POLLOUT, 0};
        ::poll(&room, 1, -1);
      } else if (written == 0 || errno != EINTR) {
        return;  // a failing log cannot be logged
      }
    }
  }

 private:
  [[nodiscard]] bool takesLines(const Identity& atStart) const {
    const Identity now = identityOf(target_);
    if (!now.isOpen) return false;
    const bool isTheSame =
        atStart.isOpen && now.facts.st_dev == atStart.facts.st_dev && now.facts.st_ino == atStart.facts.st_ino;
    if (isTheSame || S_ISCHR(now.facts.st_mode) || S_ISFIFO(now.facts.st_mode)) return true;
    return S_ISREG(now.facts.st_mode) && (::fcntl(target_, F_GETFL) & O_APPEND) != 0;
  }

  int own_ = -1;     // the duplicate, -1 if there is none
  int target_ = -1;  // where lines are written, -1 for nowhere
};

/// The queue of messages and the log thread that writes them. Started by the first message, never destroyed.
class Writer {
 public:
  void accept(Message message) EXCLUDES(mutex_) {
    Lock lock(mutex_);
    if (messages_.size() >= kMaximumWaitingMessages) {
      ++dropped_;
      return;
    }
    messages_.push_back(std::move(message));
    ++accepted_;
    startIfNeeded();
    const bool wakes = std::exchange(idle_, false);
    lock.unlock();  // first, so that the log thread need not wait for the mutex
    if (wakes) wake_.notify_one();
  }

  void setSink(KLVLogger::Sink sink) EXCLUDES(mutex_) {
    auto shared = sink ? std::make_shared<KLVLogger::Sink>(std::move(sink)) : nullptr;
    const Lock lock(mutex_);
    sink_.swap(shared);
  }

  void start() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    if (!messages_.empty()) startIfNeeded();
  }

  bool drain(std::chrono::milliseconds limit) EXCLUDES(mutex_) {
    if (onLogThread) return false;  // a sink that ends the process must not wait for itself
    const auto deadline = std::chrono::steady_clock::now() + limit;
    if (threadsAreHeld()) writeHere();
    Lock lock(mutex_);
    const std::uint64_t last = accepted_;
    while (done_ < last) {
      if (!lock.waitUntil(written_, deadline)) return done_ >= last;
    }
    return true;
  }

 private:
  void startIfNeeded() REQUIRES(mutex_) {
    if (!running_ && !threadsAreHeld()) running_ = startThread("kelvo.log", [this] { run(); });
  }

  /// Returns the waiting messages. The last one says how many were dropped.
  std::deque<Message> takeMessages() REQUIRES(mutex_) {
    auto batch = std::exchange(messages_, {});
    if (const auto dropped = std::exchange(dropped_, 0); dropped > 0) {
      batch.push_back({KLVLogger::Level::warn,
                       __PRETTY_FUNCTION__,
                       __LINE__,
                       "{} log lines were dropped: nobody read them",
                       {Value(dropped)}});
    }
    return batch;
  }

  /// Writes the waiting messages on the calling thread, without waiting for a reader.
  void writeHere() EXCLUDES(mutex_) {
    Lock lock(mutex_);
    const auto batch = takeMessages();
    const auto sink = sink_;
    done_ = accepted_;
    lock.unlock();
    onLogThread = true;
    write(batch, sink.get(), false);
    onLogThread = false;
  }

  void run() EXCLUDES(mutex_) {
    onLogThread = true;
    Lock lock(mutex_);
    for (;;) {
      idle_ = true;
      while (messages_.empty()) lock.wait(wake_);
      idle_ = false;
      const std::uint64_t last = accepted_;
      auto batch = takeMessages();
      const auto sink = sink_;
      lock.unlock();
      write(batch, sink.get(), true);
      batch.clear();
      lock.lock();
      done_ = last;
      written_.notify_all();
    }
  }

  /// Thread: the log thread, without the mutex: standard error or the sink may block.
  void write(const std::deque<Message>& batch, const KLVLogger::Sink* sink, bool waits) const {
    std::optional<StandardError> standardError;
    if (sink == nullptr) standardError.emplace(standardErrorAtStart_);
    for (const Message& message : batch) {
      try {
        const std::string line = message.text();
        if (standardError) {
          standardError->write(line, waits);
        } else {
          (*sink)(message.level, std::string_view(line).substr(0, line.size() - 1));
        }
      } catch (...) {  // the host's sink may throw anything, and a failing log cannot be logged
      }
    }
  }

  const StandardError::Identity standardErrorAtStart_ = StandardError::identityOf(STDERR_FILENO);
  Mutex mutex_;
  std::condition_variable wake_;     // messages_ is no longer empty
  std::condition_variable written_;  // done_ has grown
  std::deque<Message> messages_ GUARDED_BY(mutex_);
  std::shared_ptr<KLVLogger::Sink> sink_ GUARDED_BY(mutex_);
  std::uint64_t accepted_ GUARDED_BY(mutex_) = 0;
  std::uint64_t done_ GUARDED_BY(mutex_) = 0;  // accepted messages that are written
  std::uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  bool running_ GUARDED_BY(mutex_) = false;
  bool idle_ GUARDED_BY(mutex_) = false;  // the log thread waits for a message
};

Writer& writer() {
  static Immortal<Writer> instance;
  return *instance;
}

constinit KLVLogRules rules;
constinit bool understandsEnvironment = true;

/// Reads the environment before the static initialisers, which may log.
__attribute__((constructor(101))) void readEnvironment() {
  understandsEnvironment = rules.obey(::secure_getenv("KELVO_LOG"));
}

const bool environmentIsReported = [] {
  if (!understandsEnvironment) KLV_ERROR("KELVO_LOG has an unknown value: use off, error, warn, info or debug");
  return true;
}();

/// Logs the problems that `platform`, the layer below the logger, reports.
const bool problemsAreLogged = [] {
  setProblemHandler([](const char* where, std::string what) {
    if (KLVLogger::writes(KLVLogger::Level::error)) {
      KLVLogger::log(KLVLogger::Level::error, where, 0, "{}", std::move(what));
    }
  });
  return true;
}();

}  // namespace

bool KLVLogger::setLogLevel(Level lowest) noexcept {
  return rules.serve(lowest);
}

void KLVLogger::chooseLevel(Level lowest) noexcept {
  rules.choose(lowest);
}

bool KLVLogger::writes(Level level) noexcept {
  return rules.writes(level);
}

bool KLVLogger::carriesHostData() noexcept {
  return rules.carriesHostData();
}

void KLVLogger::setSink(Sink sink) {
  writer().setSink(std::move(sink));
}

void KLVLogger::threadsAreAllowed() {
  if (!inForkedChild()) writer().start();
}

bool KLVLogger::drain(std::chrono::milliseconds limit) {
  return inForkedChild() || writer().drain(limit);
}

void KLVLogger::write(Level level, const char* function, int line, fmt::string_view format, Value* arguments,
                      std::size_t count) {
  if (inForkedChild()) return;
  std::vector<Value> values(std::make_move_iterator(arguments), std::make_move_iterator(arguments + count));
  writer().accept({level, function, line, format, std::move(values)});
}

}  // namespace kelvo
