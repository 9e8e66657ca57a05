// Fuzzes foreign texts in every place of every statement: names, attributes, identifiers of sessions and chunks. Under
// both sets of rules, each statement that SQLite runs must have exactly the terms of its template.

#include <fuzzer/FuzzedDataProvider.h>

#include <map>
#include <memory>

#include "FuzzingInHome.h"
#include "storage/KLVCountCache.h"
#include "storage/KLVEventWrites.h"
#include "storage/KLVSchema.h"
#include "storage/StatementShapes.h"
#include "util/KLVDeliveryRules.h"

namespace kelvo::fuzz {
namespace {

using test::StoreOperation;

/// Runs `operation`. Returns the terms of all statements that SQLite has run for it.
std::string termsOf(const StoreOperation& operation, KLVPersistantStore& store, const std::string& foreign) {
  static_cast<void>(test::RanStatements::take());
  static_cast<void>(operation.run(store, foreign));
  std::string terms;
  for (const std::string& statement : test::RanStatements::take()) terms += test::shapeOf(statement) + "\n";
  return terms;
}

std::map<std::string, std::string> templates(KLVPersistantStore& store) {
  std::map<std::string, std::string> terms;
  for (const StoreOperation& operation : test::storeOperations()) {
    terms[operation.name] = termsOf(operation, store, "plain");
  }
  return terms;
}

void runEveryStatement(KLVPersistantStore& store, const std::string& foreign) {
  static const auto expected = templates(store);
  for (const StoreOperation& operation : test::storeOperations()) {
    const std::string terms = termsOf(operation, store, foreign);
    if (operation.refuses(foreign)) {
      require(terms.empty(), "a refused statement does not run");
    } else if (operation.place != StoreOperation::Place::name) {  // a plain name may be that of a missing column
      // No statement asks for a table that the store knows, such as "sqlite_sequence".
      require(terms.empty() || terms == expected.at(operation.name), "a statement has the terms of its template");
    }
  }
}

/// Counts and stores an event twice, and requires that exactly this is counted.
void countTwice(KLVPersistantStore& store, const std::string& name, const std::string& value, const std::string& sid) {
  KLVCountCache cache;
  KLVEvent event(KLVEventType::aggregate);
  event.setIdentifier(name);
  event.setAdditionalInfo(Dictionary{{"key", value}});
  for (int time = 0; time < 2; ++time) {
    static_cast<void>(countLifetimeEvent(store, cache, name));
    static_cast<void>(countAggregate(store, event, sid));
    static_cast<void>(insertEvent(store, sid, true, Dictionary{{"id", name}}));
  }
  KLVCountCache empty;
  if (isUncountable(name) || isUncountable(sid)) {
    require(isUncountable(sid) || store.retrieveNumberOfRecordsInTable(eventsTable(sid)) == 2, "an event is stored");
    return;
  }
  bool isWritten = false;  // at the end of a transaction
  store.onDatabase([&](FMKLVDatabase& db) { isWritten = store.lifetimeCounts().write(db); });
  require(isWritten && lifetimeCount(store, empty, name) == 2, "a name has its lifetime count");
  require(store.retrieveNumberOfRecordsInTable(eventsTable(sid)) == 2, "a session has its events");
  if (isUncountable(value)) return;
  const Dictionary row{{"sid", sid}, {"name", name}, {"attr_key", "key"}, {"attr_value", value}};
  const auto counts = store.retrieveDataForIdentifier(kKLVAggCount, kKLVAggEvents, row);
  require(counts == KLVPersistantStore::Rows{Dictionary{{"e_count", 2}}}, "a value has its count");
}

KLVPersistantStore& openStore() {
  test::RanStatements::begin();
  static KLVPersistantStore store;
  require(store.createAggregateEventsTable() && store.createLifetimeEventsTable() &&
              store.createChunkMetaInfoTableWithTableName(kKLVChunkMetaInfo) &&
              store.createEventsTableWithTableName("events_base"),
          "the tables are made");
  return store;
}

}  // namespace
}  // namespace kelvo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  static KLVPersistantStore& store = fuzz::openStore();
  FuzzedDataProvider input(bytes, size);
  KLVDeliveryRules::choose(input.ConsumeBool() ? KLVDeliveryRules::complete : KLVDeliveryRules::classic);
  const std::string name = input.ConsumeRandomLengthString(64), value = input.ConsumeRandomLengthString(64);
  const std::string sid = input.ConsumeRemainingBytesAsString();
  static_cast<void>(store.performTogether({[&](KLVPersistantStore& inTransaction) {
    // The first call of a transaction also reads the sequences.
    fuzz::require(inTransaction.lastIdentifierInTable("events_base").has_value(), "the base table can be read");
    // The store keeps the text of its latest insert, which depends on the rules. No other process changes its rules.
    static_cast<void>(insertEvent(inTransaction, "other", true, Dictionary{{"id", "other"}}));
    fuzz::runEveryStatement(inTransaction, name);
    fuzz::countTwice(inTransaction, name, value, sid);
    return false;  // rolls back
  }}));
  KLVLogger::drain(std::chrono::seconds(1));  // lines in the queue would look like leaks, and each costs a search
  return 0;
}
