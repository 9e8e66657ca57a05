// The C interface, called as a program in C calls it.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kelvo-collector/http/Server.h"
#include "kelvo/kelvo.h"
#include "support/LogCapture.h"
#include "util/KLVDeliveryRules.h"
#include "util/KLVHostLimits.h"
#include "util/KLVLogger.h"

namespace kelvo::test {
namespace {

/// Takes a text that the library has returned.
std::optional<std::string> taken(char* text) {
  if (text == nullptr) return std::nullopt;
  std::string copy = text;
  kelvo_free(text);
  return copy;
}

/// Starts the library of this process once, with a collector.
class Interface : public testing::Test {
 protected:
  Interface() { service.start(); }

  kelvo_options options() {
    url_ = service.baseURL();
    kelvo_options options{};
    options.size = sizeof options;
    options.app_id = "shop";
    options.server_base_url = url_.c_str();
    return options;
  }
  void start() {
    const auto chosen = options();
    kelvo_start(&chosen);
    static std::promise<void> isRunning;
    kelvo_on_ready(
        [](kelvo_state state, const char*, void* context) {
          if (state == KELVO_STATE_RUNNING) static_cast<std::promise<void>*>(context)->set_value();
        },
        &isRunning);
    ASSERT_EQ(isRunning.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  }
  /// Delivers all, and returns what arrived as one JSON text.
  std::string delivered() {
    EXPECT_EQ(kelvo_flush_and_wait(20000, nullptr), KELVO_FLUSH_DELIVERED);
    std::string all;
    for (const Value& chunk : service.chunks()) all += description(chunk);
    return all;
  }

  collector::Server service;
  const LogCapture log;

 private:
  std::string url_;
};

TEST_F(Interface, CallsArriveWithTheirAttributes) {
  start();
  auto* info = kelvo_attributes_create();
  kelvo_attributes_set_text(info, "text", "grün");
  kelvo_attributes_set_text(info, "nil", nullptr);
  kelvo_attributes_set_integer(info, "integer", INT64_MIN);
  kelvo_attributes_set_unsigned(info, "unsigned", UINT64_MAX);
  kelvo_attributes_set_number(info, "number", 0.5);
  kelvo_attributes_set_bool(info, "bool", true);
  kelvo_attributes_set_json(info, "json", R"({"x": [1, 2]})");
  kelvo_attributes_set_json(info, "json", "{");  // changes nothing
  kelvo_log_app_event("Handle", info, 0);
  kelvo_attributes_set_text(info, "later", "not in the first");
  kelvo_log_app_event("Flat", info, KELVO_FLATTEN);
  kelvo_attributes_free(info);
  kelvo_log_app_event_json("JSON", R"({"integer": 9007199254740993, "d": {"x": 1}})", 0);
  kelvo_log_aggregate_event_json("Counted", nullptr, 0);
  kelvo_report_custom_error_json("it broke", R"({"code": 7})");
  kelvo_set_user_custom_info_json(R"({"plan": "gold"})");
  kelvo_set_session_custom_info_json(R"({"campaign": "spring"})");
  kelvo_set_user_identifier("user-1");
  kelvo_show("Basket", "Your basket");
  kelvo_log_screen("Payment");
  kelvo_show("Thanks", nullptr);
  const std::uint8_t token[] = {0xAB, 0x01};
  kelvo_log_device_token_data(token, sizeof token);
  kelvo_log_app_event("Last", nullptr, 0);
  const std::string arrived = delivered();
  for (const char* part :
       {R"("text":"grün","integer":-9223372036854775808,"unsigned":18446744073709551615,"number":0.5,"bool":true,)"
        R"("json":"{\"x\":[1,2]}",)",
        R"("json_x":[1,2],"later":)", R"({"integer":9007199254740993,"d":"{\"x\":1}",)", R"("Counted")",
        R"("it broke")", R"("code":7)", R"("plan":"gold")", R"("campaign":"spring")", R"("user-1")", R"("Your basket")",
        R"("Payment")", R"("AB01")"}) {
    EXPECT_NE(arrived.find(part), std::string::npos) << part << " in " << arrived;
  }
  EXPECT_TRUE(log.waitFor("<KLV ERROR> kelvo_attributes_set_json: the argument is no JSON: "));
  EXPECT_EQ(taken(kelvo_get_lifetime_counts(std::vector{"Handle", "Never"}.data(), 2)), R"({"Handle":1,"Never":0})");
}

TEST_F(Interface, BadJSONCostsAnErrorLineAndTheAttributesOnly) {
  start();
  const struct {
    const char* json;
    const char* line;
  } cases[] = {{"", "no JSON: "},
               {"{", "no JSON: "},
               {"{\"a\": NaN}", "no JSON: "},
               {"{} {}", "no JSON: "},
               {"{\"a\": \"\xFF\"}", "no JSON: "},
               {"[1]", "but no object"},
               {"null", "but no object"}};
  std::size_t lines = 0;
  for (const auto& [json, line] : cases) {
    kelvo_log_app_event_json("Bad", json, 0);
    kelvo_set_user_custom_info_json(json);
    ++lines;
    for (const std::string function : {"kelvo_log_app_event_json", "kelvo_set_user_custom_info_json"}) {
      EXPECT_TRUE(log.waitFor("<KLV ERROR> " + function + ": the argument is "));
    }
  }
  EXPECT_EQ(kelvo_flush_and_wait(20000, nullptr), KELVO_FLUSH_DELIVERED);
  EXPECT_EQ(log.count("<KLV ERROR> kelvo_log_app_event_json: "), lines);
  EXPECT_EQ(log.count("but no object Application"), 4U);
  EXPECT_EQ(kelvo_get_lifetime_count("Bad"), static_cast<std::int64_t>(lines)) << "each event is logged";
}

/// Calls every function with NULL for every pointer.
void callAllWithNull() {
  for (const auto call : {kelvo_initialize_with_id, kelvo_set_user_custom_info_json, kelvo_set_session_custom_info_json,
                          kelvo_set_user_identifier, kelvo_log_screen, kelvo_log_device_token}) {
    call(nullptr);
  }
  for (const auto call : {kelvo_report_custom_error_json, kelvo_will_show, kelvo_did_show, kelvo_show,
                          kelvo_persist_pid_mid_dict, kelvo_save_frequency_info}) {
    call(nullptr, nullptr);
  }
  for (const auto call : {kelvo_log_app_event, kelvo_log_client_event, kelvo_log_aggregate_event})
    call(nullptr, nullptr, 0);
  for (const auto call : {kelvo_log_app_event_json, kelvo_log_client_event_json, kelvo_log_aggregate_event_json}) {
    call(nullptr, nullptr, 0);
  }
  for (const auto call : {kelvo_set_user_custom_info, kelvo_set_session_custom_info}) call(nullptr);
  for (const auto call : {kelvo_register_for_event_type, kelvo_deregister_for_event_type})
    call(KELVO_EVENT_APP, nullptr);
  for (const auto call : {kelvo_register_for_event_key, kelvo_deregister_for_event_key}) call(nullptr, nullptr);
  for (char* text : {kelvo_get_pid_mid_dict(nullptr), kelvo_identifier_key(KELVO_EVENT_APP, nullptr),
                     kelvo_retrieve_frequency_info(nullptr), kelvo_get_lifetime_counts(nullptr, 3)}) {
    EXPECT_EQ(taken(text), std::nullopt);
  }
  EXPECT_EQ(taken(kelvo_get_config(nullptr)).value_or("{}"), "{}");
  EXPECT_EQ(kelvo_get_lifetime_count(nullptr), 0);
  kelvo_free(nullptr);
  kelvo_on_ready(nullptr, nullptr);
  kelvo_write_log_line(KELVO_LOG_ERROR, nullptr);
  kelvo_attributes_free(nullptr);
  kelvo_attributes_set_text(nullptr, "key", "value");
  kelvo_attributes_set_json(nullptr, nullptr, nullptr);
  auto* empty = kelvo_attributes_create();
  kelvo_attributes_set_integer(empty, nullptr, 1);
  kelvo_attributes_free(empty);
  kelvo_report_custom_error(nullptr, nullptr);
  kelvo_log_device_token_data(nullptr, 5);
  kelvo_set_main_loop(nullptr, nullptr, nullptr);
  kelvo_flush(0, nullptr, nullptr);
  kelvo_get_ledger(nullptr, nullptr);
  kelvo_get_sync_data(nullptr, nullptr, nullptr, nullptr);
  kelvo_listener_free(nullptr);
  kelvo_listener_free(kelvo_listener_create(nullptr, nullptr, nullptr));
  kelvo_dispatch_event(KELVO_EVENT_UNKNOWN, nullptr, nullptr);
  kelvo_dispatch_event_json(KELVO_EVENT_UNKNOWN, nullptr, nullptr);
  kelvo_get_data(nullptr, nullptr, nullptr);
  kelvo_post_data(nullptr, nullptr, nullptr, nullptr, nullptr);
  kelvo_delete_data(nullptr, nullptr, nullptr, nullptr);
  kelvo_register_timer(0.001, nullptr, nullptr);
  kelvo_execute_after_delay(0, nullptr, nullptr);
}

TEST_F(Interface, NullIsAllowedEverywhere) {
  kelvo_start(nullptr);
  callAllWithNull();
  EXPECT_EQ(kelvo_flush_and_wait(0, nullptr), KELVO_FLUSH_NOT_COLLECTING);
  start();
  callAllWithNull();
  kelvo_log_app_event("After", nullptr, 0);
  EXPECT_NE(delivered().find("\"After\""), std::string::npos);
}

TEST_F(Interface, AStructMayBeSmallerOrLargerThanThisVersionKnows) {
  struct Later {
    kelvo_flush_result known;
    char unknown[8];
  } later{};
  std::memset(&later, 'x', sizeof later);
  auto early = options();
  early.size = offsetof(kelvo_options, journal_bytes);
  kelvo_start(&early);
  EXPECT_TRUE(log.waitFor("<KLV ERROR> kelvo_start: the struct's size is 120, but needs 128"));
  later.known.size = 12;
  EXPECT_EQ(kelvo_flush_and_wait(0, &later.known), KELVO_FLUSH_NOT_COLLECTING);
  EXPECT_TRUE(log.waitFor("<KLV ERROR> kelvo_flush_and_wait: the struct's size is 12, but needs 304"));
  EXPECT_EQ(later.known.status, 0x78787878) << "nothing is written";
  start();
  kelvo_log_app_event("Event", nullptr, 0);
  later.known.size = sizeof later;
  EXPECT_EQ(kelvo_flush_and_wait(20000, &later.known), KELVO_FLUSH_DELIVERED);
  EXPECT_EQ(later.known.size, sizeof later);
  EXPECT_EQ(later.known.outcome, KELVO_FLUSH_DELIVERED);
  EXPECT_EQ(later.known.delivered_events, 2U) << "and klv_app_opened";
  EXPECT_STREQ(later.known.reason, "");
  EXPECT_EQ(std::string(later.unknown, sizeof later.unknown), "xxxxxxxx");
  kelvo_ledger present{}, ever{};
  present.size = ever.size = sizeof present;
  kelvo_get_ledger(&present, &ever);
  EXPECT_EQ(present.accepted, 2U);
  EXPECT_EQ(ever.accepted, 2U);
}

struct Choice {
  const char* name;
  kelvo_options options;
  KLVHostLimits limits;
  bool isComplete;
  bool logsInfo;
};

class Choices : public Interface, public testing::WithParamInterface<Choice> {};

TEST_P(Choices, AreThoseOfTheOptions) {
  const Choice& given = GetParam();
  kelvo_options chosen = given.options;
  chosen.size = sizeof chosen;
  chosen.app_id = "shop";
  kelvo_start(&chosen);
  const auto limits = KLVHostLimits::current();
  EXPECT_EQ(limits.mostHeldCalls, given.limits.mostHeldCalls);
  EXPECT_EQ(limits.mostWaitingCalls, given.limits.mostWaitingCalls);
  EXPECT_EQ(limits.mostStoredBytes, given.limits.mostStoredBytes);
  EXPECT_EQ(limits.mostStoredDays, given.limits.mostStoredDays);
  EXPECT_EQ(limits.journalBytes, given.limits.journalBytes);
  EXPECT_EQ(limits.sendsLedger, given.limits.sendsLedger);
  EXPECT_EQ(KLVDeliveryRules::current().keepsJournal, given.isComplete);
  EXPECT_EQ(KLVLogger::writes(LogLevel::info), given.logsInfo);
  EXPECT_EQ(kelvo_get_consent(), chosen.consent_required ? KELVO_CONSENT_UNDECIDED : KELVO_CONSENT_GRANTED);
}

kelvo_options numbers(std::uint64_t number) {
  kelvo_options options{};
  options.max_held_calls = options.max_waiting_calls = options.max_stored_bytes = options.journal_bytes = number;
  return options;
}

std::vector<Choice> choices() {
  kelvo_options all = numbers(70000);
  all.delivery = KELVO_DELIVERY_CLASSIC;
  all.log_level = KELVO_LOG_INFO;
  all.consent_required = all.send_ledger = true;
  all.max_stored_days = 9;
  return {{"defaults", numbers(0), {.mostStoredBytes = 100U << 20}, true, false},
          {"none", numbers(KELVO_NONE), {0, SIZE_MAX, 0, 0, 0, false}, true, false},
          {"all", all, {70000, 70000, 70000, 9, 70000, true}, false, true}};
}
INSTANTIATE_TEST_SUITE_P(, Choices, testing::ValuesIn(choices()), [](const auto& test) { return test.param.name; });

TEST_F(Interface, ConsentDecidesAndAnErasureMakesANewDevice) {
  auto chosen = options();
  chosen.consent_required = true;
  kelvo_start(&chosen);
  EXPECT_EQ(kelvo_get_consent(), KELVO_CONSENT_UNDECIDED);
  EXPECT_EQ(taken(kelvo_get_device_id()), std::nullopt);
  kelvo_log_app_event("Held", nullptr, 0);
  kelvo_ledger ledger{};
  ledger.size = sizeof ledger;
  kelvo_get_ledger(&ledger, nullptr);
  EXPECT_EQ(ledger.held, 1U);
  kelvo_set_consent(KELVO_CONSENT_GRANTED);
  EXPECT_NE(delivered().find("\"Held\""), std::string::npos);
  const auto first = taken(kelvo_get_device_id());
  EXPECT_EQ(first.value_or("").size(), 36U);
  kelvo_erase();
  kelvo_log_app_event("Second", nullptr, 0);
  EXPECT_NE(delivered().find("\"Second\""), std::string::npos);
  EXPECT_NE(taken(kelvo_get_device_id()), first);
  const auto description = taken(kelvo_describe_data()).value_or("");
  EXPECT_EQ(description.rfind("{\"", 0), 0U);
  EXPECT_NE(description.find(R"("purpose":)"), std::string::npos);
}

/// What callbacks of C leave behind. Thread-safe.
class Notes {
 public:
  void add(std::string note) {
    const std::lock_guard lock(mutex_);
    notes_.push_back(std::move(note));
  }
  [[nodiscard]] bool waitFor(const std::string& note) const {
    for (int i = 0; i < 2000; ++i) {
      if (count(note) > 0) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  /// Returns the number of notes that begin with `note`.
  [[nodiscard]] std::ptrdiff_t count(const std::string& note) const {
    const std::lock_guard lock(mutex_);
    return std::count_if(notes_.begin(), notes_.end(), [&](const auto& each) { return each.rfind(note, 0) == 0; });
  }
  [[nodiscard]] static Notes& of(void* context) { return *static_cast<Notes*>(context); }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> notes_;
};

TEST_F(Interface, CallbacksGetTheirContextAndWhatHappened) {
  static Notes notes;  // the library's threads outlive the test
  const kelvo_callback note = [](void* context) { Notes::of(context).add("called"); };
  start();
  auto* listener = kelvo_listener_create(
      [](const kelvo_event* event, void* context) {
        Notes::of(context).add(std::to_string(event->type) + " " + event->name + " " + event->attributes);
      },
      [](void* context) { Notes::of(context).add("released"); }, &notes);
  const std::string key = taken(kelvo_identifier_key(KELVO_EVENT_CLIENT, "Clicked")).value_or("");
  EXPECT_EQ(key, "5___Clicked");
  for (const char* each : {key.c_str(), "15___Asked"}) kelvo_register_for_event_key(each, listener);
  kelvo_log_client_event_json("Clicked", R"({"x": 1})", 0);
  kelvo_dispatch_event_json(KELVO_EVENT_SURVEY, "Asked", nullptr);
  EXPECT_TRUE(notes.waitFor(R"(5 Clicked {"x":1,)"));
  EXPECT_TRUE(notes.waitFor("15 Asked {"));
  for (const char* each : {key.c_str(), "15___Asked"}) kelvo_deregister_for_event_key(each, listener);
  EXPECT_EQ(notes.count("released"), 0) << "the handle still has it";
  kelvo_listener_free(listener);
  EXPECT_TRUE(notes.waitFor("released"));

  kelvo_execute_after_delay(0, note, &notes);
  EXPECT_TRUE(notes.waitFor("called"));
  kelvo_flush(
      20000,
      [](const kelvo_flush_result* result, void* context) {
        Notes::of(context).add("flushed " + std::to_string(result->outcome) + " " + result->reason);
      },
      &notes);
  EXPECT_TRUE(notes.waitFor("flushed 0 "));
  service.answer("/echo", {418, std::string("tea\0pot", 7)});
  const kelvo_http_callback answered = [](const kelvo_http_answer* answer, void* context) {
    const std::string body(answer->body, answer->body_size);
    Notes::of(context).add(std::to_string(answer->status) + " " + body + answer->error);
  };
  kelvo_post_data("/echo", R"({"a": 1})", R"({"X-Test": "yes"})", answered, &notes);
  EXPECT_TRUE(notes.waitFor(std::string("418 tea\0pot", 11)));
  const auto requests = service.requests("/echo");
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(description(requests[0].body), R"({"a":1})");

  kelvo_set_log_sink(
      [](kelvo_log_level level, const char* line, void* context) {
        if (level == KELVO_LOG_ERROR) Notes::of(context).add(std::string(line).substr(0, 19));
      },
      &notes);
  kelvo_write_log_line(KELVO_LOG_ERROR, "of mine");
  EXPECT_TRUE(notes.waitFor("<KLV ERROR> of mine"));
  kelvo_set_log_sink(nullptr, nullptr);
}

TEST_F(Interface, TheHostsLoopRunsEachTaskOnce) {
  struct Loop {
    std::mutex mutex;
    std::vector<std::pair<kelvo_callback, void*>> tasks;
  };
  static Loop& loop = *new Loop;  // the exit leaves its tasks alone
  static std::atomic<int> calls{0};
  kelvo_set_main_loop(
      [](kelvo_callback task, void* taskContext, void* context) {
        auto& to = *static_cast<Loop*>(context);
        const std::lock_guard lock(to.mutex);
        to.tasks.emplace_back(task, taskContext);
      },
      [](void*) { return false; }, &loop);
  start();
  kelvo_register_timer(
      0.01, [](void*) { ++calls; }, nullptr);
  for (int i = 0; i < 2000 && calls < 2; ++i) {
    std::vector<std::pair<kelvo_callback, void*>> tasks;
    {
      const std::lock_guard lock(loop.mutex);
      tasks.swap(loop.tasks);
    }
    for (const auto& [task, context] : tasks) task(context);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_GE(calls, 2);
  kelvo_set_main_loop(nullptr, nullptr, nullptr);
}

}  // namespace
}  // namespace kelvo::test
