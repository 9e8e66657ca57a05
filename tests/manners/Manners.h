#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "road/Road.h"

namespace kelvo::test {

#if defined(__SANITIZE_THREAD__)
inline constexpr std::string_view kSanitizer = "thread";
#elif defined(__SANITIZE_ADDRESS__)
inline constexpr std::string_view kSanitizer = "address";
#else
inline constexpr std::string_view kSanitizer;
#endif

/// Where and how a program runs: what stands before it on the command line, and what is added to its environment.
struct Machine {
  Texts wrapper = {};
  Program::Environment environment = {};
};

/// Hosts of the shared library in processes of their own, and the collector in this one.
class Hosts : public Road {
 protected:
  /// The host that only knows the public headers; see host/main.cpp.
  Program host(const Machine& machine = {}) { return run({KELVO_MANNERS_HOST}, machine.environment, machine.wrapper); }

  /// Has the host play lines. It waits for the end of the start-up at `kStarted`, and where a line begins with "/", for
  /// a request to that path.
  void play(Program& host, const Texts& lines);
  static constexpr const char* kStarted = "initialized!";

  /// Ends the host's input and waits for its end.
  static void end(Program& host) {
    host.closeInput();
    EXPECT_EQ(host.wait(), 0) << host.errors();
  }

  /// Has `server` listen with a certificate for `names`, good for `days` from now on. The environment of a program that
  /// speaks to it, and trusts it or does not.
  static Program::Environment serveTLS(collector::Server& server, const std::string& names, int days, bool trusted);
  /// The bodies of all requests with a chunk.
  [[nodiscard]] std::string sent() const;
};

class Manners : public Hosts {
 protected:
  /// A forked child's leak check does not know the stacks of threads that stayed behind, and one sanitizer waits at
  /// exit.
  Machine machine{{}, {{"ASAN_OPTIONS", "detect_leaks=0"}, {"TSAN_OPTIONS", "atexit_sleep_ms=0"}}};
  Program host() { return Hosts::host(machine); }
};

/// The rest of every line of `text` that begins with `start`.
Texts linesAfter(const std::string& start, const std::string& text);

}  // namespace kelvo::test
