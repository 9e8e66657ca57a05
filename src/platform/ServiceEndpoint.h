#pragma once

#include <string>

namespace kelvo {

/// Where the service is, read once when the image is loaded; nothing changes it afterwards.
struct ServiceEndpoint {
  /// `KELVO_SERVER_BASE_URL` of the environment, else "KelvoServerBaseURL" of `Info.plist`, else the build's
  /// own; empty when none is given. No trailing slash.
  std::string baseURL;
  /// "KelvoCAFile" of `Info.plist`: a file of trusted authorities in place of the system's; empty without.
  std::string caFile;

  static const ServiceEndpoint& shared();
};

}  // namespace kelvo
