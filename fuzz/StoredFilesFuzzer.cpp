// Fuzzes the files of earlier launches: records in JSON files, the file of rescued events, rows of the database.

#include <memory>
#include <vector>

#include "FuzzingInSilence.h"
#include "records/KLVAppInfo.h"
#include "records/KLVChunk.h"
#include "records/KLVEvent.h"
#include "records/KLVSession.h"
#include "records/KLVUser.h"
#include "upload/KLVChunkDetails.h"
#include "util/KLVException.h"

namespace kelvo::fuzz {
namespace {

/// Reads a record, writes it, and requires that it then reads back unchanged.
template <class Record>
void restore(const Dictionary& form) {
  const auto record = objectFromJsonDict<Record>(form);
  callEveryConversion(record->customInfo());
  callEveryConversion(record->jsonDictModified());
  try {
    const Dictionary stored = record->jsonDict();
    require(objectFromJsonDict<Record>(stored)->jsonDict() == stored, "a stored record changes with every start");
  } catch (const KLVInvalidArgument&) {  // its attributes cannot be stored: the library logs a line and leaves them out
  }
}

/// Requires that an event's upload form is the one of its record.
void upload(const Dictionary& row) {
  KLVChunkDetails details;
  details.addEvent(KLVStoredEvent::of(row));
  const std::string text = details.takeBody({}, {}).value().inOnePiece();
  require(parseJSON(text).has_value(), "a body is JSON");
  const auto record = objectFromJsonDict<KLVEvent>(row);
  if (details.events() == 0 || record->eventType() != KLVEventType::app) return;
  const auto form = jsonText(record->jsonDictModifiedforInstanceWithName("KLVAppEvent"));
  // A file that another program wrote may nest deeper than a body can.
  const bool isSame = form && text.find("\"app_events\":[" + *form + "]") != std::string::npos;
  require(isSame || !form || parseJSON("[[[" + *form + "]]]") == std::nullopt, "an event's form is that of its record");
}

}  // namespace
}  // namespace kelvo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  const auto content = parseJSON({reinterpret_cast<const char*>(bytes), size});
  if (!content) return 0;
  std::vector<Dictionary> rows;
  if (const auto* form = content->get<Dictionary>()) rows.push_back(*form);
  if (const auto* forms = content->get<Array>()) {
    for (const Value& form : *forms) {
      if (const auto* row = form.get<Dictionary>()) rows.push_back(*row);
    }
  }
  for (const Dictionary& row : rows) {
    fuzz::upload(row);
    fuzz::restore<KLVUser>(row);
    fuzz::restore<KLVSession>(row);
    fuzz::restore<KLVAppInfo>(row);
    fuzz::restore<KLVEvent>(row);
    const auto meta = objectFromDictionary<KLVChunkMetaInfo>(row)->additionalInfo();
    for (const char* column : {"sid", "cid", "start", "end", "status"}) fuzz::callEveryConversion(meta[column]);
  }
  return 0;
}
