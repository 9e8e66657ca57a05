#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kelvo/Value.h"

namespace kelvo {

/// A host call as it is made: the members of `KLVJournalCall`. Does not own the text and the attributes.
struct KLVCallRecord {
  std::uint8_t kind = 0;  ///< 0: the journal does not keep it
  std::uint8_t flags = 0;
  Date time{};
  std::optional<std::string_view> text{};
  const Dictionary* info = nullptr;
};

/// The same as its ticket and the journal have it: the attributes are in the form of `KLVCodedDictionary`.
struct KLVCodedCall {
  std::uint8_t kind = 0;
  std::uint8_t flags = 0;
  Date time{};
  std::optional<std::string_view> text{};
  std::optional<std::string_view> info{};
};

/// The journal as `KLVWaitingCall` uses it. Thread: any.
class KLVCallJournal {
 public:
  /// Keeps a call over the death of the process. Returns its number, 0 if it does not take it.
  [[nodiscard]] virtual std::uint64_t write(const KLVCodedCall& call) noexcept = 0;
  /// The effects of this call are stored, or it has none. Ignores 0 and numbers that are finished already.
  virtual void finish(std::uint64_t sequence) noexcept = 0;

 protected:
  ~KLVCallJournal() = default;  // never deleted through this type
};

}  // namespace kelvo
