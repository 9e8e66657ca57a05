// The functions of KelvoSDK.h.
#include <chrono>

#include "c/HostCall.h"
#include "c/Interface.h"
#include "kelvo/KelvoSDK.h"

using namespace kelvo;

// The numbers of the C interface never change.
static_assert(static_cast<int>(KelvoSDK::State::running) == KELVO_STATE_RUNNING);
static_assert(static_cast<int>(KelvoSDK::State::waitingForConsent) == KELVO_STATE_WAITING_FOR_CONSENT);
static_assert(static_cast<int>(KelvoSDK::State::consentDenied) == KELVO_STATE_CONSENT_DENIED);
static_assert(static_cast<int>(KelvoSDK::State::disabledByService) == KELVO_STATE_DISABLED_BY_SERVICE);
static_assert(static_cast<int>(KelvoSDK::State::switchedOffHere) == KELVO_STATE_SWITCHED_OFF_HERE);
static_assert(static_cast<int>(KelvoSDK::State::homeInUse) == KELVO_STATE_HOME_IN_USE);
static_assert(static_cast<int>(KelvoSDK::State::failed) == KELVO_STATE_FAILED);
static_assert(static_cast<int>(Consent::undecided) == KELVO_CONSENT_UNDECIDED);
static_assert(static_cast<int>(Consent::granted) == KELVO_CONSENT_GRANTED);
static_assert(static_cast<int>(Consent::denied) == KELVO_CONSENT_DENIED);
static_assert(static_cast<int>(FlushOutcome::delivered) == KELVO_FLUSH_DELIVERED);
static_assert(static_cast<int>(FlushOutcome::deadline) == KELVO_FLUSH_DEADLINE);
static_assert(static_cast<int>(FlushOutcome::noService) == KELVO_FLUSH_NO_SERVICE);
static_assert(static_cast<int>(FlushOutcome::refused) == KELVO_FLUSH_REFUSED);
static_assert(static_cast<int>(FlushOutcome::notCollecting) == KELVO_FLUSH_NOT_COLLECTING);
static_assert(static_cast<int>(FlushOutcome::insideCallback) == KELVO_FLUSH_INSIDE_CALLBACK);

namespace {

// The sizes of the first version, which every caller covers.
constexpr std::size_t kOptionsSize = offsetof(kelvo_options, journal_bytes) + sizeof(std::uint64_t);
constexpr std::size_t kFlushResultSize = offsetof(kelvo_flush_result, reason) + sizeof(kelvo_flush_result::reason);
constexpr std::size_t kLedgerSize = offsetof(kelvo_ledger, lost) + sizeof(std::uint64_t);
static_assert(sizeof(void*) != 8 || (kOptionsSize == 128 && kFlushResultSize == 304 && kLedgerSize == 184));

/// Returns a number of `kelvo_options` as one of `Options`, which has 0 for KELVO_NONE; nullopt for 0, the default.
std::optional<std::uint64_t> numberOf(std::uint64_t number) {
  if (number == 0) return std::nullopt;
  return number == KELVO_NONE ? 0 : number;
}

kelvo_flush_result asC(const FlushResult& result) {
  kelvo_flush_result to{};
  to.size = sizeof to;
  to.outcome = static_cast<kelvo_flush_outcome>(result.outcome);
  to.status = result.status;
  to.delivered_events = result.deliveredEvents;
  to.delivered_chunks = result.deliveredChunks;
  to.waiting_events = result.waitingEvents;
  to.waiting_chunks = result.waitingChunks;
  std::size_t length = std::min(result.reason.size(), sizeof to.reason - 1);
  // Not inside a character, whose later bytes begin with the bits 10.
  while (length < result.reason.size() && (static_cast<unsigned char>(result.reason[length]) & 0xC0U) == 0x80U)
    --length;
  result.reason.copy(to.reason, length);
  return to;
}

kelvo_ledger asC(const LedgerCounts& counts) {
  kelvo_ledger to{};
  to.logged = counts.logged;
  to.refused_nameless = counts.refused.nameless;
  to.refused_uncleanable = counts.refused.uncleanable;
  to.refused_disabled = counts.refused.disabled;
  to.refused_terminated = counts.refused.terminated;
  to.refused_storm = counts.refused.storm;
  to.held = counts.held;
  to.dropped_before_consent = counts.droppedBeforeConsent;
  to.ignored = counts.ignored;
  to.counted = counts.counted;
  to.for_plugins = counts.forPlugins;
  to.waiting_in_memory = counts.waitingInMemory;
  to.rescued = counts.rescued;
  to.stored = counts.stored;
  to.not_stored = counts.notStored;
  to.not_for_upload = counts.notForUpload;
  to.sent = counts.sent;
  to.accepted = counts.accepted;
  to.waiting = counts.waiting;
  to.evicted_for_space = counts.evicted.forSpace;
  to.evicted_for_age = counts.evicted.forAge;
  to.lost = counts.lost;
  return to;
}

EventOptions optionsOf(std::uint32_t flags) noexcept {
  return {(flags & KELVO_FLATTEN) != 0};
}

}  // namespace

std::optional<Options> c::optionsOf(const char* function, const kelvo_options* given) {
  if (given == nullptr) return Options();
  if (!covers(function, given->size, kOptionsSize)) return std::nullopt;
  kelvo_options known{};
  std::memcpy(&known, given, std::min(given->size, sizeof known));
  Options options{c::textOrEmpty(known.app_id)};
  options.serverBaseURL = c::textOrEmpty(known.server_base_url);
  options.caFile = c::textOrEmpty(known.ca_file);
  options.home = c::textOrEmpty(known.home);
  options.programName = c::textOrEmpty(known.program_name);
  options.userIdentifier = c::textOrEmpty(known.user_identifier);
  options.appName = c::textOrEmpty(known.app_name);
  options.appVersion = c::textOrEmpty(known.app_version);
  if (known.delivery == KELVO_DELIVERY_CLASSIC) options.delivery = Delivery::classic;
  if (known.delivery == KELVO_DELIVERY_COMPLETE) options.delivery = Delivery::complete;
  if (const auto level = c::logLevel(known.log_level)) options.logLevel = *level;
  options.logSink = c::logSink(known.log_sink, known.log_context);
  options.farewell = known.farewell;
  options.consentRequired = known.consent_required;
  options.maxHeldCalls = numberOf(known.max_held_calls).value_or(options.maxHeldCalls);
  if (known.max_waiting_calls != 0) options.maxWaitingCalls = known.max_waiting_calls;
  options.maxStoredBytes = numberOf(known.max_stored_bytes);
  options.maxStoredDays = known.max_stored_days;
  options.journalBytes = numberOf(known.journal_bytes);
  options.sendLedger = known.send_ledger;
  return options;
}

void kelvo_start(const kelvo_options* options) {
  const char* const function = __func__;
  c::guarded([&] {
    if (const auto converted = c::optionsOf(function, options)) KelvoSDK::start(*converted);
  });
}

void kelvo_initialize_with_id(const char* app_id) {
  KelvoSDK::initializeKelvoWithID(c::text(app_id));
}

void kelvo_on_ready(kelvo_state_callback callback, void* context) {
  if (callback == nullptr) return;
  KelvoSDK::onReady([callback, context](const KelvoSDK::Status& status) {
    if (const c::HostCall call; call.mayBegin()) {
      callback(static_cast<kelvo_state>(status.state), status.reason.c_str(), context);
    }
  });
}

void kelvo_set_consent(kelvo_consent consent) {
  const bool isDecision = consent == KELVO_CONSENT_GRANTED || consent == KELVO_CONSENT_DENIED;
  KelvoSDK::setConsent(isDecision ? static_cast<Consent>(consent) : Consent::undecided);
}

kelvo_consent kelvo_get_consent(void) {
  return static_cast<kelvo_consent>(KelvoSDK::consent());
}

void kelvo_erase(void) {
  KelvoSDK::erase();
}

char* kelvo_describe_data(void) {
  return c::returnedJSON(KelvoSDK::describeData());
}

char* kelvo_get_device_id(void) {
  return c::returned(KelvoSDK::getDeviceID());
}

void kelvo_log_app_event(const char* name, const kelvo_attributes* attributes, uint32_t flags) {
  KelvoSDK::logAppEventWithName(c::text(name), c::dictionary(__func__, attributes), optionsOf(flags));
}

void kelvo_log_app_event_json(const char* name, const char* json, uint32_t flags) {
  KelvoSDK::logAppEventWithName(c::text(name), c::dictionary(__func__, json), optionsOf(flags));
}

void kelvo_log_client_event(const char* name, const kelvo_attributes* attributes, uint32_t flags) {
  KelvoSDK::logClientEventWithName(c::text(name), c::dictionary(__func__, attributes), optionsOf(flags));
}

void kelvo_log_client_event_json(const char* name, const char* json, uint32_t flags) {
  KelvoSDK::logClientEventWithName(c::text(name), c::dictionary(__func__, json), optionsOf(flags));
}

void kelvo_log_aggregate_event(const char* name, const kelvo_attributes* attributes, uint32_t flags) {
  KelvoSDK::logAggregateEvent(c::text(name), c::dictionary(__func__, attributes), optionsOf(flags));
}

void kelvo_log_aggregate_event_json(const char* name, const char* json, uint32_t flags) {
  KelvoSDK::logAggregateEvent(c::text(name), c::dictionary(__func__, json), optionsOf(flags));
}

void kelvo_report_custom_error(const char* error, const kelvo_attributes* attributes) {
  KelvoSDK::reportCustomError(c::text(error), c::dictionary(__func__, attributes));
}

void kelvo_report_custom_error_json(const char* error, const char* json) {
  KelvoSDK::reportCustomError(c::text(error), c::dictionary(__func__, json));
}

void kelvo_set_user_custom_info(const kelvo_attributes* attributes) {
  KelvoSDK::setUserCustomInfo(c::dictionary(__func__, attributes));
}

void kelvo_set_user_custom_info_json(const char* json) {
  KelvoSDK::setUserCustomInfo(c::dictionary(__func__, json));
}

void kelvo_set_session_custom_info(const kelvo_attributes* attributes) {
  KelvoSDK::setSessionCustomInfo(c::dictionary(__func__, attributes));
}

void kelvo_set_session_custom_info_json(const char* json) {
  KelvoSDK::setSessionCustomInfo(c::dictionary(__func__, json));
}

void kelvo_set_user_identifier(const char* identifier) {
  KelvoSDK::setUserIdentifier(c::text(identifier));
}

void kelvo_log_screen(const char* title) {
  KelvoSDK::logScreenWithName(c::text(title));
}

void kelvo_flush(int64_t deadline_ms, kelvo_flush_callback callback, void* context) {
  KelvoSDK::flush(std::chrono::milliseconds(deadline_ms), [callback, context](const FlushResult& result) {
    if (callback == nullptr) return;
    const auto converted = asC(result);
    if (const c::HostCall call; call.mayBegin()) callback(&converted, context);
  });
}

kelvo_flush_outcome kelvo_flush_and_wait(int64_t deadline_ms, kelvo_flush_result* result) {
  if (result != nullptr && !c::covers(__func__, result->size, kFlushResultSize)) return KELVO_FLUSH_NOT_COLLECTING;
  const auto converted = asC(KelvoSDK::flushAndWait(std::chrono::milliseconds(deadline_ms)));
  c::fill(result, converted);
  return converted.outcome;
}

void kelvo_get_ledger(kelvo_ledger* this_process, kelvo_ledger* since_installation) {
  for (const auto* to : {this_process, since_installation}) {
    if (to != nullptr && !c::covers(__func__, to->size, kLedgerSize)) return;
  }
  const Ledger ledger = KelvoSDK::ledger();
  c::fill(this_process, asC(ledger.thisProcess));
  c::fill(since_installation, asC(ledger.sinceInstallation));
}
