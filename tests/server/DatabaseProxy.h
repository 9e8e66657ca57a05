#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kelvo::test {

/// The host that the proxy's connection string names. Look-ups of it stop while a `DeadNameServer` exists.
inline constexpr const char* kSlowHost = "database.test";

/// While it exists, look-ups of `kSlowHost` in this process get no answer.
class DeadNameServer {
 public:
  DeadNameServer();
  ~DeadNameServer();
  /// Returns the number of threads that wait for an answer.
  [[nodiscard]] static int waiting();
};

/// Forwards connections from a port to the PostgreSQL of the tests, with a `word` of the client replaced by one of
/// equal length.
class DatabaseProxy {
 public:
  explicit DatabaseProxy(std::string word = "-", std::string replacement = "-");
  ~DatabaseProxy();
  DatabaseProxy(const DatabaseProxy&) = delete;
  DatabaseProxy& operator=(const DatabaseProxy&) = delete;

  /// Returns the connection string.
  [[nodiscard]] std::string database() const;
  /// Breaks all connections. New ones are accepted.
  void cut();

 private:
  void accept();
  void pump(int from, int to);

  const std::string word_, replacement_;
  int listener_ = -1;
  int port_ = 0;
  std::mutex mutex_;
  std::vector<int> sockets_;
  std::vector<std::thread> pumps_;
  std::thread acceptor_;
};

}  // namespace kelvo::test
