// Fuzzes the bodies of chunks: the collector stores each body that it accepts, and can then list it.

#include "Fuzzing.h"
#include "kelvo-collector/debug/Events.h"
#include "kelvo-collector/debug/Listings.h"
#include "kelvo-collector/debug/Problems.h"
#include "kelvo-collector/store/Store.h"
#include "kelvo-service/ChunkValidation.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  using namespace kelvo::fuzz;
  static collector::Store* const store = new collector::Store(":memory:", 4 << 20);
  collector::ReceivedRequest request;
  request.body.assign(reinterpret_cast<const char*>(bytes), size);
  const auto body = parseJSON(request.body);
  if (!body || service::faultOfChunk(*body)) return 0;
  require(store->add(request, "app"), "an accepted chunk is stored");
  store->read([](auto& database) {
    for (const Dictionary& all : {collector::listSessions(database, 0, 10), collector::listEvents(database, {}),
                                  collector::listProblems(database, {}), collector::counts(database)}) {
      requireRoundTrip(all);
    }
    return 0;
  });
  return 0;
}
