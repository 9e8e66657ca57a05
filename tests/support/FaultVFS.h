#pragma once

namespace kelvo::test {

/// A SQLite VFS in front of the disk that makes operations fail. While the object lives, every database that this
/// process opens uses it. All files must be closed before it is destroyed. Only one object may exist at a time.
///
/// A failing write first writes half of its content, as on a disk that becomes full.
class FaultVFS {
 public:
  enum class Operation { open, read, write, sync, remove, mapSharedMemory };
  enum class Persistence { once, forEver };

  FaultVFS();
  ~FaultVFS();
  FaultVFS(const FaultVFS&) = delete;
  FaultVFS& operator=(const FaultVFS&) = delete;

  /// Makes the `number`th such operation from now on fail (1: the next operation), and with `forEver` all later ones.
  void fail(Operation operation, Persistence persistence, int number);
  /// Makes the disk work again. Returns the number of operations that failed since `fail`.
  int heal();
};

}  // namespace kelvo::test
