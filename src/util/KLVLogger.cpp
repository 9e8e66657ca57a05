#include "util/KLVLogger.h"

#include <fmt/args.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <boost/container/small_vector.hpp>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <memory>
#include <new>
#include <optional>

#include "platform/Problem.h"
#include "platform/ProcessWide.h"
#include "platform/Thread.h"
#include "platform/ThreadPool.h"
#include "platform/ThreadSafety.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLogRules.h"
#include "util/KLVSanitiser.h"
#include "util/KLVStandardError.h"

namespace kelvo {
namespace {

/// So many messages wait if nobody reads them, or if there is no log thread yet.
constexpr std::size_t kMostUnread = 4096;
/// A reader that takes nothing for so long counts as nobody.
constexpr std::chrono::seconds kPatience(1);

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
  boost::container::small_vector<Value, 2> arguments;

  /// Returns the line, with its line feed.
  [[nodiscard]] std::string text() const {
    fmt::dynamic_format_arg_store<fmt::format_context> texts;
    for (const Value& argument : arguments) {
      if (const auto* text = argument.get<std::string>()) {
        texts.push_back(std::string_view(*text));
      } else {
        texts.push_back(description(argument));
      }
    }
    const std::string message = onOneLine(fmt::vformat(format, texts));
    return fmt::format("<KLV {}> {} {}:{}\n", word(level), message, methodName(function), line);
  }
};

class Writer;
Writer& writer();

/// The queue of messages and the log thread that writes them. Started by the first message, never destroyed.
class Writer {
 public:
  /// Moves the `count` arguments at `arguments` into the message.
  void accept(const Message& message, Value* arguments, std::size_t count) EXCLUDES(mutex_) {
    Lock lock(mutex_);
    if (messages_.size() >= mostWaiting()) {
      ++dropped_;
      return;
    }
    messages_.push_back(message);
    messages_.back().arguments.assign(std::make_move_iterator(arguments), std::make_move_iterator(arguments + count));
    ++accepted_;
    startIfNeeded();
    const bool wakes = std::exchange(idle_, false);
    lock.unlock();  // first, so that the log thread need not wait for the mutex
    if (!wakes) return;
    // The host's call wakes a pool thread for its work. That thread wakes this one, which would delay the call.
    if (onLibraryThread() || !pool::runOnWaking([] { writer().wake_.notify_one(); })) wake_.notify_one();
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
    if (done_ < last) wake_.notify_one();
    while (done_ < last) {
      if (!lock.waitUntil(written_, deadline)) return done_ >= last;
    }
    return true;
  }

 private:
  using Messages = std::deque<Message>;

  void startIfNeeded() REQUIRES(mutex_) {
    if (!running_ && !threadsAreHeld())
      running_ = startThread(
          "kelvo.log", [this] { run(); }, [this] { wake(); });
  }

  /// While somebody reads, as many messages may wait as calls: a burst makes lines faster than they can be written.
  [[nodiscard]] std::size_t mostWaiting() const REQUIRES(mutex_) {
    if (!running_ || isUnread_) return kMostUnread;
    return std::max(kMostUnread, KLVHostLimits::currentMostWaitingCalls());
  }

  /// Returns the waiting messages. The last one says how many were dropped.
  Messages takeMessages() REQUIRES(mutex_) {
    Messages batch;
    batch.swap(messages_);
    taken_ = accepted_;
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
    auto batch = takeMessages();
    const auto sink = sink_;
    done_ = taken_;
    lock.unlock();
    onLogThread = true;
    write(batch, sink.get(), false);
    onLogThread = false;
  }

  void wake() EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    wake_.notify_one();
  }

  void run() EXCLUDES(mutex_) {
    onLogThread = true;
    Lock lock(mutex_);
    for (;;) {
      idle_ = true;
      while (messages_.empty() && dropped_ == 0 && !threadsMustEnd()) lock.wait(wake_);
      idle_ = false;
      if (messages_.empty() && dropped_ == 0) return;
      const std::uint64_t takenBefore = taken_;
      auto batch = takeMessages();
      const auto sink = sink_;
      lock.unlock();
      write(batch, sink.get(), true);
      lock.lock();
      // The last line of the next batch counts the lines dropped meanwhile. Until it is written, they are not done.
      done_ = dropped_ > 0 ? takenBefore : taken_;
      written_.notify_all();
    }
  }

  /// Writes the messages and destroys them. Thread: the log thread, without the mutex: standard error or the sink may
  /// block.
  void write(Messages& batch, const KLVLogger::Sink* sink, bool waits) EXCLUDES(mutex_) {
    std::optional<KLVStandardError> standardError;
    if (sink == nullptr) standardError.emplace(standardErrorAtStart_);
    std::string lines;  // of PIPE_BUF bytes at most, if it is more than one: a pipe takes them as a whole
    const auto flush = [&] {
      const std::string piece = std::exchange(lines, {});
      if (waits) awaitReader(*standardError, batch);
      standardError->write(piece, waits);
    };
    while (!batch.empty() || !lines.empty()) {
      try {
        if (batch.empty()) {
          flush();
          continue;
        }
        const Message message = std::move(batch.front());
        batch.pop_front();
        const std::string line = message.text();
        if (!standardError) {
          (*sink)(message.level, std::string_view(line).substr(0, line.size() - 1));
        } else {
          if (!lines.empty() && lines.size() + line.size() > PIPE_BUF) flush();
          lines += line;
        }
      } catch (...) {  // the host's sink may throw anything, and a failing log cannot be logged
      }
    }
  }

  /// Waits until somebody reads. If that takes long, keeps only the oldest messages: those in `batch`, and then waiting
  /// ones.
  void awaitReader(const KLVStandardError& standardError, Messages& batch) EXCLUDES(mutex_) {
    if (standardError.waitForRoom(kPatience)) return;
    Messages waiting;
    Lock lock(mutex_);
    isUnread_ = true;
    waiting.swap(messages_);
    taken_ = accepted_;
    lock.unlock();
    std::move(waiting.begin(), waiting.end(), std::back_inserter(batch));
    std::uint64_t dropped = 0;
    for (; batch.size() > kMostUnread; ++dropped) batch.pop_back();
    lock.lock();
    dropped_ += dropped;
    lock.unlock();
    static_cast<void>(standardError.waitForRoom(std::nullopt));
    lock.lock();
    isUnread_ = false;
  }

  const KLVStandardError::Identity standardErrorAtStart_ = KLVStandardError::identity();
  Mutex mutex_;
  std::condition_variable wake_;     // messages_ is no longer empty
  std::condition_variable written_;  // done_ has grown
  Messages messages_ GUARDED_BY(mutex_);
  std::shared_ptr<KLVLogger::Sink> sink_ GUARDED_BY(mutex_);
  std::uint64_t accepted_ GUARDED_BY(mutex_) = 0;
  std::uint64_t taken_ GUARDED_BY(mutex_) = 0;  // accepted messages when the log thread last took some
  std::uint64_t done_ GUARDED_BY(mutex_) = 0;   // accepted messages that are written or dropped
  std::uint64_t dropped_ GUARDED_BY(mutex_) = 0;
  bool running_ GUARDED_BY(mutex_) = false;
  bool idle_ GUARDED_BY(mutex_) = false;      // the log thread waits for a message
  bool isUnread_ GUARDED_BY(mutex_) = false;  // nobody reads standard error
};

Writer& writer() {
  static ProcessWide<Writer> instance;
  return *instance;
}

constinit KLVLogRules rules;
constinit bool understandsEnvironment = true;
[[maybe_unused]] const ResetAtEnd sinkIsReset([] {
  rules.~KLVLogRules();
  new (&rules) KLVLogRules;
  understandsEnvironment = rules.obey(::secure_getenv("KELVO_LOG"));
});

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
  writer().accept({level, function, line, format, {}}, arguments, count);
}

}  // namespace kelvo
