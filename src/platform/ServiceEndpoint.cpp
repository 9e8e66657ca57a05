#include "platform/ServiceEndpoint.h"

#include <cstdlib>

#include "platform/Bundle.h"
#include "platform/Immortal.h"

namespace kelvo {
namespace {

std::string textOfInfo(std::string_view key) {
  const auto* text = Bundle::main().infoDictionary()[key].get<std::string>();
  return text == nullptr ? std::string() : *text;
}

std::string findBaseURL() {
  const char* environment = ::secure_getenv("KELVO_SERVER_BASE_URL");
  std::string url = environment == nullptr ? "" : environment;
  if (url.empty()) url = textOfInfo("KelvoServerBaseURL");
  if (url.empty()) url = KELVO_SERVER_BASE_URL;
  while (!url.empty() && url.back() == '/') url.pop_back();
  return url;
}

}  // namespace

const ServiceEndpoint& ServiceEndpoint::shared() {
  static Immortal<ServiceEndpoint> instance(ServiceEndpoint{findBaseURL(), textOfInfo("KelvoCAFile")});
  return *instance;
}

}  // namespace kelvo
