#pragma once

#include <string>

#include "kelvo-events/Registry.h"

// The forms in which a registry is written. `space` is the namespace of the host: "events" or "shop::events".

namespace kelvo::registry {

/// Returns a C++17 header: in `space`, a type for each attribute and a function for each event.
[[nodiscard]] std::string cppForm(const Registry& registry, const std::string& space);

/// Returns a C99 header on kelvo/kelvo.h. Its names begin with `space`, joined by "_".
[[nodiscard]] std::string cForm(const Registry& registry, const std::string& space);

/// Returns a QML type with a function for each event, which calls `Kelvo.log` or `Kelvo.logAggregate`.
[[nodiscard]] std::string qmlForm(const Registry& registry);

/// Returns a page in Markdown.
[[nodiscard]] std::string pageForm(const Registry& registry);

/// Returns the collector's document of expectations, which expects nothing but the events of the registry.
[[nodiscard]] std::string expectationsForm(const Registry& registry);

}  // namespace kelvo::registry
