#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "Fuzzing.h"
#include "platform/Files.h"

// For a fuzzer whose inputs use the home. Include it in the fuzzer's only source.

namespace kelvo::fuzz {

/// Makes a home in memory, which is removed at exit. Returns false on failure.
inline bool makeHome() {
  std::error_code error;
  const bool inMemory = std::filesystem::is_directory("/dev/shm", error);
  static std::string home = inMemory ? "/dev/shm/kelvo-fuzz-XXXXXX" : "/tmp/kelvo-fuzz-XXXXXX";
  if (mkdtemp(home.data()) == nullptr) return false;
  std::atexit([] {
    std::error_code inUse;
    std::filesystem::remove_all(home, inUse);
  });
  return setenv("KELVO_HOME", home.c_str(), 1) == 0 && makeDirectory(home + "/Library", true);
}

}  // namespace kelvo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelvo::fuzz::silenceLog();
  return kelvo::fuzz::makeHome() ? 0 : 1;
}
