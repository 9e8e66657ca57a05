#pragma once

namespace kelvo::c {

/// A call into the host's code: every callback of C is inside one. After `stop`, none begins
/// until `allow`.
///
///     if (const HostCall call; call.mayBegin()) callback(context);
///
/// Thread-safe.
class HostCall {
 public:
  HostCall() noexcept;
  ~HostCall();
  HostCall(const HostCall&) = delete;
  HostCall& operator=(const HostCall&) = delete;

  [[nodiscard]] bool mayBegin() const noexcept { return mayBegin_; }

  /// Blocks until all calls have ended, except those that the calling thread is in.
  static void stop() noexcept;
  /// Lets calls begin again, for the next launch in a test.
  static void allow() noexcept;

 private:
  const bool mayBegin_;
};

}  // namespace kelvo::c
