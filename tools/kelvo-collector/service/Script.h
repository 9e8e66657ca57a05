#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelvo::collector {

/// What the service does instead of answering as it should.
///
/// Only `late` and `losingTheAnswer` let the service do its work; with every other script nothing that the request
/// carries is accepted, whatever status is answered.
class Script {
 public:
  enum class Kind : std::uint8_t { Answer, Late, Never, Cut, CutShort, LoseAnswer };

  /// Answers `status` with `body`, untouched.
  Script(int status, std::string body = "{}") : status_(status), body_(std::move(body)) {}
  /// Answers as it should, after `delay`.
  static Script late(std::chrono::milliseconds delay);
  /// Keeps the request until the client gives up or the server stops.
  static Script never() { return Script(Kind::Never); }
  /// Resets the connection without a byte of an answer.
  static Script cut() { return Script(Kind::Cut); }
  /// Announces more bytes than it sends, then closes the connection.
  static Script cutShort(int status = 200);
  /// Answers 200 with bytes that are no JSON.
  static Script garbage();
  /// Takes the request (and stores the chunk), then resets the connection.
  static Script losingTheAnswer() { return Script(Kind::LoseAnswer); }
  /// The same script, `delay` later; for scripts that give an answer.
  [[nodiscard]] Script after(std::chrono::milliseconds delay) const;
  /// The same script for the next `count` requests only; for good when it is 0.
  [[nodiscard]] Script times(std::size_t count) const;

  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  /// Whether the service does its work, and whether the client gets a whole answer.
  [[nodiscard]] bool serves() const noexcept { return kind_ == Kind::Late || kind_ == Kind::LoseAnswer; }
  [[nodiscard]] bool answers() const noexcept { return kind_ == Kind::Answer || kind_ == Kind::Late; }
  [[nodiscard]] int status() const noexcept { return status_; }
  [[nodiscard]] const std::string& body() const noexcept { return body_; }
  [[nodiscard]] std::chrono::milliseconds delay() const noexcept { return delay_; }
  /// Requests that it is still for; 0 for good.
  [[nodiscard]] std::size_t left() const noexcept { return left_; }

 private:
  friend class ScriptBook;
  explicit Script(Kind kind) noexcept : kind_(kind) {}

  Kind kind_ = Kind::Answer;
  int status_ = 200;
  std::string body_;
  std::chrono::milliseconds delay_{0};
  std::size_t left_ = 0;  // 0: for good
};

/// Which script the next request follows. Safe to use from any thread.
class ScriptBook {
 public:
  using Entries = std::list<std::pair<std::string, std::deque<Script>>>;

  /// The scripts in turn for requests that contain `fragment`, in place of those set for it before; none to end it.
  void set(const std::string& fragment, std::vector<Script> scripts);
  /// The script for a request of `target`, used up by one; nullopt to answer normally.
  [[nodiscard]] std::optional<Script> take(const std::string& target);
  void clear();
  /// Fragments and their scripts; the fragment set last comes first.
  [[nodiscard]] Entries entries() const;

 private:
  mutable std::mutex mutex_;
  Entries entries_;
};

}  // namespace kelvo::collector
