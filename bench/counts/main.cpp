// Runs one part of the library a fixed number of times, so that valgrind can count its instructions: those of `counted`
// and of everything that it calls. Prints the number of runs. With "key", prints what the counts depend on.
#include <sqlite3.h>

#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Attributes.h"
#include "Parts.h"
#include "storage/KLVCountCache.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVPersistantStore.h"
#include "storage/KLVSchema.h"
#include "upload/KLVChunkDetails.h"
#include "util/KLVSanitiser.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVWaitingCall.h"

namespace {

constexpr std::size_t kCalls = 2000;
constexpr std::size_t kEvents = 1000;
constexpr std::size_t kEventsPerTransaction = 100;

}  // namespace

/// Has a name that valgrind finds.
extern "C" [[gnu::noinline]] void counted(const std::function<void()>& work) {
  work();
}

namespace kelvo::bench {
namespace {

void run(std::size_t runs, const std::function<void(std::size_t number)>& work) {
  work(0);  // allocates what later runs use again
  counted([&] {
    for (std::size_t i = 1; i <= runs; ++i) work(i);
  });
  std::printf("%zu\n", runs);
}

/// The attributes of a call, as its caller makes and destroys them.
void makeAttributes() {
  run(kCalls, [](std::size_t number) { static_cast<void>(attributes(number)); });
}

/// A call's attributes on their way into the library: half of the calls have nothing to clean.
void clean() {
  const Dictionary good = attributes(1);
  Dictionary bad = good;
  bad.set("voucher", "");
  bad.set("address", Dictionary{{"city", "Rome"}, {"street", nullptr}});
  run(kCalls, [&](std::size_t number) {
    const auto taken = sanitisedAttributes(number % 2 == 0 ? good : bad);
    if (!taken.isClean) static_cast<void>(KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(taken.values));
  });
}

/// A call on its way through the queues: its data is coded on the caller's thread, and decoded when its turn comes.
void keepCall() {
  const Dictionary info = attributes(1);
  KLVWaitingCall::closeJournal();
  run(kCalls, [&](std::size_t number) {
    static_cast<void>(KLVWaitingCall::uncounted({.text = name(number), .info = &info}).attributes());
  });
}

/// A store with one session.
struct Session {
  std::string sid = freshSession();
  KLVPersistantStore store;
  KLVCountCache counts;

  Session() {
    store.createLifetimeEventsTable();
    store.createOwnTables();
  }
  /// Makes `count` events and stores them, with their lifetime counts, in one transaction.
  void add(std::size_t count) {
    std::vector<KLVPersistantStore::Job> jobs;
    for (std::size_t i = 0; i < count; ++i) {
      jobs.emplace_back([this, row = event(i)->jsonDict(), name = std::string(name(i))](KLVPersistantStore& to) {
        const bool isStored = insertEvent(to, sid, true, row);
        countRow(to, row, isStored);
        return isStored && countLifetimeEvent(to, counts, name);
      });
    }
    store.performGrouped(jobs);
  }
};

void storeEvents() {
  Session session;
  run(kEvents / kEventsPerTransaction, [&](std::size_t) { session.add(kEventsPerTransaction); });
}

void buildChunk() {
  Session session;
  session.add(kEvents);
  run(1, [&](std::size_t) {
    KLVChunkDetails details;
    const auto add = [&](const KLVStoredEvent& event) { details.addEvent(event); };
    static_cast<void>(session.store.readEvents(eventsTable(session.sid), 1, kEvents, kEvents, add));
    static_cast<void>(details.takeBody({}, {}));
  });
}

}  // namespace
}  // namespace kelvo::bench

int main(int count, char** arguments) {
  const std::string_view part = count > 1 ? arguments[1] : "";
  if (part == "key")
#ifdef __clang__
    std::printf("clang %s, SQLite %s\n", __clang_version__, sqlite3_libversion());
#else
    std::printf("g++ %s, SQLite %s\n", __VERSION__, sqlite3_libversion());
#endif
  else if (part == "attributes")
    kelvo::bench::makeAttributes();
  else if (part == "cleaning")
    kelvo::bench::clean();
  else if (part == "waiting")
    kelvo::bench::keepCall();
  else if (part == "storing")
    kelvo::bench::storeEvents();
  else if (part == "chunk")
    kelvo::bench::buildChunk();
  else
    return 2;
}
