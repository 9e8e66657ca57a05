#pragma once

#include <algorithm>
#include <cstddef>
#include <deque>
#include <functional>
#include <utility>

#include "util/KLVLogger.h"

namespace kelvo {

/// Keeps the host's reports of activity and of screens until the monitors observe, and then plays them in order.
///
/// Screens that the host names wait among them, so that all screens keep their order. Of the other reports only the
/// last 1,000 are kept: a process that never starts the library may report for years. Not thread-safe.
class EarlyReports {
 public:
  using Report = std::function<void()>;
  static constexpr std::size_t kMostReports = 1000;

  /// Runs the report now, or keeps it until `play`.
  void add(Report report) { add(std::move(report), true); }
  /// The same for a screen that the host names: it is never dropped.
  void addNamedScreen(Report report) { add(std::move(report), false); }

  /// Runs the kept reports. From now on each report runs at once.
  void play() {
    isOpen_ = true;
    for (const Kept& kept : std::exchange(kept_, {})) kept.report();
  }
  /// Drops the kept reports. From now on each report runs at once.
  void drop() {
    isOpen_ = true;
    kept_.clear();
  }

 private:
  struct Kept {
    Report report;
    bool mayBeDropped;
  };

  void add(Report report, bool mayBeDropped) {
    if (isOpen_) return report();
    kept_.push_back({std::move(report), mayBeDropped});
    if (!mayBeDropped || ++droppable_ <= kMostReports) return;
    if (droppable_ == kMostReports + 1) KLV_WARN("Keeping only the last {} reports until the start", kMostReports);
    kept_.erase(std::find_if(kept_.begin(), kept_.end(), [](const Kept& kept) { return kept.mayBeDropped; }));
  }

  bool isOpen_ = false;
  std::size_t droppable_ = 0;  ///< all droppable reports so far, dropped ones included
  std::deque<Kept> kept_;
};

}  // namespace kelvo
