#include "kelvo-collector/service/Script.h"

#include <algorithm>

namespace kelvo::collector {

Script Script::late(std::chrono::milliseconds delay) {
  Script script(Kind::Late);
  script.delay_ = delay;
  return script;
}

Script Script::cutShort(int status) {
  Script script(Kind::CutShort);
  script.status_ = status;
  return script;
}

Script Script::garbage() {
  static constexpr char kBytes[] = "\x1f\x8b\x00<html>{\"enabled\": \xff\xfe";
  return {kSuccess, std::string(kBytes, sizeof kBytes - 1)};
}

Script Script::redirect(std::string location) {
  constexpr int kFound = 302;
  Script script(kFound);
  script.location_ = std::move(location);
  return script;
}

Script Script::after(std::chrono::milliseconds delay) const {
  Script script = *this;
  script.delay_ = delay;
  return script;
}

Script Script::times(std::size_t count) const {
  Script script = *this;
  script.left_ = count;
  return script;
}

void ScriptBook::set(const std::string& fragment, std::vector<Script> scripts) {
  const Lock lock(mutex_);
  entries_.remove_if([&](const auto& entry) { return entry.first == fragment; });
  if (scripts.empty()) return;
  // A permanent script would hide the scripts after it, so all but the last are for one request at least.
  std::for_each(scripts.begin(), scripts.end() - 1, [](Script& s) { s.left_ = std::max<std::size_t>(s.left_, 1); });
  entries_.emplace_front(fragment, std::deque<Script>(scripts.begin(), scripts.end()));
}

std::optional<Script> ScriptBook::take(const std::string& request) {
  const Lock lock(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [&](const auto& entry) { return request.find(entry.first) != std::string::npos; });
  if (found == entries_.end()) return std::nullopt;
  auto& turn = found->second;
  Script script = turn.front();
  if (script.left_ > 0 && --turn.front().left_ == 0) turn.pop_front();
  if (turn.empty()) entries_.erase(found);
  return script;
}

void ScriptBook::clear() {
  const Lock lock(mutex_);
  entries_.clear();
}

ScriptBook::Entries ScriptBook::entries() const {
  const Lock lock(mutex_);
  return entries_;
}

}  // namespace kelvo::collector
