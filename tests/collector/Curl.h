#pragma once

#include <string>

#include "kelvo/Value.h"

namespace kelvo::test {

/// What the curl program made of a request: a client that has nothing in common with the server under test.
struct CurlResult {
  int exitCode = -1;  ///< 0, or curl's number for the transport error
  int status = 0;
  std::string body;

  [[nodiscard]] Dictionary json() const;
};

/// Runs curl with `arguments`, which a shell reads.
CurlResult curl(const std::string& arguments);

/// Posts `body` to `url`.
CurlResult post(const std::string& url, const std::string& body, const std::string& moreArguments = {});

}  // namespace kelvo::test
