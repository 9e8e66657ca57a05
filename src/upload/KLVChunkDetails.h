#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "kelvo/Value.h"
#include "platform/SlicedText.h"
#include "platform/WrittenJSON.h"
#include "records/KLVStoredEvent.h"

namespace kelvo {

/// Builds the body of an upload: a chunk's events in their upload forms, grouped by kind, as JSON. Keeps their order
/// within a group. Not thread-safe.
class KLVChunkDetails {
 public:
  /// The members of "chunk_details" before the events.
  struct Attributes {
    Dictionary user{}, session{}, chunk{};
    Array aggregateEvents{};
  };

  /// Adds an event. Leaves out an event of a kind that is not sent. An event whose attributes are damaged has none, and
  /// one ERROR line says why.
  void addEvent(const KLVStoredEvent& event);
  /// Returns the number of events added so far, without those left out.
  [[nodiscard]] std::size_t events() const noexcept;
  /// Returns the body: `sections`, then "chunk_details" with `attributes` and the events. Returns nullopt, after one
  /// ERROR line, if JSON cannot represent them. Call it once.
  [[nodiscard]] std::optional<SlicedText> takeBody(Dictionary sections, const Attributes& attributes);

 private:
  struct Events {
    SlicedText text;
    std::size_t count = 0;
  };
  static constexpr std::size_t kGroups = 5;

  /// Appends the event's form to `form_`, copied from the stored text. Returns false, and appends nothing, if the text
  /// is not the writer's own.
  [[nodiscard]] bool copyForm(const KLVStoredEvent& event, std::string_view type, std::size_t group);
  /// Sets one of `members_`, as a dictionary does. Does nothing for nullopt.
  void set(std::optional<std::string_view> key, std::string_view value);
  /// Appends the form of a record that is rebuilt from the event.
  void rebuildForm(const KLVStoredEvent& event, std::size_t group);

  std::array<Events, kGroups> groups_;
  // Of the event that is being added; kept for their memory.
  WrittenJSON attributes_;
  std::vector<WrittenJSON::Member> members_;
  std::string id_;
  std::string form_;
};

}  // namespace kelvo
