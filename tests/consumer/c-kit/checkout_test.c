#include "checkout.h"

#include <kelvo/kelvo-testing.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define EXPECT(what) ((what) ? (void)0 : fail(__LINE__, #what))

static void fail(int line, const char* what) {
  fprintf(stderr, "%d: %s\n%s\n", line, what, kelvo_testing_message());
  exit(EXIT_FAILURE);
}

/* Returns whether a text of the library is `expected`, and releases it. */
static bool is(char* text, const char* expected) {
  const bool are_equal = text != NULL && strcmp(text, expected) == 0;
  if (!are_equal) fprintf(stderr, "%s\n", text != NULL ? text : "NULL");
  kelvo_free(text);
  return are_equal;
}

/* Returns whether the message of the last function contains `part`. */
static bool says(const char* part) {
  return strstr(kelvo_testing_message(), part) != NULL;
}

static void test_a_checkout(void) {
  EXPECT(kelvo_testing_begin(NULL));
  const double begin = kelvo_testing_now();
  run_checkout();
  EXPECT(kelvo_testing_logged("Purchase", "{\"price\": 12.5}") && says(""));
  EXPECT(!kelvo_testing_logged("Purchase", "{\"price\": 13}"));
  EXPECT(says("Expected event: Purchase {\"price\":13}\nThe host has made 3 calls:\n  screen shown Basket\n"));
  EXPECT(is(kelvo_testing_events(), "[\"Purchase\"]") && is(kelvo_testing_screens(), "[\"Basket\",\"Thank you\"]"));
  EXPECT(kelvo_testing_refuse_chunks(503, 2) && kelvo_testing_advance(31 * 60));
  EXPECT(kelvo_testing_now() - begin == 31 * 60);
  EXPECT(kelvo_testing_relaunch());
  EXPECT(kelvo_testing_delivered("Purchase") == 1 && kelvo_testing_delivered("Thank you") == 1);
  EXPECT(kelvo_testing_end());
}

static void log_and_wait(void* context) {
  kelvo_log_app_event_json("Delivered", NULL, 0);
  EXPECT(kelvo_testing_advance(30));
  kelvo_log_app_event_json(context, NULL, 0);
}

static void test_a_kill(void) {
  char last[] = "Just returned";
  EXPECT(kelvo_testing_begin(NULL));
  EXPECT(kelvo_testing_killed(log_and_wait, last) && kelvo_testing_relaunch());
  EXPECT(kelvo_testing_delivered("Delivered") == 1 && kelvo_testing_delivered(last) == 1);
  EXPECT(is(kelvo_testing_calls(), "[]") && kelvo_testing_end());
}

static void on_ready(kelvo_state state, const char* reason, void* context) {
  bool* was_called = context;
  *was_called = state == KELVO_STATE_RUNNING && reason[0] != '\0' && !kelvo_testing_settle() && says("callback");
}

static void test_the_start_of_the_host(void) {
  kelvo_options options = {.size = sizeof options, .app_id = "shop"};
  for (int launch = 0; launch < 3; ++launch) { /* the later ones begin after all callbacks were stopped */
    bool was_called = false;
    EXPECT(launch == 1 ? kelvo_testing_relaunch() : kelvo_testing_begin_not_started());
    EXPECT(!kelvo_testing_begin(NULL) && says("Recorder lives"));
    kelvo_on_ready(on_ready, &was_called);
    kelvo_start(&options);
    EXPECT(kelvo_testing_settle() && was_called);
    kelvo_stop_callbacks();
    if (launch > 0) EXPECT(kelvo_testing_end());
  }
  options.consent_required = true;
  EXPECT(kelvo_testing_begin(&options) && kelvo_get_consent() == KELVO_CONSENT_UNDECIDED);
  run_checkout();
  EXPECT(kelvo_testing_advance(60) && is(kelvo_testing_requests(), "[]"));
  EXPECT(kelvo_testing_end());
}

static void test_wrong_uses(void) {
  kelvo_options small = {.size = 8};
  EXPECT(!kelvo_testing_end() && says("No recorder lives"));
  EXPECT(!kelvo_testing_relaunch() && !kelvo_testing_screens() && kelvo_testing_delivered("A") == -1);
  EXPECT(!kelvo_testing_begin(&small) && says("too small") && kelvo_testing_begin(NULL));
  EXPECT(!kelvo_testing_logged(NULL, NULL) && !kelvo_testing_logged("A", "[]") && says("no JSON object"));
  EXPECT(kelvo_testing_delivered(NULL) == -1 && !kelvo_testing_configure("a", NULL) && says("json is NULL"));
  EXPECT(!kelvo_testing_set_lists(NULL, "{}", NULL) && says("aggregate is no JSON list"));
  EXPECT(!kelvo_testing_advance(-1) && !kelvo_testing_fail(NULL, (kelvo_testing_fault)9, 0, 1) && says("no such fault"));
  EXPECT(kelvo_testing_fail(NULL, KELVO_TESTING_CUT, 0, 0) && kelvo_testing_killed(NULL, NULL));
  EXPECT(kelvo_testing_end());
}

int main(void) {
  test_a_checkout();
  test_a_kill();
  test_the_start_of_the_host();
  test_wrong_uses();
  return EXIT_SUCCESS;
}
