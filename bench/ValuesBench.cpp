// Measures the work of one call on the caller's thread, and the work on its event before it is stored.
#include <benchmark/benchmark.h>

#include "Parts.h"
#include "core/AttributeFlattening.h"
#include "platform/JSON.h"
#include "util/KLVSanitiser.h"
#include "util/KLVUtilities+Cleaning.h"

namespace kelvo::bench {
namespace {

void BuildAttributes(benchmark::State& state) {
  std::size_t number = 0;
  for (auto _ : state) benchmark::DoNotOptimize(attributes(number++));
}
BENCHMARK(BuildAttributes);

void CopyAttributes(benchmark::State& state) {
  const Dictionary original = attributes(1);
  for (auto _ : state) {
    Dictionary copy = original;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(CopyAttributes);

void ChangeACopy(benchmark::State& state) {
  const Dictionary original = attributes(1);
  for (auto _ : state) {
    Dictionary copy = original;
    copy.set("quantity", 2);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(ChangeACopy);

void SanitiseAndClean(benchmark::State& state) {
  const std::optional<Dictionary> original = attributes(1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(sanitised(original)));
  }
}
BENCHMARK(SanitiseAndClean);

/// Flattens attributes that contain a dictionary and an array of texts.
void Flatten(benchmark::State& state) {
  Dictionary nested = attributes(1);
  nested.set("address", Dictionary{{"city", "Rome"}, {"street", Dictionary{{"name", "Via Appia"}, {"number", 7}}}});
  nested.set("tags", Array{"new", "gift", "book"});
  for (auto _ : state) benchmark::DoNotOptimize(getFlatDictionary(nested, static_cast<int>(state.range(0))));
}
BENCHMARK(Flatten)->Arg(1)->Arg(2);

void WriteJSON(benchmark::State& state) {
  const Value value = attributes(1);
  std::size_t bytes = 0;
  for (auto _ : state) bytes += jsonText(value)->size();
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(WriteJSON);

void ReadJSON(benchmark::State& state) {
  const std::string text = *jsonText(attributes(1));
  for (auto _ : state) benchmark::DoNotOptimize(parseJSON(text));
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
}
BENCHMARK(ReadJSON);

void MakeEventAndStorageForm(benchmark::State& state) {
  std::size_t number = 0;
  for (auto _ : state) benchmark::DoNotOptimize(event(number++)->jsonDict());
}
BENCHMARK(MakeEventAndStorageForm);

}  // namespace
}  // namespace kelvo::bench
