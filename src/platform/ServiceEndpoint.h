#pragma once

#include <string>

namespace kelvo {

/// The address of the service and its trust anchor. Read once when the library is loaded, and constant afterwards.
struct ServiceEndpoint {
  /// `KELVO_SERVER_BASE_URL` of the environment, else "KelvoServerBaseURL" of `Info.plist`, else the build's default.
  /// Empty if none of them is set. No trailing slash.
  std::string baseURL;
  /// "KelvoCAFile" of `Info.plist`: a file of certificate authorities that replaces the system's. Empty if not set.
  std::string caFile;

  static const ServiceEndpoint& shared();
};

}  // namespace kelvo
