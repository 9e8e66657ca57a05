#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/ThreadSafety.h"

namespace kelvo::collector {

/// A planned misbehaviour: it replaces or delays the service's normal answer to a request.
///
/// With `late` and `losingTheAnswer` the service processes the request as usual. With every other script it accepts
/// nothing that the request carries, whatever status it answers.
class Script {
 public:
  enum class Kind : std::uint8_t { Answer, Late, Never, Cut, CutShort, LoseAnswer };

  /// Answers with `status` and `body`.
  Script(int status, std::string body = "{}") : status_(status), body_(std::move(body)) {}
  /// Gives the normal answer after `delay`.
  static Script late(std::chrono::milliseconds delay);
  /// Never answers: holds the request until the client gives up or the server stops.
  static Script never() { return Script(Kind::Never); }
  /// Resets the connection before the first byte of an answer.
  static Script cut() { return Script(Kind::Cut); }
  /// Announces a longer body than it sends, then closes the connection.
  static Script cutShort(int status = kSuccess);
  /// Answers 200 with a body that is not JSON.
  static Script garbage();
  /// Answers 302 with `location` as the new target, as the login page of a public network does.
  static Script redirect(std::string location);
  /// Processes the request (stores the chunk), then resets the connection.
  static Script losingTheAnswer() { return Script(Kind::LoseAnswer); }
  /// Returns a copy that waits for `delay` first. For scripts that answer.
  [[nodiscard]] Script after(std::chrono::milliseconds delay) const;
  /// Returns a copy for the next `count` requests, or for all requests if `count` is 0.
  [[nodiscard]] Script times(std::size_t count) const;

  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  /// Returns true if the service processes the request.
  [[nodiscard]] bool serves() const noexcept { return kind_ == Kind::Late || kind_ == Kind::LoseAnswer; }
  /// Returns true if the client receives a complete answer.
  [[nodiscard]] bool answers() const noexcept { return kind_ == Kind::Answer || kind_ == Kind::Late; }
  [[nodiscard]] int status() const noexcept { return status_; }
  [[nodiscard]] const std::string& body() const noexcept { return body_; }
  /// Returns the target of a redirect, empty for any other script.
  [[nodiscard]] const std::string& location() const noexcept { return location_; }
  [[nodiscard]] std::chrono::milliseconds delay() const noexcept { return delay_; }
  /// Returns the number of requests that the script is still for, 0 for all requests.
  [[nodiscard]] std::size_t left() const noexcept { return left_; }

 private:
  friend class ScriptBook;
  explicit Script(Kind kind) noexcept : kind_(kind) {}

  static constexpr int kSuccess = 200;

  Kind kind_ = Kind::Answer;
  int status_ = kSuccess;
  std::string body_;
  std::string location_;
  std::chrono::milliseconds delay_{0};
  std::size_t left_ = 0;
};

/// Decides which script the next request follows. Thread-safe.
class ScriptBook {
 public:
  using Entries = std::list<std::pair<std::string, std::deque<Script>>>;

  /// Replaces the scripts for requests that contain `fragment` in "METHOD path?query". They are followed in order; an
  /// empty list brings back normal answers.
  void set(const std::string& fragment, std::vector<Script> scripts) EXCLUDES(mutex_);
  /// Returns the script for a request, "METHOD path?query", and counts that use; nullopt for a normal answer. If
  /// several fragments match, the one set last wins.
  [[nodiscard]] std::optional<Script> take(const std::string& request) EXCLUDES(mutex_);
  void clear() EXCLUDES(mutex_);
  /// Returns all fragments with their scripts, the fragment set last first.
  [[nodiscard]] Entries entries() const EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  Entries entries_ GUARDED_BY(mutex_);
};

}  // namespace kelvo::collector
