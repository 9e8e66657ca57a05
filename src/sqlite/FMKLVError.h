#pragma once

#include <string>

namespace kelvo {

/// The reason why a call of the SQLite layer failed.
struct FMKLVError {
  std::string domain = "FMDatabase";
  int code = 0;  ///< SQLite's result code
  std::string message;
};

}  // namespace kelvo
