#pragma once

#include <string>

namespace kelvo {

/// The address of the service and its trust anchor. Constant once the library has started. Thread-safe.
struct ServiceEndpoint {
  /// `KELVO_SERVER_BASE_URL` of the environment, else the host's choice, else "KelvoServerBaseURL" of `Info.plist`,
  /// else the build's default. Empty if none of them is set. No trailing slash. It may be malformed: then it is not a
  /// URL.
  std::string baseURL;
  /// The host's choice, else "KelvoCAFile" of `Info.plist`: a file of certificate authorities that replaces the
  /// system's. Empty if not set.
  std::string caFile;

  /// Returns the present endpoint; the reference stays valid. The first call, at load, reads the environment.
  static const ServiceEndpoint& shared();

  /// Sets the host's choice; an empty text chooses nothing. Requests that have begun keep the former endpoint.
  static void choose(std::string baseURL, std::string caFile);
};

}  // namespace kelvo
