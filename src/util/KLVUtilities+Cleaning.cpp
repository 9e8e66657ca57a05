#include "util/KLVUtilities+Cleaning.h"

#include <utility>

#include "util/KLVDeliveryRules.h"
#include "util/KLVException.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

/// The decision about one member of a container.
struct Verdict {
  enum class Kind { keep, drop, replace } kind = Kind::keep;
  Value replacement;
};

constexpr auto kKeep = Verdict::Kind::keep;
constexpr auto kDrop = Verdict::Kind::drop;
constexpr auto kReplace = Verdict::Kind::replace;

/// Returns `container` with `judge`'s verdict applied to each member. Shares the content if every member is kept.
template <class Container, class Add, class Judge>
Container judged(const Container& container, Add add, Judge judge) {
  Container result;
  bool changed = false;
  for (const auto& member : container) {
    Verdict verdict = judge(member);
    if (verdict.kind != kKeep && !changed) {
      changed = true;
      for (const auto* kept = container.begin(); kept != &member; ++kept) add(result, *kept, nullptr);
    }
    if (!changed || verdict.kind == kDrop) continue;
    add(result, member, verdict.kind == kReplace ? &verdict.replacement : nullptr);
  }
  return changed ? result : container;
}

template <class Judge>
Dictionary judgedEntries(const Dictionary& dictionary, Judge judge) {
  const auto add = [](Dictionary& result, const Dictionary::Entry& entry, Value* replacement) {
    result.set(entry.first, replacement == nullptr ? entry.second : std::move(*replacement));
  };
  return judged(dictionary, add, judge);
}

/// Returns true if a clean-up changed nothing, so that both containers share their content.
template <class Container>
bool isUntouched(const Container& before, const Container& after) {
  return before.begin() == after.begin() && before.size() == after.size();
}

template <class Container>
Verdict keptOrReplaced(const Container& before, Container after) {
  if (isUntouched(before, after)) return {kKeep, {}};
  return {kReplace, std::move(after)};
}

/// Cleans one call's attributes, at every level.
class Cleaner {
 public:
  std::optional<Dictionary> clean(const Dictionary& dictionary) {
    if (dictionary.empty()) return std::nullopt;
    return judgedEntries(dictionary, [this](const Dictionary::Entry& entry) { return verdictOnEntry(entry); });
  }
  std::optional<Array> clean(const Array& array) {
    if (array.empty()) return std::nullopt;
    const auto add = [](Array& result, const Value& element, Value* replacement) {
      result.append(replacement == nullptr ? element : std::move(*replacement));
    };
    return judged(array, add, [this](const Value& element) { return verdictOnElement(element); });
  }
  /// Writes one WARN line if containers were left out.
  void report() const {
    if (leftOut_ > 0) KLV_WARN("Leaving out {} empty arrays or objects inside attributes", leftOut_);
  }

 private:
  Verdict verdictOnEntry(const Dictionary::Entry& entry) {
    const auto& [key, value] = entry;
    if (value.isNumber()) return {kKeep, {}};
    if (const auto* text = value.get<std::string>()) return {text->empty() ? kDrop : kKeep, {}};
    if (const auto* dictionary = value.get<Dictionary>()) {
      auto inner = clean(*dictionary);
      if (!inner || inner->empty()) return {kDrop, {}};
      return keptOrReplaced(*dictionary, *std::move(inner));
    }
    if (const auto* array = value.get<Array>()) return verdictOn(*array, " (key: " + key + ")");
    return {kDrop, {}};
  }

  Verdict verdictOnElement(const Value& value) {
    if (value.isNumber() || value.get<std::string>() != nullptr) return {kKeep, {}};
    if (const auto* dictionary = value.get<Dictionary>()) return verdictOn(*dictionary, "");
    if (const auto* array = value.get<Array>()) return verdictOn(*array, "");
    return {kDrop, {}};
  }

  /// Returns whether a dictionary or an array stays, is replaced or is dropped. An empty one never stays: it is
  /// dropped, or the call is refused with an exception, as the delivery rules say.
  template <class Container>
  Verdict verdictOn(const Container& container, const std::string& place) {
    auto inner = clean(container);
    if (!leavesOut_) {
      if (!inner) throw KLVInvalidArgument("object cannot be nil" + place);
    } else if (!inner || inner->empty()) {
      ++leftOut_;
      return {kDrop, {}};
    }
    return keptOrReplaced(container, *std::move(inner));
  }

  const bool leavesOut_ = KLVDeliveryRules::current().leavesOutEmptyContainers;
  std::size_t leftOut_ = 0;
};

}  // namespace

std::optional<std::string> KLVUtilities::validStringForString(std::optional<std::string> text) {
  return text;
}

bool KLVUtilities::isValidDictionary(const Value& value) {
  const auto* dictionary = value.get<Dictionary>();
  return dictionary != nullptr && !dictionary->empty();
}

Dictionary KLVUtilities::addTwoDictionaries(const Dictionary& first, const Dictionary& second) {
  Dictionary sum = first;
  for (const auto& [key, value] : second) sum.set(key, value);
  return sum;
}

Dictionary KLVUtilities::dictionaryByRemovingNulls(const Dictionary& dictionary) {
  return judgedEntries(dictionary, [](const Dictionary::Entry& entry) {
    return Verdict{entry.second.isNull() ? kDrop : kKeep, {}};
  });
}

std::optional<Dictionary> KLVUtilities::dictionaryByRemovingNullsAndEmptyValues(
    const std::optional<Dictionary>& dictionary) {
  if (!dictionary) return std::nullopt;
  Cleaner cleaner;
  auto clean = cleaner.clean(*dictionary);
  cleaner.report();
  return clean;
}

std::optional<Array> KLVUtilities::validArrayForArray(const Array& array) {
  Cleaner cleaner;
  auto valid = cleaner.clean(array);
  cleaner.report();
  return valid;
}

}  // namespace kelvo
