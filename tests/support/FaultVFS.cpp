#include "support/FaultVFS.h"

#include <sqlite3.h>

#include <algorithm>
#include <forward_list>
#include <optional>

#include "platform/ThreadSafety.h"

namespace kelvo::test {
namespace {

using Operation = FaultVFS::Operation;

/// The failing methods of one kind of file, and the disk's own methods. Databases and journals have different kinds.
struct Methods {
  sqlite3_io_methods failing{};  // first, so that a file's method pointer also points to this object
  const sqlite3_io_methods* disks = nullptr;
};

/// The global state of the shim, because SQLite calls plain C functions.
struct Plan {
  Mutex mutex;
  std::optional<Operation> operation GUARDED_BY(mutex);  // the failing operation
  int left GUARDED_BY(mutex) = 0;                        // operations until the first failure
  bool forEver GUARDED_BY(mutex) = false;
  int failures GUARDED_BY(mutex) = 0;
  std::forward_list<Methods> methods GUARDED_BY(mutex);  // one for each kind; files keep their addresses
  sqlite3_vfs* disk = nullptr;
  sqlite3_vfs shim{};
};
Plan& plan() {
  static Plan& instance = *new Plan;  // never destroyed: a database may be closed during exit
  return instance;
}

bool fails(Operation operation) {
  Plan& current = plan();
  const Lock lock(current.mutex);
  if (current.operation != operation || --current.left > 0) return false;
  if (!current.forEver && current.left < 0) return false;
  ++current.failures;
  return true;
}

const sqlite3_io_methods& methodsOf(const sqlite3_file* file) {
  return *reinterpret_cast<const Methods*>(file->pMethods)->disks;
}

int readFile(sqlite3_file* file, void* into, int count, sqlite3_int64 offset) {
  return fails(Operation::read) ? SQLITE_IOERR_READ : methodsOf(file).xRead(file, into, count, offset);
}
int writeFile(sqlite3_file* file, const void* from, int count, sqlite3_int64 offset) {
  if (!fails(Operation::write)) return methodsOf(file).xWrite(file, from, count, offset);
  methodsOf(file).xWrite(file, from, count / 2, offset);
  return SQLITE_FULL;
}
int truncateFile(sqlite3_file* file, sqlite3_int64 size) {
  return fails(Operation::write) ? SQLITE_IOERR_TRUNCATE : methodsOf(file).xTruncate(file, size);
}
int syncFile(sqlite3_file* file, int flags) {
  return fails(Operation::sync) ? SQLITE_IOERR_FSYNC : methodsOf(file).xSync(file, flags);
}
int mapSharedMemory(sqlite3_file* file, int page, int pageSize, int extend, void volatile** memory) {
  if (fails(Operation::mapSharedMemory)) return SQLITE_IOERR_SHMMAP;
  return methodsOf(file).xShmMap(file, page, pageSize, extend, memory);
}

/// Replaces the methods of `file` that can fail. The others, for example locks, remain the disk's own.
void makeFailing(sqlite3_file* file) {
  Plan& current = plan();
  const Lock lock(current.mutex);
  for (const Methods& known : current.methods) {
    if (file->pMethods == known.disks) {
      file->pMethods = &known.failing;
      return;
    }
  }
  Methods& added = current.methods.emplace_front(Methods{*file->pMethods, file->pMethods});
  added.failing.iVersion = std::min(added.failing.iVersion, 2);  // no mapped reads, because we cannot make them fail
  added.failing.xRead = readFile;
  added.failing.xWrite = writeFile;
  added.failing.xTruncate = truncateFile;
  added.failing.xSync = syncFile;
  if (added.failing.xShmMap != nullptr) added.failing.xShmMap = mapSharedMemory;
  file->pMethods = &added.failing;
}

int openFile(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* granted) {
  file->pMethods = nullptr;  // nothing to close
  if (fails(Operation::open)) return SQLITE_CANTOPEN;
  const int code = plan().disk->xOpen(plan().disk, name, file, flags, granted);
  if (file->pMethods != nullptr) makeFailing(file);
  return code;
}
int removeFile(sqlite3_vfs*, const char* name, int syncDirectory) {
  return fails(Operation::remove) ? SQLITE_IOERR_DELETE : plan().disk->xDelete(plan().disk, name, syncDirectory);
}

}  // namespace

FaultVFS::FaultVFS() {
  Plan& current = plan();
  current.disk = sqlite3_vfs_find(nullptr);
  current.shim = *current.disk;  // operations without file content remain the disk's own
  current.shim.zName = "kelvo-fault";
  current.shim.xOpen = openFile;
  current.shim.xDelete = removeFile;
  sqlite3_vfs_register(&current.shim, 1);
}

FaultVFS::~FaultVFS() {
  heal();
  sqlite3_vfs_unregister(&plan().shim);
  sqlite3_vfs_register(plan().disk, 1);
}

void FaultVFS::fail(Operation operation, Persistence persistence, int number) {
  Plan& current = plan();
  const Lock lock(current.mutex);
  current.operation = operation;
  current.left = number;
  current.forEver = persistence == Persistence::forEver;
  current.failures = 0;
}

int FaultVFS::heal() {
  Plan& current = plan();
  const Lock lock(current.mutex);
  current.operation.reset();
  return current.failures;
}

}  // namespace kelvo::test
