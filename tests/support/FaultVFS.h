#pragma once

namespace kelvo::test {

/// Stands between SQLite and the disk, and makes the disk fail. While one lives, every database that this process opens
/// goes through it; files that are open when it dies must be closed by then. One at a time.
///
/// A write that fails is done by half first, as on a disk that fills up.
class FaultVFS {
 public:
  enum class Operation { open, read, write, sync, remove, mapSharedMemory };
  enum class Persistence { once, forEver };

  FaultVFS();
  ~FaultVFS();
  FaultVFS(const FaultVFS&) = delete;
  FaultVFS& operator=(const FaultVFS&) = delete;

  /// The `number`th such operation from now on fails (1: the next one), and all later ones with `forEver`.
  void fail(Operation operation, Persistence persistence, int number);
  /// The disk works again. Returns how many operations failed.
  int heal();
};

}  // namespace kelvo::test
