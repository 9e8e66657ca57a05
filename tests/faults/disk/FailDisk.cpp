// Preloaded into a program: makes SQLite's disk operations fail. KELVO_TEST_DISK consists of four fields: the kind of
// operation (a number of `FaultVFS::Operation`), 1 to fail all later ones too, which operation fails first (from 1),
// and the path of a file that receives the number of failures.

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
    vfs = new FaultVFS;  // never destroyed: the program may close its database later
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
