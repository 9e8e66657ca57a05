#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelvo::bench {

/// Makes the bodies of chunks. The library's own records and events make one body for each of a few variants; the
/// bodies of all devices are copies with other ids, numbers and times. Not thread-safe.
class Bodies {
 public:
  /// `events` is the number of events in a chunk, one in five a screen. `seconds` is the time that a chunk covers.
  Bodies(std::size_t events, unsigned seconds);
  ~Bodies();
  Bodies(const Bodies&) = delete;
  Bodies& operator=(const Bodies&) = delete;

  /// Returns the body of chunk `number` of the device `id`. One number always has the same events.
  [[nodiscard]] std::string body(const std::string& id, std::uint32_t number) const;
  /// Returns the id of the only session of the device `id`. All sessions begin with this object.
  [[nodiscard]] std::string session(const std::string& id) const { return launch_ + "-" + id; }
  /// Returns the device id with the number `index` of the group `group`: a UUID, the same in every run.
  static std::string deviceId(std::uint32_t group, std::uint32_t index);

 private:
  enum class Field { end, device, number, now, time };
  /// A piece of text, and what follows it.
  struct Piece {
    std::string text;
    Field field = Field::end;
    unsigned seconds = 0;  // time: since the beginning of the chunk
  };

  [[nodiscard]] std::string makeText(std::size_t variant, std::size_t events) const;
  [[nodiscard]] std::vector<Piece> split(const std::string& text, std::size_t events) const;

  std::string home_;
  std::string launch_;  // milliseconds since 1970
  unsigned seconds_;
  std::vector<std::vector<Piece>> variants_;
};

}  // namespace kelvo::bench
