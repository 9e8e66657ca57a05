#include "records/KLVEventType.h"

#include <utility>

#include "util/KLVLogger.h"

namespace kelvo {
namespace {

constexpr std::pair<KLVEventType, std::string_view> kNames[] = {
    {KLVEventType::system, "System"},
    {KLVEventType::ceNavigation, "CENavigation"},
    {KLVEventType::navigation, "Navigation"},
    {KLVEventType::userInteraction, "UserInteraction"},
    {KLVEventType::app, "App"},
    {KLVEventType::client, "Client"},
    {KLVEventType::aggregate, "Agg"},
    {KLVEventType::push, "Push"},
    {KLVEventType::inApp, "InApp"},
    {KLVEventType::inlineView, "Inline"},
    {KLVEventType::nudge, "Nudge"},
    {KLVEventType::inlineText, "InlineText"},
    {KLVEventType::inlineCoachmark, "InlineCoachmark"},
    {KLVEventType::walkthrough, "Walkthrough"},
    {KLVEventType::screenshot, "Screenshot"},
    {KLVEventType::survey, "Survey"},
    {KLVEventType::session, "Session"},
    {KLVEventType::chunk, "Chunk"},
    {KLVEventType::customError, "KLVCustomError"},
    {KLVEventType::applicationCrash, "ApplicationCrash"},
};

}  // namespace

std::string_view stringFromType(KLVEventType type) {
  for (const auto& [named, name] : kNames) {
    if (named == type) return name;
  }
  return "undefined";
}

KLVEventType typeFromString(std::string_view name) {
  for (const auto& [type, itsName] : kNames) {
    if (itsName == name) return type;
  }
  KLV_WARN("Undefined KLVEventType");
  return KLVEventType::unknown;
}

std::string identifierKey(KLVEventType type, std::string_view identifier) {
  return std::to_string(static_cast<std::uint64_t>(type)).append("___").append(identifier);
}

}  // namespace kelvo
