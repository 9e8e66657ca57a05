#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "kelvo/Log.h"
#include "kelvo/Nilable.h"
#include "kelvo/Options.h"
#include "kelvo/Value.h"
#include "kelvo/kelvo.h"

/// The map behind the handle. One thread at a time uses it.
struct kelvo_attributes {
  kelvo::Dictionary values;
};

/// The helpers of the C interface. If memory is short, they return nil: no exception enters C.
namespace kelvo::c {

/// Runs `call`, and drops it if memory is short: nothing else throws here.
template <class Call>
void guarded(Call&& call) noexcept {
  try {
    std::forward<Call>(call)();
  } catch (...) {
  }
}

/// Returns a text argument, nil for NULL.
OptionalText text(const char* argument) noexcept;
/// Returns a text argument that cannot be nil, empty for NULL.
std::string textOrEmpty(const char* argument) noexcept;

/// Return the dictionary of an argument, nil for NULL. A text that is not the JSON text of an object is nil, too, with
/// one ERROR line that names `function`.
OptionalDictionary dictionary(const char* function, const char* json) noexcept;
OptionalDictionary dictionary(const char* function, const kelvo_attributes* attributes) noexcept;
/// Returns any value of JSON; nullopt with one ERROR line if `json` is none.
std::optional<Value> value(const char* function, const char* json) noexcept;

/// Returns a copy for the caller, who releases it with `kelvo_free`; NULL for nil.
char* returned(const std::optional<std::string>& text) noexcept;
/// Returns a copy of the JSON text of `dictionary`.
char* returnedJSON(const std::optional<Dictionary>& dictionary) noexcept;

/// Returns the level; nullopt for KELVO_LOG_DEFAULT and numbers that are no level.
std::optional<LogLevel> logLevel(kelvo_log_level level) noexcept;
/// Returns an empty function for NULL.
LogSink logSink(kelvo_log_sink sink, void* context) noexcept;

/// Returns whether `size` covers the `needed` bytes of the first version of a struct. If not, writes one ERROR line
/// that names `function`.
bool covers(const char* function, std::size_t size, std::size_t needed) noexcept;

/// Returns the options that `given` covers, the defaults for NULL; later members are 0. nullopt with one ERROR line
/// that names `function` if its size is too small. Throws `std::bad_alloc`.
std::optional<Options> optionsOf(const char* function, const kelvo_options* given);

/// Copies `value` to `*to` as far as the size of `*to` reaches, and keeps that size. NULL is left alone.
template <class Struct>
void fill(Struct* to, Struct value) noexcept {
  if (to == nullptr) return;
  value.size = to->size;
  std::memcpy(to, &value, std::min(to->size, sizeof value));
}

}  // namespace kelvo::c
