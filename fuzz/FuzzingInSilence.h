#pragma once

#include "Fuzzing.h"

// For a fuzzer that needs no home. Include it in the fuzzer's only source.

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelvo::fuzz::silenceLog();
  return 0;
}
