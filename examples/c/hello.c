/*
 * The smallest useful host in C: it starts the library, logs one event, and sends it.
 *
 * Start `kelvo-collector` in one terminal, and this program in another:
 *   KELVO_SERVER_BASE_URL=http://127.0.0.1:8288 hello-c
 */
#include <kelvo/kelvo.h>
#include <stdio.h>

int main(void) {
  kelvo_options options = {.size = sizeof options, .app_id = "hello-c"};
  kelvo_flush_result result = {.size = sizeof result};
  kelvo_attributes* greeting = kelvo_attributes_create();

  /* Call this once, at the start. It returns at once; the library starts in the background. */
  kelvo_start(&options);
  kelvo_did_become_active();

  kelvo_attributes_set_text(greeting, "language", "en");
  kelvo_attributes_set_integer(greeting, "words", 2);
  kelvo_log_app_event("Greeting", greeting, 0);
  kelvo_attributes_free(greeting);
  kelvo_log_app_event_json("Farewell", "{\"language\": \"en\", \"mood\": {\"glad\": true}}", KELVO_FLATTEN);

  kelvo_will_resign_active();
  /* Wait until the service has everything. Without this call, the next launch sends what is still stored. */
  if (kelvo_flush_and_wait(5000, &result) != KELVO_FLUSH_DELIVERED) {
    fprintf(stderr, "not delivered: %s\n", result.reason);
    return 1;
  }
  return 0;
}
