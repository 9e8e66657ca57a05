// Preloaded into a program, makes the disk below its SQLite fail as KELVO_TEST_DISK says: the number of the operation
// in `FaultVFS::Operation`, 1 for failing for ever after, which one is the first to fail, and a file for how many
// failed.

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "support/FaultVFS.h"

namespace kelvo::test {
namespace {

struct Disk {
  Disk() {
    const char* plan = std::getenv("KELVO_TEST_DISK");
    if (plan == nullptr) return;
    int operation = 0, forEver = 0, number = 0;
    std::istringstream(plan) >> operation >> forEver >> number >> report;
    vfs = new FaultVFS;  // never destroyed: the program closes its database when it likes
    vfs->fail(static_cast<FaultVFS::Operation>(operation),
              forEver != 0 ? FaultVFS::Persistence::forEver : FaultVFS::Persistence::once, number);
  }
  ~Disk() {
    if (vfs != nullptr) std::ofstream(report) << vfs->heal();
  }
  FaultVFS* vfs = nullptr;
  std::string report;
} const disk;

}  // namespace
}  // namespace kelvo::test
