#pragma once

#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <string_view>

namespace kelvo {

/// Standard error, opened for one batch of lines.
///
/// If the host closes standard error, the next file that the process opens gets its number, for example a database.
/// Therefore lines are written only if the descriptor is still the file of the start, or a file to which any process
/// may add lines: a terminal or another device, a pipe, a file opened for appending.
class KLVStandardError {
 public:
  struct Identity {
    bool isOpen = false;
    struct stat facts {};
  };
  [[nodiscard]] static Identity identity();

  /// `atStart`: the identity when the process started.
  explicit KLVStandardError(const Identity& atStart);
  KLVStandardError(const KLVStandardError&) = delete;
  KLVStandardError& operator=(const KLVStandardError&) = delete;
  ~KLVStandardError();

  /// Waits until the reader takes at least PIPE_BUF bytes. Returns false if it does not within `limit`; without a
  /// limit, waits for ever.
  [[nodiscard]] bool waitForRoom(std::optional<std::chrono::milliseconds> limit) const;

  /// Without `waits`, drops the rest of `text` as soon as the thread would have to wait for the reader.
  void write(std::string_view text, bool waits) const;

 private:
  [[nodiscard]] bool takesLines(const Identity& atStart) const;

  int own_ = -1;     // the duplicate, -1 if there is none
  int target_ = -1;  // where lines are written, -1 for nowhere
};

}  // namespace kelvo
