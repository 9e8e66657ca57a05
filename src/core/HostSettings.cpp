#include "core/HostSettings.h"

#include <utility>

#include "core/Readiness.h"
#include "platform/Directories.h"
#include "platform/Privileges.h"
#include "platform/ProcessWide.h"
#include "platform/ServiceEndpoint.h"
#include "records/KLVRecordKeys.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLogger.h"

namespace kelvo {
namespace {

const KLVDeliveryRules& rulesOf(Delivery delivery) {
  return delivery == Delivery::classic ? KLVDeliveryRules::classic : KLVDeliveryRules::complete;
}

/// Chooses the delivery that the bundle names. Returns false if it names none; an unknown name chooses `classic`.
bool chooseDelivery(const Value& name) {
  if (name.isNull()) return false;
  const auto* text = name.get<std::string>();
  const KLVDeliveryRules* rules = text != nullptr ? KLVDeliveryRules::named(*text) : nullptr;
  if (rules == nullptr) KLV_ERROR("KelvoDelivery is neither classic nor complete: {}", name);
  KLVDeliveryRules::choose(rules != nullptr ? *rules : KLVDeliveryRules::classic);
  return rules != nullptr;
}

/// Returns the size of the journal that the bundle or the host has chosen. If it is none, logs that and returns the
/// default.
std::uint64_t journalBytes(const Value& chosen) {
  const std::uint64_t bytes = chosen.asUInt64();
  const bool isSize = bytes >= KLVHostLimits::kLeastJournalBytes && bytes <= KLVHostLimits::kMostJournalBytes;
  if (chosen.isInteger() && (isSize || chosen == Value(0))) return bytes;
  KLV_ERROR("The size of the journal is neither 0 nor from {} to {} bytes: {}; {} apply",
            KLVHostLimits::kLeastJournalBytes, KLVHostLimits::kMostJournalBytes, chosen, KLVHostLimits::kJournalBytes);
  return KLVHostLimits::kJournalBytes;
}

/// Returns whether the bundle's "KelvoConsent" requires consent. An unknown value does: nobody writes the key without
/// the wish to ask first.
bool bundleRequiresConsent(const Value& value) {
  if (value.isNull()) return false;
  if (value != Value("required"))
    KLV_ERROR("KelvoConsent has an unknown value: {}; the only one is \"required\", which applies", value);
  return true;
}

}  // namespace

HostSettings& HostSettings::shared() {
  static ProcessWide<HostSettings> instance;
  return *instance;
}

bool HostSettings::refusesForeignRights() {
  if (!actsForAnotherUser()) return false;
  static std::atomic<bool> isLogged{false};
  const std::string reason = "The program acts for another user than the one who started it";
  if (!isLogged.exchange(true)) KLV_ERROR("The library does not start: {}", reason);
  Readiness::shared().set(Readiness::State::failed, reason);
  return true;
}

void HostSettings::applyBundle(const Dictionary& info) {
  if (info["KelvoFarewell"] == Value(false)) chooseFarewell(false);
  const bool namesDelivery = chooseDelivery(info["KelvoDelivery"]);
  if (bundleRequiresConsent(info["KelvoConsent"])) requiresConsent_ = true;
  if (const Value& bytes = info["KelvoJournalBytes"]; !bytes.isNull()) {
    KLVHostLimits limits;
    limits.journalBytes = journalBytes(bytes);
    KLVHostLimits::choose(limits);
  }
  const Lock lock(mutex_);
  bundleNamesDelivery_ = namesDelivery;
}

void HostSettings::applyOutput(const Options& options) {
  dropHeldLine();
  chooseFarewell(options.farewell);
  if (options.consentRequired) requiresConsent_ = true;
  if (options.logSink) KLVLogger::setSink(options.logSink);
  KLVLogger::chooseLevel(options.logLevel);
}

void HostSettings::apply(const Options& options) {
  applyOutput(options);
  ServiceEndpoint::choose(options.serverBaseURL, options.caFile);
  Directories::nameProgram(options.programName);
  if (!options.home.empty() && !Directories::chooseHome(options.home)) {
    KLV_ERROR("The home {} was chosen too late: {} is in use", options.home, Directories::library());
  }
  Lock lock(mutex_);
  appName_ = options.appName;
  appVersion_ = options.appVersion;
  const bool keepsBundlesDelivery = bundleNamesDelivery_ && !options.delivery;
  lock.unlock();
  if (!keepsBundlesDelivery) KLVDeliveryRules::choose(rulesOf(options.delivery.value_or(Delivery::complete)));
  KLVHostLimits::choose({.mostHeldCalls = options.maxHeldCalls,
                         .mostWaitingCalls = options.maxWaitingCalls,
                         .mostStoredBytes = options.maxStoredBytes,
                         .mostStoredDays = options.maxStoredDays,
                         .journalBytes = options.journalBytes ? journalBytes(*options.journalBytes)
                                                              : KLVHostLimits::current().journalBytes,
                         .sendsLedger = options.sendLedger});
}

void HostSettings::rename(KLVAppInfo& app) {
  const Lock lock(mutex_);
  if (!appName_.empty()) app.setIdentifier(appName_);
  if (!appVersion_.empty()) app.setInfo(appVersion_, kKLVAppVersion);
}

void HostSettings::holdLine(std::function<void()> write) {
  const Lock lock(mutex_);
  heldLine_ = std::move(write);
}

void HostSettings::writeHeldLine() {
  std::function<void()> write;
  {
    const Lock lock(mutex_);
    write.swap(heldLine_);
  }
  if (write) write();
}

}  // namespace kelvo
