#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo::registry {

enum class Type { text, integer, number, boolean };

/// One of the texts that an attribute may have.
struct Choice {
  std::string text;
  std::string code;  ///< its enumerator
};

/// An attribute of an event. The units of `least` and `most` are `unit`.
struct Attribute {
  std::string name;     ///< the key, as events carry it
  std::string meaning;  ///< for people
  Type type = Type::text;
  std::string unit;             ///< of a number, empty if it has none
  std::optional<double> least;  ///< of a number, included
  std::optional<double> most;
  std::vector<Choice> choices;  ///< of a text, empty if it may be any
  bool isOptional = false;
  std::string code;   ///< its type in generated code, in upper camel case
  std::string place;  ///< path in the file: "events[0].attributes[1]"
};

/// Returns whether two attributes can share a type in generated code.
[[nodiscard]] bool haveOneType(const Attribute& one, const Attribute& other);

struct Event {
  std::string name;  ///< as the host logs it
  std::string meaning;
  std::string owner;
  std::optional<std::string> keptUntil;  ///< the last day, "YYYY-MM-DD"
  bool isAggregate = false;
  std::vector<Attribute> attributes;  ///< the optional ones last, else in the order of the file
  std::string code;                   ///< its function in generated code, in lower camel case
  std::string place;                  ///< path in the file: "events[0]"
};

/// The events that a host logs, in the order of the file.
struct Registry {
  std::vector<Event> events;

  /// Returns one attribute for each type in generated code, in the order of their first use.
  [[nodiscard]] std::vector<const Attribute*> types() const;
};

/// A fault, or a warning, about a place in the file.
struct Finding {
  std::string place;  ///< path; empty for the whole file
  std::string message;
  bool isWarning = false;
  std::size_t line = 0;  ///< from 1, as `column`, which counts bytes
  std::size_t column = 0;
};

/// A registry, or the reasons why it is none.
struct Reading {
  Registry registry;              ///< complete if no finding is a fault
  std::vector<Finding> findings;  ///< in the order of the file
  [[nodiscard]] bool hasFaults() const;
};

/// Reads and checks the text of a registry. Reports all faults at once; only one of the JSON itself ends the reading.
///
/// An event that was to be kept until a day before `today` ("YYYY-MM-DD") is a fault; with `today` empty, no date
/// counts.
[[nodiscard]] Reading readRegistry(std::string_view text, const std::string& today);

}  // namespace kelvo::registry
