#pragma once

namespace kelvo {

/// While it lives, a write beyond the process's limit on the size of files (RLIMIT_FSIZE) fails on the calling thread
/// with an error. Without it, the kernel also sends SIGXFSZ, whose default action ends the process.
///
/// The library's own threads block that signal anyway, and the shield does nothing there. On a thread of the host, the
/// destructor takes the signal that a write has caused and restores the mask. A SIGXFSZ that was blocked before stays
/// blocked, and one that was pending stays pending.
class FileLimitShield {
 public:
  FileLimitShield() noexcept;
  FileLimitShield(const FileLimitShield&) = delete;
  FileLimitShield& operator=(const FileLimitShield&) = delete;
  ~FileLimitShield();

 private:
  bool isActive_ = false;
  bool wasBlocked_ = false;
  bool wasPending_ = false;
};

}  // namespace kelvo
