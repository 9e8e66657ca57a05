#pragma once

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "road/Road.h"

namespace kelvo::test {

/// The conditions under which a program runs.
struct Machine {
  Texts wrapper = {};                     ///< command line before the program's, see `Road::run`
  Program::Environment environment = {};  ///< added to the environment
};

/// Tests with a host of the shared library, manners/host/main.cpp, as a child process. The test controls the host by
/// lines: "start", "background", the name of an event ...
class Hosts : public Road {
 protected:
  Program host(const Machine& machine = {}) { return run({KELVO_MANNERS_HOST}, machine.environment, machine.wrapper); }

  /// Sends `lines` to the host. Two kinds of line are not sent: at `kStarted` the test waits for the end of the
  /// start-up, and at a line that begins with "/" for a request to that path.
  void play(Program& host, const Texts& lines);
  static constexpr const char* kStarted = "initialized!";

  /// Ends the host's input, blocks until the host ends, and expects exit status 0.
  static void end(Program& host) {
    host.closeInput();
    EXPECT_EQ(host.wait(), 0) << host.errors();
  }

  /// Starts `server` with a self-signed certificate for `names` that is valid for `days`. Returns the environment of a
  /// program that uses this server; the program trusts the certificate if `trusted`.
  static Program::Environment serveTLS(collector::Server& server, const std::string& names, int days, bool trusted);
  /// Returns the bodies of all requests with a chunk, joined.
  [[nodiscard]] std::string sent() const;
};

/// Tests that the library is a good guest in its host's process.
class Manners : public Hosts {
 protected:
  /// Settings of the sanitizers. In a forked child, the leak check misses the stacks of the parent's other threads and
  /// reports false leaks. The thread sanitizer's pause at exit would spoil measured times.
  Machine machine{{},
                  {{"ASAN_OPTIONS", "detect_leaks=0"}, {"TSAN_OPTIONS", withoutPause(std::getenv("TSAN_OPTIONS"))}}};
  Program host() { return Hosts::host(machine); }

 private:
  static std::string withoutPause(const char* options) {
    return (options != nullptr ? std::string(options) + " " : "") + "atexit_sleep_ms=0";
  }
};

/// Returns the rest of each line of `text` that begins with `start`.
Texts linesAfter(const std::string& start, const std::string& text);

}  // namespace kelvo::test
