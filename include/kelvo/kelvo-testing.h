#ifndef KELVO_KELVO_TESTING_H
#define KELVO_KELVO_TESTING_H

#include "kelvo/kelvo.h"

/*
 * The kit for the tests of a host in C, or in another language (C99). A test links libkelvo-c-testing in place of
 * libkelvo-c: the same functions, but without a network, and with a clock that only the test moves:
 *
 *     kelvo_testing_begin(NULL);
 *     run_checkout();
 *     assert(kelvo_testing_logged("Purchase", "{\"price\": 12.5}"));
 *     kelvo_testing_advance(30);
 *     assert(kelvo_testing_delivered("Purchase") == 1);
 *     kelvo_testing_end();
 *
 * One recorder lives at a time, between `kelvo_testing_begin` and `kelvo_testing_end`. Without it, this library
 * collects nothing. Testing.h has the details of a recorder.
 *
 * Call these functions on the thread that began the recorder, and not in a callback of the library. A function that can
 * do nothing, because no recorder lives, a callback has called it or an argument is wrong, returns false, -1 or NULL,
 * and `kelvo_testing_message` says why. A text that is returned as `char*` belongs to the caller, who releases it with
 * `kelvo_free`. Lists are JSON texts.
 */

#ifdef __cplusplus
extern "C" {
#endif

/* ---- The recorder --------------------------------------------------------------------------------------------- */

/* Makes a fresh home and a service, sets the clock to noon of 1 January 2026 (UTC), starts the library, and waits until
 * it is ready. NULL is the default of each option. No `app_id` is "test". `home`, `server_base_url` and `ca_file` have
 * no effect. Returns false if another recorder lives. */
KELVO_EXPORT_C bool kelvo_testing_begin(const kelvo_options* options);
/* The same, but leaves the start to the code under test. */
KELVO_EXPORT_C bool kelvo_testing_begin_not_started(void);
/* Ends the library and the recorder. No thread, no file and no state of them is left. */
KELVO_EXPORT_C bool kelvo_testing_end(void);

/* Returns why the latest function of this header has returned false, -1 or NULL; empty if none has. Of
 * `kelvo_testing_logged`, it has a list of the host's calls. Valid until the next call of a function of this header. */
KELVO_EXPORT_C const char* kelvo_testing_message(void);

/* ---- What the host has done, and what has arrived ------------------------------------------------------------- */
/* These functions wait for the library's work under way, so a test needs no sleep. */

/* Returns whether the host has logged an event or an error of this name with at least the attributes of the JSON object
 * `json`; NULL is none. */
KELVO_EXPORT_C bool kelvo_testing_logged(const char* name, const char* json);
/* Return the names of the events and errors that the host has logged, and of the screens that were shown, in order. */
KELVO_EXPORT_C char* kelvo_testing_events(void);
KELVO_EXPORT_C char* kelvo_testing_screens(void);
/* Returns all calls of the host that carry data, in order, as objects with these members: "kind" ("application event",
 * "custom error", "screen shown" ...), "name" (also the text of an error; may be empty), "attributes", "time" (seconds
 * since 1970) and "refused" (why the library did not take the call; empty if it did). */
KELVO_EXPORT_C char* kelvo_testing_calls(void);
/* Returns how many events of this name the service has accepted: application events, errors (by their text), FOREGROUND
 * and BACKGROUND, screens, and the counts of aggregates. */
KELVO_EXPORT_C int64_t kelvo_testing_delivered(const char* name);
/* Return the requests that arrived, as "METHOD /path?query", and the chunks that the service has accepted, in order. */
KELVO_EXPORT_C char* kelvo_testing_requests(void);
KELVO_EXPORT_C char* kelvo_testing_chunks(void);
/* Returns the path of the home. */
KELVO_EXPORT_C char* kelvo_testing_home(void);

/* ---- Time and launches ---------------------------------------------------------------------------------------- */

/* Moves the clock by 0 to 1e9 seconds. What becomes due meanwhile happens in order, each at its own time. */
KELVO_EXPORT_C bool kelvo_testing_advance(double seconds);
/* Returns the recorder's time in seconds since 1970 (UTC). */
KELVO_EXPORT_C double kelvo_testing_now(void);
/* Waits until the library has done all its work but timers. Returns false if it is still at work after a minute. */
KELVO_EXPORT_C bool kelvo_testing_settle(void);
/* Ends the use of the library as an exit does, and begins the next launch, a second later, in the same home. The
 * library starts again if the recorder has started it. */
KELVO_EXPORT_C bool kelvo_testing_relaunch(void);
/* Does the same, but runs `code` in a launch of a child process, which is killed as soon as `code` returns. What it
 * delivers counts here; its calls and variables stay there. Returns false if `code` ends the process. */
KELVO_EXPORT_C bool kelvo_testing_killed(kelvo_callback code, void* context);

/* ---- The service ---------------------------------------------------------------------------------------------- */

/* What the service does in place of its normal answer. */
typedef enum kelvo_testing_fault {
  KELVO_TESTING_STATUS = 0,      /* answers with the status `number`, and keeps nothing */
  KELVO_TESTING_GARBAGE = 1,     /* answers 200 with a body that is not JSON, and keeps nothing */
  KELVO_TESTING_CUT = 2,         /* ends the connection before an answer, and keeps nothing */
  KELVO_TESTING_LOST_ANSWER = 3, /* keeps what was sent, and ends the connection before the answer */
  KELVO_TESTING_LATE = 4,        /* answers normally, after `number` seconds, at most 1e9; the library waits 30 */
  KELVO_TESTING_SILENCE = 5      /* never answers, and keeps nothing */
} kelvo_testing_fault;

/* Answers the next `times` uploads of chunks with this status; all of them if `times` is 0. */
KELVO_EXPORT_C bool kelvo_testing_refuse_chunks(int status, uint32_t times);
/* The next `times` requests that contain `part` in "METHOD /path?query" meet the fault; all of them if `times` is 0.
 * NULL is every request. Replaces the earlier fault of the same `part`; of several that match, the latest counts. */
KELVO_EXPORT_C bool kelvo_testing_fail(const char* part, kelvo_testing_fault fault, double number, uint32_t times);
/* Ends all faults. */
KELVO_EXPORT_C bool kelvo_testing_recover(void);

/* Change the documents of the service. The library asks for them at each launch. */
KELVO_EXPORT_C bool kelvo_testing_set_enabled(bool enabled);
/* Sets the lists of event names, JSON lists: client events, aggregates, and ignored ones. NULL is an empty list. */
KELVO_EXPORT_C bool kelvo_testing_set_lists(const char* client, const char* aggregate, const char* ignored);
/* Sets one member of the configuration, such as "max_fg_chunk_send_time", to a JSON value. */
KELVO_EXPORT_C bool kelvo_testing_configure(const char* key, const char* json);

#ifdef __cplusplus
}
#endif

#endif
