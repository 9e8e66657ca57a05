// Fuzzes the responses of the service: any JSON, above all the configuration, the lists that classify events, and the
// actions of plug-ins; also the URLs of redirects.

#include <filesystem>

#include "FuzzingInHome.h"
#include "events/KLVEventHandler.h"
#include "network/HTTPURL.h"
#include "network/KLVConfigManager.h"
#include "network/KLVSyncManager.h"
#include "platform/Directories.h"
#include "platform/UserDefaults.h"
#include "records/KLVEvents.h"
#include "records/KLVFileNames.h"
#include "util/KLVUtilities+Actions.h"
#include "util/KLVUtilities+Cleaning.h"
#include "util/KLVUtilities+Files.h"

namespace kelvo::fuzz {
namespace {

/// A service that answers every request alike.
class Service final : public KLVConfigManagerDelegate {
 public:
  std::string applicationIdentifier() override { return "fuzz"; }
  void setAndSaveEnableSDKState(bool) override { ++decisions; }
  void getDataFromURLPath(const std::optional<std::string>&, HTTPCompletion completion) override {
    completion(answer, HTTPResponse{200, "http://127.0.0.1/"}, std::nullopt);
  }

  std::string answer;
  int decisions = 0;
};

void readConfiguration(std::string answer) {
  Service service;
  KLVConfigManager manager(service);
  service.answer = std::move(answer);
  bool saved = false;
  manager.getAndSaveLatestConfigurationWithCompletionHandler([&] { saved = true; });
  const KLVConfigManager next(service);
  require(next.configDetails().has_value(), "the next start has a configuration");
  require(service.decisions == 2, "each start decides whether collection is enabled");
  if (saved)
    require(KLVConfigManager::isValidSDKConfiguration(*next.configDetails()), "a saved configuration is usable");
}

/// A device and its service, described by one dictionary. The service answers every request with the whole dictionary,
/// in which the library reads "hash", "pid_mid" and "configs". Before the sync, the device stores "disk" as the file of
/// actions, and "record" as its revisions.
class Device final : public KLVSyncManagerDelegate {
 public:
  explicit Device(const Dictionary& world) : answer_(*jsonText(world)) {
    record = world["record"].asDictionary();
    const auto disk = world["disk"].asDictionary();
    std::filesystem::remove(Directories::inLibrary(kKLVSDKRTAConfigLocation));
    if (disk) KLVUtilities::saveConfig(jsonText(*disk), std::string(kKLVSDKRTAConfigLocation));
  }
  std::string applicationIdentifier() override { return "fuzz"; }
  std::shared_ptr<KLVDeviceInfo> deviceInfo() override { return nullptr; }
  std::optional<Dictionary> getPIDMIDDictForType(const std::string&) override { return record; }
  void persistPIDMIDDict(const std::optional<Dictionary>& kept, const std::string&) override {
    if (KLVUtilities::isValidDictionary(kept)) record = *kept;
  }
  void getDataFromURLPath(const std::optional<std::string>&, HTTPCompletion completion) override {
    completion(answer_, HTTPResponse{200, "http://127.0.0.1/"}, std::nullopt);
  }
  void getActionsFromURLPath(const std::optional<std::string>& path, HTTPCompletion completion) override {
    ++fetches;
    getDataFromURLPath(path, std::move(completion));
  }

  std::optional<Dictionary> record;
  int fetches = 0;

 private:
  std::string answer_;
};

void syncActions(const Dictionary& world) {
  UserDefaults::standard().remove("klv_rta_hash");
  Device device(world);
  KLVSyncManager manager(device);
  const auto calledBack = [&] {
    int times = 0;
    manager.getSyncDataForActionType("rta", "1", [&] { ++times; });
    require(times <= 1, "a sync calls back at most once");
    return times == 1;
  };
  const auto* announced = world["pid_mid"].get<std::string>();
  const bool canBoot = world["hash"].get<std::string>() != nullptr && announced != nullptr && !announced->empty();
  require(calledBack() == canBoot, "a plug-in boots when the service names a hash and campaigns");
  if (!canBoot) return;
  const Dictionary server = KLVUtilities::getPIDMIDDictFromString(*announced);
  const Dictionary saved = KLVSyncManager::savedConfig("rta");
  const auto configs = world["configs"].asArray();
  const auto fresh = configs ? KLVUtilities::iDKeyDictionaryForConfigs(*configs) : std::nullopt;
  if (device.fetches > 0 && configs) {
    require(device.record == server, "the record is what the service announced");
    for (const auto& [id, action] : fresh.value_or(Dictionary()))
      require(saved[id] == action, "a fetched action is saved");
    require(calledBack() && device.fetches == 1, "an up-to-date set is not fetched again");
  }
  for (const std::string& pid : KLVUtilities::getAllPIDsInConfig(saved)) {
    require(KLVUtilities::doesConfig(saved, pid), "a campaign of the file is found in it");
    require(!KLVUtilities::doesConfig(KLVUtilities::dictionaryByRemovingEntryWithPID(pid, saved), pid),
            "a removed campaign is gone");
    const bool isNew = fresh && KLVUtilities::doesConfig(*fresh, pid);
    const auto* before = world["record"].get<Dictionary>();
    const bool wasKnown = before != nullptr && before->contains(pid);
    require(isNew || !wasKnown || server.contains(pid), "no action of a withdrawn campaign is kept");
  }
}

class NoStore final : public KLVEventHandlerDelegate {
  void processAggregateEventWithEvent(const std::shared_ptr<KLVEvent>&) override {}
  void saveEvent(const std::shared_ptr<KLVEvent>&) override {}
  void saveLifetimeEvent(const std::shared_ptr<KLVEvent>&) override {}
};

/// Requires that each event gets the type of the first list that contains its name.
void classify(const Dictionary& events) {
  NoStore delegate;
  KLVEventHandler bus(delegate);
  bus.setClientEvents(events["action"].asArray());
  bus.setAggregateEvents(events["agg"].asArray());
  bus.setEventsToBeIgnored(events["stop"].asArray());
  const auto becomes = [&](const Value& name, KLVEventType type) {
    const auto* text = name.get<std::string>();
    if (text == nullptr || *text == kKLVAppOpened) return;
    const auto event = std::make_shared<KLVClientEvent>();
    event->setEventType(KLVEventType::app);
    event->setIdentifier(*text);
    bus.enqueueEvent(event);
    bus.waitUntilDelivered();
    require(event->eventType() == type || event->eventType() == KLVEventType::client, "a list classifies its names");
  };
  for (const Value& name : bus.clientEvents().value_or(Array())) becomes(name, KLVEventType::client);
  for (const Value& name : bus.aggregateEvents().value_or(Array())) becomes(name, KLVEventType::aggregate);
}

}  // namespace
}  // namespace kelvo::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace kelvo;
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  if (const auto value = parseJSON(text)) {
    fuzz::callEveryConversion(*value);
    fuzz::requireRoundTrip(*value);
    fuzz::readConfiguration(text);
    fuzz::readConfiguration("{\"details\":" + text + "}");
    if (const auto* members = value->get<Dictionary>()) {
      fuzz::syncActions(*members);
      if (const auto* events = (*members)["events"].get<Dictionary>()) fuzz::classify(*events);
    }
  }
  if (const auto url = HTTPURL::parse(text)) static_cast<void>(url->exposesCleartext());
  static_cast<void>(percentEncoded(text));
  return 0;
}
