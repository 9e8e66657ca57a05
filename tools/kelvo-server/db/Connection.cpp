#include "kelvo-server/db/Connection.h"

#include <fcntl.h>
#include <libpq-fe.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <exception>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include "kelvo-server/db/Blocking.h"
#include "kelvo-server/loop/Loop.h"

namespace kelvo::server::db {
namespace {

namespace asio = boost::asio;
using Error = boost::system::error_code;
using Descriptor = asio::posix::stream_descriptor;

constexpr std::chrono::seconds kLongestConnect{10};

/// A connection that a thread of its own makes, because libpq looks up host names and reads files of keys meanwhile.
/// Both sides share it. The one that leaves last closes a connection that nobody took.
struct Attempt {
  explicit Attempt(const std::string& database) : connect([database] { return db::connect(database); }) {}
  ~Attempt() { ::close(ended); }
  std::packaged_task<Handle()> connect;
  std::future<Handle> connection = connect.get_future();
  const int ended = ::eventfd(0, EFD_CLOEXEC);  // readable once the future is ready
};

std::string nameOf(std::size_t statement) {
  return "s" + std::to_string(statement);
}

Failure failureOf(const PGresult* result) {
  const char* state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
  return {state == nullptr ? "" : state, PQresultErrorMessage(result)};
}

}  // namespace

struct Connection::Impl : std::enable_shared_from_this<Impl> {
  Impl(Loop& theLoop, std::string theDatabase, std::span<const char* const> theStatements)
      : database(std::move(theDatabase)),
        statements(theStatements),
        descriptor(theLoop.context()),
        deadline(theLoop.context()) {}
  ~Impl() { close(); }

  void connect();
  void take(std::future<Handle>& made);
  void watch(int original);
  void prepare();
  void send(const Query& query);
  void flush();
  void read();
  void consume();
  void take(PGresult* result);
  void endBatch();
  void fail(const std::string& message) { fail(Failure{"", message}); }
  void fail(const Failure& failure);
  void close();
  void limitTime(std::chrono::seconds most);

  const std::string database;
  const std::span<const char* const> statements;
  PGconn* connection = nullptr;
  Descriptor descriptor;
  asio::steady_timer deadline;
  std::function<void(std::optional<Failure>)> opened;  // null once it is called
  std::function<void()> lost;
  std::function<void()> notified;
  Done done;  // of the batch that runs, else null
  Outcome outcome;
  bool isReady = false;
  bool isFlushing = false;
};

void Connection::Impl::connect() {
  limitTime(kLongestConnect);
  const auto attempt = std::make_shared<Attempt>(database);
  watch(attempt->ended);
  descriptor.async_wait(Descriptor::wait_read, [self = shared_from_this(), attempt](Error error) {
    if (!error && self->opened) self->take(attempt->connection);
  });
  try {
    // Detached: it must not hold up the end of the program, and it uses nothing but the attempt.
    std::thread([attempt] {
      attempt->connect();
      ::eventfd_write(attempt->ended, 1);
    }).detach();
  } catch (const std::system_error& error) {
    fail(error.what());
  }
}

void Connection::Impl::take(std::future<Handle>& made) {
  try {
    connection = made.get().release();
  } catch (const std::exception& error) {
    return fail(error.what());
  }
  prepare();
}

/// The loop watches a copy of the descriptor: libpq closes its own when the connection breaks, and another thread may
/// get the same number before the loop forgets it.
void Connection::Impl::watch(int original) {
  Error ignored;
  if (descriptor.is_open()) static_cast<void>(descriptor.close(ignored));
  const int copy = ::fcntl(original, F_DUPFD_CLOEXEC, 0);
  if (copy >= 0) static_cast<void>(descriptor.assign(copy, ignored));  // else the waits fail
}

void Connection::Impl::prepare() {
  watch(PQsocket(connection));
  if (PQsetnonblocking(connection, 1) != 0 || PQenterPipelineMode(connection) != 1) {
    return fail(PQerrorMessage(connection));
  }
  for (std::size_t i = 0; i < statements.size(); ++i) {
    if (PQsendPrepare(connection, nameOf(i).c_str(), statements[i], 0, nullptr) != 1) {
      return fail(PQerrorMessage(connection));
    }
  }
  done = [this](Outcome prepared) {
    if (prepared.failure) return fail(*prepared.failure);
    isReady = true;
    if (auto call = std::exchange(opened, nullptr)) call(std::nullopt);
  };
  if (PQpipelineSync(connection) != 1) return fail(PQerrorMessage(connection));
  read();
  flush();
}

void Connection::Impl::send(const Query& query) {
  std::vector<const char*> values;
  std::vector<int> lengths;
  for (const Parameter& each : query.parameters) {
    values.push_back(each ? each->data() : nullptr);
    lengths.push_back(each ? static_cast<int>(each->size()) : 0);
  }
  const std::vector<int> formats(values.size(), 1);
  // The connection is dead if this fails; the next read notices.
  static_cast<void>(PQsendQueryPrepared(connection, nameOf(query.statement).c_str(), static_cast<int>(values.size()),
                                        values.data(), lengths.data(), formats.data(), 0));
}

void Connection::Impl::flush() {
  if (isFlushing || connection == nullptr) return;
  const int left = PQflush(connection);
  if (left < 0) return fail(PQerrorMessage(connection));
  if (left == 0) return;
  isFlushing = true;
  descriptor.async_wait(Descriptor::wait_write, [self = shared_from_this()](Error error) {
    self->isFlushing = false;
    if (!error) self->flush();
  });
}

void Connection::Impl::read() {
  descriptor.async_wait(Descriptor::wait_read, [self = shared_from_this()](Error error) {
    if (error || self->connection == nullptr) return;
    if (PQconsumeInput(self->connection) != 1) return self->fail(PQerrorMessage(self->connection));
    self->consume();
    if (self->connection == nullptr) return;
    self->flush();
    if (self->connection != nullptr) self->read();
  });
}

void Connection::Impl::consume() {
  bool hasNews = false;
  while (PGnotify* notification = PQnotifies(connection)) {
    PQfreemem(notification);
    hasNews = true;
  }
  if (hasNews && notified) notified();
  // A null result ends the results of one query; two in a row mean that nothing is left.
  for (bool wasNull = false; connection != nullptr && done && PQisBusy(connection) == 0;) {
    PGresult* result = PQgetResult(connection);
    if (result == nullptr && std::exchange(wasNull, true)) break;
    if (result == nullptr) continue;
    wasNull = false;
    take(result);
  }
  if (connection != nullptr && PQstatus(connection) == CONNECTION_BAD) fail(PQerrorMessage(connection));
}

void Connection::Impl::take(PGresult* result) {
  Rows rows(result);
  switch (PQresultStatus(result)) {
    case PGRES_COMMAND_OK:
    case PGRES_TUPLES_OK: outcome.rows.push_back(std::move(rows)); break;
    case PGRES_PIPELINE_ABORTED: break;
    case PGRES_PIPELINE_SYNC: endBatch(); break;
    default:
      if (!outcome.failure) outcome.failure = failureOf(result);
      if (outcome.failure->isLoss()) fail(outcome.failure->message);
  }
}

void Connection::Impl::endBatch() {
  deadline.cancel();
  // The callback may start the next batch.
  const Done call = std::exchange(done, nullptr);
  Outcome ended = std::exchange(outcome, {});
  if (call) call(std::move(ended));
}

void Connection::Impl::fail(const Failure& reason) {
  const auto self = shared_from_this();  // a callback may release the connection
  const bool wasReady = isReady;
  const Failure failure = reason;
  close();
  const Done call = std::exchange(done, nullptr);
  const auto callOpened = std::exchange(opened, nullptr);
  outcome = {};
  if (callOpened) return callOpened(failure);
  if (wasReady && lost) lost();
  if (call) call({{}, failure});
}

void Connection::Impl::close() {
  isReady = false;
  deadline.cancel();
  Error ignored;
  if (descriptor.is_open()) static_cast<void>(descriptor.close(ignored));
  if (connection != nullptr) PQfinish(std::exchange(connection, nullptr));
}

void Connection::Impl::limitTime(std::chrono::seconds most) {
  deadline.expires_after(most);
  deadline.async_wait([weak = weak_from_this()](Error error) {
    const auto self = weak.lock();
    if (!error && self && (self->connection != nullptr || self->opened))
      self->fail("the database did not answer in time");
  });
}

Connection::Connection(Loop& loop, std::string database, std::span<const char* const> statements)
    : impl_(std::make_shared<Impl>(loop, std::move(database), statements)) {}

Connection::~Connection() {
  impl_->opened = nullptr;
  impl_->lost = nullptr;
  impl_->done = nullptr;
  impl_->notified = nullptr;
  impl_->close();
}

void Connection::open(std::function<void(std::optional<Failure>)> done, std::function<void()> lost) {
  impl_->opened = std::move(done);
  impl_->lost = std::move(lost);
  impl_->connect();
}

void Connection::setNotified(std::function<void()> notified) {
  impl_->notified = std::move(notified);
}

bool Connection::isReady() const noexcept {
  return impl_->isReady;
}

void Connection::run(std::vector<Query> queries, Done done) {
  if (!impl_->isReady) return done({{}, Failure{"", "the connection is closed"}});
  impl_->done = std::move(done);
  impl_->limitTime(kLongestBatch);
  for (const Query& query : queries) impl_->send(query);
  static_cast<void>(PQpipelineSync(impl_->connection));
  impl_->flush();
}

}  // namespace kelvo::server::db
