#include <string>
#include <utility>

#include "core/KLVController.h"
#include "core/RescueFiles.h"

namespace kelvo {

void KLVController::rescue() {
  const bool holdsHome = holdsHome_;
  const Lock files(rescueMutex_);
  std::vector<EventRef> events;
  std::vector<BufferedAttributes> calls;
  {
    const Lock lock(mutex_);
    if (!gate_.databaseExists()) events = gate_.takeEvents();
    if (holdsHome && !gate_.recordsExist()) calls = gate_.takeUserAttributes();
  }
  // Kept: does not report a failed write.
  if (!events.empty()) {
    const auto written = static_cast<std::ptrdiff_t>(RescueFiles::writeEvents(events, holdsHome));
    const std::vector<EventRef> left(events.begin() + written, events.end());
    Lock lock(mutex_);
    const bool storesNow = gate_.databaseExists();  // nothing empties the buffer any more
    if (!storesNow) gate_.putBack(left);
    lock.unlock();
    if (storesNow && !left.empty()) persistEvents(left);
  }
  if (!calls.empty() && !RescueFiles::writeUserAttributes(calls)) {
    const Lock lock(mutex_);
    gate_.putBack(calls);
  }
}

bool KLVController::storeRescuedEvents() {
  const auto handler = dataHandler();
  const auto running = session();
  if (handler == nullptr || running == nullptr) return false;
  {
    const Lock files(rescueMutex_);
    if (!RescueFiles::retire()) return false;
  }
  // A file that an earlier launch has stored, but not deleted, is recorded in the database: it is not stored again.
  for (const std::string& file : RescueFiles::names()) {
    const auto events = RescueFiles::read(file);
    if (!events) continue;
    const auto result = handler->storeRescuedEvents(file, *events, running->identifier());
    if (result == KLVDataHandler::Rescue::failed) continue;
    if (RescueFiles::remove(file)) handler->forgetRescuedFile(file);
  }
  return true;
}

void KLVController::saveRecords() {
  saveUserInfo();
  if (const auto running = session()) saveSessionInfoWithIndentifier(running->identifier());
}

}  // namespace kelvo
