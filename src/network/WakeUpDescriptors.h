#pragma once

#include <array>

namespace kelvo {

/// Finds the socket pair through which a curl multi handle wakes itself up, and sets close-on-exec on it.
///
/// A program that the host starts would inherit the pair, and curl hides it. We guess its descriptors (the next two
/// free ones) and confirm by the one byte waiting between them. If another thread has taken one of the numbers
/// meanwhile, the pair keeps its flags.
class WakeUpDescriptors {
 public:
  /// Guesses the pair. Call it right before `curl_multi_init`.
  WakeUpDescriptors();

  /// Sets close-on-exec on the pair if the guess is confirmed. Call it after one `curl_multi_wakeup`, which sends the
  /// byte, and before the handle polls, which reads it.
  void closeOnExec() const;

 private:
  [[nodiscard]] bool isConfirmed() const;

  std::array<int, 2> guess_{-1, -1};  ///< the reading end, the writing end; -1 if no descriptor is free
};

}  // namespace kelvo
