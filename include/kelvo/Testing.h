#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelvo/Options.h"
#include "kelvo/Value.h"

/// The kit for the tests of a host. A test links `Kelvo::testing` in place of `Kelvo::kelvo`: the same library, but
/// without a network, and with a clock that only the test moves. It works with every test framework.
///
///     kelvo::testing::Recorder kelvo;
///     runCheckout();
///     EXPECT_TRUE(kelvo.logged("Purchase", {{"price", 12.5}}));
///
/// A test of a host with Qt links `Kelvo::qt_testing` or `Kelvo::quick_testing` in place of `Kelvo::qt` or
/// `Kelvo::quick`. One call of `kelvo::qt::attach` holds for all recorders of the process. The functions of a recorder
/// that wait also handle the waiting events of Qt. `killed` then needs the platform "offscreen": a child process cannot
/// use the display of its parent.
///
/// Without a recorder, this build collects nothing.
namespace kelvo::testing {

/// The outcome of an expectation. Where it fails, GoogleTest and Catch2 print the message; with `assert`, print
/// `message()` yourself.
class Result {
 public:
  Result(bool isTrue, std::string message) : isTrue_(isTrue), message_(std::move(message)) {}

  explicit operator bool() const noexcept { return isTrue_; }
  /// Says in some lines what was expected, and what was found.
  [[nodiscard]] const std::string& message() const noexcept { return message_; }
  friend std::ostream& operator<<(std::ostream& out, const Result& result) { return out << result.message_; }

  /// For the result types of frameworks that take a message, such as GoogleTest's.
  template <class Assertion, class = decltype(Assertion(true) << std::string())>
  operator Assertion() const {
    Assertion assertion(isTrue_);
    assertion << message_;
    return assertion;
  }

 private:
  bool isTrue_;
  std::string message_;
};

/// A call of the host.
struct Call {
  std::string kind;  ///< "application event", "client event", "aggregate event", "custom error", "screen shown" ...
  std::string name;  ///< of the event or the screen, the text of the error, the user's id; may be empty
  Dictionary attributes{};  ///< as the host gave them, without nulls and empty values
  Date time{};              ///< of the recorder's clock
  std::string refused{};    ///< why the library did not take the call; empty if it did
};

/// A fault of the service: what it does in place of its normal answer.
class Fault {
 public:
  /// Answers with this status, and keeps nothing.
  static Fault status(int status) { return {Kind::status, status, {}}; }
  /// Answers 200 with a body that is not JSON, and keeps nothing.
  static Fault garbage() { return {Kind::garbage, 0, {}}; }
  /// Ends the connection before an answer, and keeps nothing.
  static Fault cut() { return {Kind::cut, 0, {}}; }
  /// Keeps what was sent, and ends the connection before the answer.
  static Fault lostAnswer() { return {Kind::lostAnswer, 0, {}}; }
  /// Answers normally, after so much time of the recorder's clock. The library waits 30 seconds.
  static Fault late(std::chrono::milliseconds delay) { return {Kind::late, 0, delay}; }
  /// Never answers, and keeps nothing.
  static Fault silence() { return {Kind::silence, 0, {}}; }

 private:
  friend class Service;
  enum class Kind { status, garbage, cut, lostAnswer, late, silence };
  Fault(Kind kind, int status, std::chrono::milliseconds delay) : kind_(kind), status_(status), delay_(delay) {}

  Kind kind_;
  int status_;
  std::chrono::milliseconds delay_;
};

class Recording;

/// The service of a recorder, inside the test's process. Without faults, it accepts everything that is valid. Changes
/// of its documents show in its next answer: the library asks at each launch. Thread-safe.
class Service {
 public:
  /// Answers the next `times` uploads of chunks with this status; all of them if `times` is 0.
  void refuseChunks(int status, int times = 0) { fail("/chunks", Fault::status(status), times); }
  /// The next `times` requests that contain `part` in "METHOD /path?query" meet the fault; all of them if `times` is 0.
  /// It replaces the earlier fault of the same `part`; of several that match, the latest counts.
  void fail(const std::string& part, const Fault& fault, int times = 0);
  /// Ends all faults.
  void recover();

  /// Switches collection on or off for the application. The library sees it at its next launch.
  void setEnabled(bool enabled);
  /// Sets the lists of event names: client events, aggregates, and ignored ones.
  void setLists(const Array& client, const Array& aggregate, const Array& ignored);
  /// Sets one member of the configuration, such as "max_fg_chunk_send_time".
  void configure(const std::string& key, const Value& value);

  /// Returns the requests that arrived, as "METHOD /path?query", in order. Waits for the library's work under way.
  [[nodiscard]] std::vector<std::string> requests() const;
  /// Returns the chunks that the service has accepted, each once, in the order of their arrival. Waits in the same way.
  [[nodiscard]] std::vector<Dictionary> chunks() const;

 private:
  friend class Recorder;
  explicit Service(Recording& recording) : recording_(&recording) {}
  Recording* recording_;
};

/// Runs the library for one test: a fresh home in a temporary directory (in TMPDIR, else /dev/shm), a service in this
/// process, and a clock that begins at noon of 1 January 2026 (UTC). Its end leaves no thread, no file and no state
/// behind.
///
/// One recorder lives at a time. Call its functions on the thread that made it, and not in a callback of the library.
/// The library's own functions may be called anywhere. The recorder's functions throw `std::logic_error` for a wrong
/// use, and `std::runtime_error` if the library is still at work after a minute. The environment does not steer the
/// library, but for KELVO_LOG and KELVO_BUNDLE.
class Recorder {
 public:
  struct NotStarted {};

  /// Starts the library, and waits until it is ready. An empty `appId` becomes "test". `home`, `serverBaseURL` and
  /// `caFile` have no effect. Throws `std::logic_error` if another recorder lives.
  explicit Recorder(Options options = Options());
  /// Leaves the start to the code under test.
  explicit Recorder(NotStarted notStarted);
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;
  ~Recorder();

  /// Returns whether the host has logged an event or an error of this name with at least these attributes.
  [[nodiscard]] Result logged(const std::string& name, const Dictionary& attributes = {}) const;
  /// Returns the names of the events and the errors that the host has logged, in order.
  [[nodiscard]] std::vector<std::string> events() const;
  /// Returns the names of the screens that were shown, in order: their titles, else their classes.
  [[nodiscard]] std::vector<std::string> screens() const;
  /// Returns all calls of the host that carry data, of all launches, in order.
  [[nodiscard]] std::vector<Call> calls() const;
  /// Returns how many events of this name the service has accepted: application events, errors (by their text),
  /// FOREGROUND and BACKGROUND, screens, and the counts of aggregates.
  [[nodiscard]] int delivered(const std::string& name) const;
  [[nodiscard]] Service& service() noexcept { return service_; }

  /// Moves the clock. What becomes due meanwhile happens in order, each at its own time, and with all its consequences.
  void advance(std::chrono::nanoseconds time);
  [[nodiscard]] Date now() const;
  /// Waits until the library has done all its work but timers. The functions above do so themselves.
  void settle() const;

  /// Ends the process's use of the library as an exit does, and begins the next launch, a second later, in the same
  /// home. The library starts again if the recorder has started it.
  void relaunch();
  /// Does the same, but runs `code` in a launch that is killed (SIGKILL) as soon as `code` returns. It is a launch of
  /// its own, in a child process: changes of variables stay there, and so do its calls. What it delivers counts here.
  /// Throws `std::runtime_error` if `code` throws or ends the process.
  void killed(const std::function<void()>& code);

  /// Returns the path of the home.
  [[nodiscard]] const std::string& home() const noexcept;

 private:
  std::unique_ptr<Recording> recording_;
  Service service_;
};

}  // namespace kelvo::testing
