#include "sqlite/FMKLVHandle.h"

#include <sqlite3.h>

#include <chrono>
#include <utility>

#include "platform/Thread.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

// The sleep before the next attempt to get a lock, in milliseconds.
constexpr int kShortestSleep = 50;
constexpr unsigned int kSleepVariation = 50;

}  // namespace

bool FMKLVHandle::open(const char* path, std::optional<int> flags) {
  forgetFailure();
  sqlite3* handle = nullptr;
  const int code = flags ? sqlite3_open_v2(path, &handle, *flags, nullptr) : sqlite3_open(path, &handle);
  if (code != SQLITE_OK) {
    KLV_ERROR("error opening!: {}", code);
    keepFailure({"FMDatabase", code, sqlite3_errmsg(handle)});
    sqlite3_close(handle);  // SQLite also makes a handle when it fails
    return false;
  }
  handle_ = handle;
  if (maxBusyRetryTimeInterval_ > 0) setMaxBusyRetryTimeInterval(maxBusyRetryTimeInterval_);
  return true;
}

void FMKLVHandle::close() {
  forgetFailure();
  sqlite3* handle = std::exchange(handle_, nullptr);
  if (handle == nullptr || inForkedChild()) return;
  int code = sqlite3_close(handle);
  if (code == SQLITE_BUSY || code == SQLITE_LOCKED) {
    while (sqlite3_stmt* leaked = sqlite3_next_stmt(handle, nullptr)) {
      KLV_DEBUG("Closing leaked statement");
      sqlite3_finalize(leaked);
    }
    code = sqlite3_close(handle);
  }
  if (code != SQLITE_OK) KLV_ERROR("error closing!: {}", code);
}

void FMKLVHandle::setMaxBusyRetryTimeInterval(double seconds) {
  maxBusyRetryTimeInterval_ = seconds;
  if (!isOpen()) return;
  if (seconds > 0) {
    sqlite3_busy_handler(handle_, &FMKLVHandle::busyHandler, this);
  } else {
    sqlite3_busy_handler(handle_, nullptr, nullptr);
  }
}

/// Returns 1 to make SQLite try again, or 0 to give up. `count` is the number of earlier calls for the same lock.
int FMKLVHandle::busyHandler(void* handle, int count) {
  auto& self = *static_cast<FMKLVHandle*>(handle);
  if (count == 0) {
    self.startBusyRetryTime_ = Clock::monotonic();
    return 1;
  }
  const std::chrono::duration<double> waited = Clock::monotonic() - self.startBusyRetryTime_;
  if (waited.count() >= self.maxBusyRetryTimeInterval_) return 0;

  // A random sleep, so that two connections that wait for each other's lock do not retry at the same moments.
  unsigned int random = 0;
  sqlite3_randomness(sizeof random, &random);
  const int requested = kShortestSleep + static_cast<int>(random % kSleepVariation);
  const int slept = sqlite3_sleep(requested);
  if (slept != requested) {
    KLV_WARN(
        "WARNING: Requested sleep of {} milliseconds, but SQLite returned {}. Maybe SQLite wasn't built with "
        "HAVE_USLEEP=1?",
        requested, slept);
  }
  return 1;
}

void FMKLVHandle::noteFailure(int code) {
  if (code == sqlite3_errcode(handle_) && code < SQLITE_ROW) return;
  keepFailure({"FMDatabase", code, sqlite3_errstr(code)});
}

void FMKLVHandle::keepFailure(FMKLVError failure) {
  failure_ = std::move(failure);
}

std::string FMKLVHandle::message() const {
  if (failure_) return failure_->message;
  return isOpen() ? sqlite3_errmsg(handle_) : "";
}

int FMKLVHandle::code() const noexcept {
  if (failure_) return failure_->code;
  return isOpen() ? sqlite3_errcode(handle_) : SQLITE_OK;
}

bool hasOpenTransaction(sqlite3* handle) noexcept {
  return handle != nullptr && sqlite3_get_autocommit(handle) == 0;
}

}  // namespace kelvo
