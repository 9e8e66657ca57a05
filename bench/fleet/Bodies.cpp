#include "Bodies.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

#include "Attributes.h"
#include "records/KLVAppInfo.h"
#include "records/KLVChunk.h"
#include "records/KLVDeviceInfo.h"
#include "records/KLVEvents.h"
#include "records/KLVRecordKeys.h"
#include "records/KLVSDKInfo.h"
#include "records/KLVSession.h"
#include "upload/KLVChunkDetails.h"

namespace kelvo::bench {
namespace {

constexpr std::size_t kVariants = 12;
constexpr std::size_t kScreenEvery = 5;
// Texts that occur in a body only where a field is.
const std::string kDevice = "D3B07384-D113-4EC6-A5F1-0A8C2E1F7B90";
constexpr std::uint32_t kNumber = 987654321;
constexpr std::int64_t kNow = 8765432109876;
constexpr std::int64_t kFirstTime = 765432000;

struct FixedCounts final : KLVLifetimeCounts {
  std::int64_t getLifetimeCountForEventWithName(const std::string&) override { return 41; }
};

std::int64_t now() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

/// Returns the storage form of the event at `index`.
Dictionary storedEvent(std::size_t variant, std::size_t index) {
  FixedCounts counts;
  const std::int64_t time = kFirstTime + static_cast<std::int64_t>(index);
  std::shared_ptr<KLVEvent> event;
  if (index % kScreenEvery == 0) {
    event = std::make_shared<KLVNavigationEvent>(std::string(name(variant + index)) + "Page", name(variant + index));
    event->setInfo(Value(4), kKLVDuration);
    event->setInfo(Value(time), "transition_time");
  } else {
    event =
        std::make_shared<KLVAppEvent>(KLVEventType::app, name(variant + index), attributes(variant * index), counts);
  }
  event->setCreatedTime(time);
  return event->jsonDict();
}

}  // namespace

Bodies::Bodies(std::size_t events, unsigned seconds)
    : home_((std::filesystem::temp_directory_path() / "kelvo-fleet-XXXXXX").string()),
      launch_(std::to_string(now())),
      seconds_(seconds) {
  if (mkdtemp(home_.data()) == nullptr) throw std::runtime_error("no temporary directory");
  setenv("KELVO_HOME", home_.c_str(), 1);
  for (std::size_t variant = 0; variant < kVariants; ++variant) {
    variants_.push_back(split(makeText(variant, events), events));
  }
}

Bodies::~Bodies() {
  std::error_code inUse;
  std::filesystem::remove_all(home_, inUse);
}

std::string Bodies::makeText(std::size_t variant, std::size_t events) const {
  KLVChunkDetails details;
  for (std::size_t index = 0; index < events; ++index) {
    const Dictionary form = storedEvent(variant, index);
    details.addEvent(KLVStoredEvent::of(form));
  }
  KLVDeviceInfo device(kDevice);
  device.setIdentifier(kDevice);
  const auto session = KLVSession::rebuiltFromIdentifier(launch_ + "-" + kDevice);
  KLVChunk chunk(kNumber, session->identifier());
  chunk.setInfo(Array{kNow}, kKLVChunkReportingTimes);

  Dictionary body;
  body.set(kKLVBodySDKInfo, KLVSDKInfo("").jsonDictModified());
  body.set(kKLVBodySessionInfo, session->jsonDictModified());
  body.set(kKLVBodyAppInfo, KLVAppInfo("").jsonDictModified());
  body.set(kKLVBodyDeviceInfo, device.jsonDictModified());
  body.set(kKLVBodyChunkMeta, chunk.jsonDictModified());
  const auto text = details.takeBody(std::move(body), {{{"custom_user_id", "customer-" + kDevice}, {"plan", "gold"}}});
  if (!text) throw std::runtime_error("no body");
  return text->inOnePiece();
}

std::vector<Bodies::Piece> Bodies::split(const std::string& text, std::size_t events) const {
  struct Mark {
    std::string text;
    Field field;
    unsigned seconds;
  };
  std::vector<Mark> marks{
      {kDevice, Field::device, 0}, {std::to_string(kNumber), Field::number, 0}, {std::to_string(kNow), Field::now, 0}};
  for (std::size_t index = 0; index < events; ++index) {
    marks.push_back({std::to_string(kFirstTime + static_cast<std::int64_t>(index)), Field::time,
                     static_cast<unsigned>(index * seconds_ / events)});
  }
  std::vector<Piece> pieces;
  for (std::size_t begin = 0; begin <= text.size();) {
    Piece piece;
    std::size_t end = text.size(), next = text.size() + 1;
    for (const Mark& mark : marks) {
      const auto found = text.find(mark.text, begin);
      if (found >= end) continue;
      end = found;
      next = found + mark.text.size();
      piece.field = mark.field;
      piece.seconds = mark.seconds;
    }
    piece.text = text.substr(begin, end - begin);
    pieces.push_back(std::move(piece));
    begin = next;
  }
  return pieces;
}

std::string Bodies::body(const std::string& id, std::uint32_t number) const {
  std::string text;
  for (const Piece& piece : variants_[number % variants_.size()]) {
    text += piece.text;
    switch (piece.field) {
      case Field::device: text += id; break;
      case Field::number: text += std::to_string(number); break;
      case Field::now: text += std::to_string(now()); break;
      case Field::time: text += std::to_string((number - 1) * seconds_ + piece.seconds); break;
      case Field::end: break;
    }
  }
  return text;
}

std::string Bodies::deviceId(std::uint32_t group, std::uint32_t index) {
  char text[sizeof "00000000-0000-4000-8000-000000000000"];
  std::snprintf(text, sizeof text, "%08X-0000-4000-8000-%012X", group, index);
  return text;
}

}  // namespace kelvo::bench
