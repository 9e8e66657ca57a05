// Fuzzes a host's attributes, of every type and shape, from the host's call to the body of a chunk.

#include <fuzzer/FuzzedDataProvider.h>

#include "FuzzingInSilence.h"
#include "core/AttributeFlattening.h"
#include "records/KLVEvents.h"
#include "upload/KLVChunkDetails.h"
#include "util/KLVException.h"
#include "util/KLVSanitiser.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo::fuzz {
namespace {

// Below the level at which the library drops containers, the fuzzer makes none.
constexpr int kDeepestContainer = 80;
constexpr int kLastPlainKind = 8;
constexpr int kLastKind = 10;

Dictionary someDictionary(FuzzedDataProvider& input, int depth);

Value someValue(FuzzedDataProvider& input, int depth) {
  switch (input.ConsumeIntegralInRange(0, depth > kDeepestContainer ? kLastPlainKind : kLastKind)) {
    case 0: return nullptr;
    case 1: return input.ConsumeBool();
    case 2: return input.ConsumeIntegral<std::int64_t>();
    case 3: return input.ConsumeIntegral<std::uint64_t>();
    case 4: return input.ConsumeFloatingPoint<double>();
    case 5: return input.ConsumeFloatingPoint<float>();
    case 6: return input.ConsumeRandomLengthString(24);
    case 7: return Data(input.ConsumeBytes<std::uint8_t>(3));
    case 8: return Date(std::chrono::seconds(input.ConsumeIntegral<std::int32_t>()));
    case 9: {
      Array array;
      for (int left = input.ConsumeIntegralInRange(0, 4); left > 0; --left) array.append(someValue(input, depth + 1));
      return array;
    }
    default: return someDictionary(input, depth + 1);
  }
}

Dictionary someDictionary(FuzzedDataProvider& input, int depth) {
  Dictionary dictionary;
  for (int left = input.ConsumeIntegralInRange(0, 5); left > 0; --left) {
    const std::string key = input.ConsumeRandomLengthString(8);
    dictionary.set(key, someValue(input, depth));
  }
  return dictionary;
}

struct Counts final : KLVLifetimeCounts {
  std::int64_t getLifetimeCountForEventWithName(const std::string&) override { return 7; }
};

/// Returns the body of a chunk with one event. Throws `KLVInvalidArgument` if the library would drop the call.
Value bodyWith(const Dictionary& attributes, const std::string& name, int depth) {
  const auto clean = KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(sanitised(attributes));
  Counts counts;
  const KLVAppEvent event(KLVEventType::app, *sanitised(std::optional(name)),
                          getFlatDictionary(clean.value_or(Dictionary()), depth), counts);
  KLVChunkDetails details;
  const Dictionary stored = event.jsonDict();
  details.addEvent(KLVStoredEvent::of(stored));
  const auto text = details.takeBody({}, {.user = clean.value_or(Dictionary())});
  const Value whole = parseJSON(text.value().inOnePiece()).value();
  const Dictionary body = (*whole.get<Dictionary>())["chunk_details"].asDictionary().value();
  require(body["app_events"].get<Array>()->size() == 1, "a stored event is in the body");
  return body;
}

}  // namespace
}  // namespace kelvo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  FuzzedDataProvider input(bytes, size);
  const int depth = input.ConsumeIntegralInRange(1, 2);
  const std::string name = input.ConsumeRandomLengthString(12);
  const Dictionary attributes = fuzz::someDictionary(input, 1);
  try {
    fuzz::requireRoundTrip(fuzz::bodyWith(attributes, name, depth));
  } catch (const KLVInvalidArgument&) {  // for example an empty array: the library drops the call and logs a line
  }
  return 0;
}
