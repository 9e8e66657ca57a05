#include "platform/ServiceEndpoint.h"

#include <cstdlib>
#include <deque>
#include <utility>

#include "platform/Bundle.h"
#include "platform/Immortal.h"
#include "platform/ProcessWide.h"
#include "platform/ThreadSafety.h"

namespace kelvo {
namespace {

/// Returns the entry `key` of `Info.plist`, empty if it is missing. An entry that is no text is set, but malformed.
std::string textOfInfo(std::string_view key) {
  const Value& entry = Bundle::main().infoDictionary()[key];
  return entry.isNull() ? std::string() : description(entry);
}

/// Returns the variable's value at the first call.
const std::string& environmentURL() {
  static Immortal<std::string> url = [] {
    const char* value = ::secure_getenv("KELVO_SERVER_BASE_URL");
    return Immortal<std::string>(value == nullptr ? "" : value);
  }();
  return *url;
}

ServiceEndpoint found(std::string chosenURL, std::string chosenFile) {
  ServiceEndpoint endpoint{environmentURL(), std::move(chosenFile)};
  auto& url = endpoint.baseURL;
  if (url.empty()) url = std::move(chosenURL);
  if (url.empty()) url = textOfInfo("KelvoServerBaseURL");
  if (url.empty()) url = KELVO_SERVER_BASE_URL;
  while (url.size() > 1 && url.back() == '/') url.pop_back();  // "/" stays: it is set, but malformed
  if (endpoint.caFile.empty()) endpoint.caFile = textOfInfo("KelvoCAFile");
  return endpoint;
}

/// All endpoints of this process; the last one is the present one. The others stay, because a thread may use them.
struct Endpoints {
  Mutex mutex;
  std::deque<ServiceEndpoint> all GUARDED_BY(mutex) = {found({}, {})};
};

Endpoints& endpoints() {
  static ProcessWide<Endpoints> instance;
  return *instance;
}

}  // namespace

const ServiceEndpoint& ServiceEndpoint::shared() {
  Endpoints& known = endpoints();
  const Lock lock(known.mutex);
  return known.all.back();
}

void ServiceEndpoint::choose(std::string baseURL, std::string caFile) {
  Endpoints& known = endpoints();
  auto chosen = found(std::move(baseURL), std::move(caFile));
  const Lock lock(known.mutex);
  known.all.push_back(std::move(chosen));
}

}  // namespace kelvo
