#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kelvo-server/Server.h"
#include "support/Eventually.h"

namespace kelvo::test {

/// The answer to a request, status 0 if there was none.
struct HTTPAnswer {
  int status = 0;
  int retryAfter = 0;  ///< seconds, 0 without the header
  std::string body;
};

struct HTTPOptions {
  std::string method = "POST";
  std::vector<std::string> headers = {};
  std::string trustedCertificate = {};  ///< file; makes the request one of HTTPS
};

/// Sends a request to 127.0.0.1. An empty method and body mean GET.
[[nodiscard]] HTTPAnswer send(int port, const std::string& path, const std::string& body,
                              const HTTPOptions& options = {});
[[nodiscard]] HTTPAnswer get(int port, const std::string& path);

/// Returns the connection string of the tests' database. Throws std::runtime_error without one.
[[nodiscard]] std::string database();
/// Runs SQL in the database of the tests. Returns the first field of the first row, empty without rows.
std::string sql(const std::string& text);

/// Runs scripts/postgres with `command`, "kill" or "start".
void postgres(const std::string& command);

/// A chunk of a session whose id begins with its device's id.
struct ChunkBody {
  std::string device = "D";
  int number = 1;
  int events = 2;
  std::string event = "Purchase";  ///< name of the events
  std::string attributes = "{}";   ///< of the user, JSON
  int ratings = 0;                 ///< count of an aggregate, 0 for none
  std::string session = {};        ///< id, made from the device's if it is empty

  [[nodiscard]] std::string text() const;
};
[[nodiscard]] std::string userInfo(const std::string& device);

/// Runs `work(i)` for i from 0 to `count` - 1, each on a thread of its own.
void inParallel(int count, const std::function<void(int)>& work);

/// Servers on the private PostgreSQL of this test program. Each test has an application of its own.
class ServerTest : public testing::Test {
 protected:
  ServerTest();

  /// Starts a server with these flags, and waits until it is ready. A --database among them counts.
  server::Server& start(const std::vector<std::string>& flags = {});
  /// Sends the chunk until it is accepted, at most for 30 s. Returns false if it never was.
  [[nodiscard]] bool deliver(const std::vector<int>& ports, const ChunkBody& chunk) const;
  [[nodiscard]] HTTPAnswer post(int port, const std::string& body, const HTTPOptions& options = {}) const {
    return send(port, chunks, body, options);
  }
  /// Returns count(*) of `table` with the condition `where`, for the application of the test.
  [[nodiscard]] int count(const std::string& table, const std::string& where = "true") const;
  /// Returns the value of a metric of the application.
  [[nodiscard]] int metric(const server::Server& of, const std::string& name) const;

  const std::string app;
  const std::string chunks;  ///< path
  std::vector<std::unique_ptr<server::Server>> servers;
};

}  // namespace kelvo::test
