#ifndef KELVO_KELVO_H
#define KELVO_KELVO_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/*
 * The C interface of Kelvo (C99), for C programs and for bindings to other languages:
 *
 *     kelvo_options options = {.size = sizeof options, .app_id = "my-app"};
 *     kelvo_start(&options);
 *     kelvo_log_app_event_json("Purchase", "{\"item\": \"book\", \"price\": 12.5}", 0);
 *
 * Each function does what the C++ function of the same name does; the headers KelvoSDK.h, Application.h and
 * PluginServices.h have the details. All are thread-safe, except that one `kelvo_attributes` is used by one thread at a
 * time. Only functions marked "Blocks" block. None of them does anything in a forked child.
 *
 * Texts are UTF-8, end with NUL, and are copied; NULL is nil. A text that a function returns as `char*` belongs to the
 * caller, who releases it with `kelvo_free`; it is NULL where the comment says so, and if memory is short.
 *
 * JSON arguments are the text of one object; NULL is nil. A text that is something else costs one ERROR line, and the
 * call is made with nil in its place: an event is then logged without attributes. NaN and Infinity are no JSON.
 *
 * A struct begins with its size: whoever makes one sets `size` to its `sizeof`, and everything else to 0 or a value. A
 * later version of the library may know more members, and leaves out those that the size does not cover. A size that is
 * too small for the members of this version costs one ERROR line, and the call does nothing. Enumerations may grow,
 * too.
 *
 * A callback gets `context` last. Its arguments are valid until it returns. It must not throw and must not call
 * `longjmp`. `context` must stay valid as long as the callback may come: without another rule, until the process ends.
 * A NULL callback counts as one that does nothing.
 */

#define KELVO_EXPORT_C __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

KELVO_EXPORT_C void kelvo_free(void* text); /* NULL is allowed */

/* Lets no callback of this interface begin any more, and returns once those that run have ended, except those that the
 * calling thread is in. For a language whose runtime ends before the process does. Blocks. */
KELVO_EXPORT_C void kelvo_stop_callbacks(void);

/* ---- Start and log -------------------------------------------------------------------------------------------- */

typedef enum kelvo_log_level {
  KELVO_LOG_DEFAULT = 0, /* only in `kelvo_options`: KELVO_LOG_ERROR */
  KELVO_LOG_DEBUG = 1,
  KELVO_LOG_INFO = 2,
  KELVO_LOG_WARN = 3,
  KELVO_LOG_ERROR = 4,
  KELVO_LOG_OFF = 5 /* only a threshold, never a line's level */
} kelvo_log_level;

/* Takes one log line, without the line feed. The log thread calls it for one line at a time. */
typedef void (*kelvo_log_sink)(kelvo_log_level level, const char* line, void* context);

typedef enum kelvo_delivery {
  KELVO_DELIVERY_DEFAULT = 0, /* that of the bundle, else KELVO_DELIVERY_COMPLETE */
  KELVO_DELIVERY_CLASSIC = 1,
  KELVO_DELIVERY_COMPLETE = 2
} kelvo_delivery;

#define KELVO_NONE UINT64_MAX /* a number in `kelvo_options`: no limit, no calls, or no journal */

/* The settings of `kelvo_start`, as in Options.h. 0, NULL and false are the defaults. */
typedef struct kelvo_options {
  size_t size;
  const char* app_id; /* required */
  const char* server_base_url;
  const char* ca_file;
  const char* home;
  const char* user_identifier;
  const char* app_name;
  const char* app_version;
  kelvo_delivery delivery;
  kelvo_log_level log_level;
  kelvo_log_sink log_sink; /* NULL: the present sink stays */
  void* log_context;       /* the last argument of `log_sink` */
  bool farewell;
  bool consent_required;
  bool send_ledger;
  uint32_t max_stored_days;   /* 0: never too old */
  uint64_t max_held_calls;    /* 0: 1,000; KELVO_NONE: no call is held */
  uint64_t max_waiting_calls; /* 0: 100,000; KELVO_NONE: no limit */
  uint64_t max_stored_bytes;  /* 0: the default of the rules of delivery; KELVO_NONE: no limit */
  uint64_t journal_bytes;     /* 0: that of the bundle, else 4 MiB; KELVO_NONE: no journal */
  const char* program_name;   /* in place of the executable's name */
} kelvo_options;

/* Starts the library. Returns before the start-up ends. Only the first start of a process counts. */
KELVO_EXPORT_C void kelvo_start(const kelvo_options* options);
/* Starts the library under the classic rules, with the settings of the bundle. */
KELVO_EXPORT_C void kelvo_initialize_with_id(const char* app_id);

typedef enum kelvo_state {
  KELVO_STATE_RUNNING = 0,
  KELVO_STATE_WAITING_FOR_CONSENT = 1,
  KELVO_STATE_CONSENT_DENIED = 2,
  KELVO_STATE_DISABLED_BY_SERVICE = 3,
  KELVO_STATE_SWITCHED_OFF_HERE = 4,
  KELVO_STATE_HOME_IN_USE = 5,
  KELVO_STATE_FAILED = 6
} kelvo_state;

/* `reason` is one sentence for people, never NULL. */
typedef void (*kelvo_state_callback)(kelvo_state state, const char* reason, void* context);

/* Calls `callback` with the present state as soon as it is known, and again with each new one. It runs on a library
 * queue; while the library waits for consent, inside `kelvo_start` or this function. */
KELVO_EXPORT_C void kelvo_on_ready(kelvo_state_callback callback, void* context);

/* Sends the log lines to `sink`; NULL restores standard error. A replaced sink may still get a line that is already
 * being written. */
KELVO_EXPORT_C void kelvo_set_log_sink(kelvo_log_sink sink, void* context);
/* Writes a line of a binding or an adapter to the library's log, if the level of the log admits it. */
KELVO_EXPORT_C void kelvo_write_log_line(kelvo_log_level level, const char* line);

/* ---- Consent and data ----------------------------------------------------------------------------------------- */

typedef enum kelvo_consent {
  KELVO_CONSENT_UNDECIDED = 0,
  KELVO_CONSENT_GRANTED = 1,
  KELVO_CONSENT_DENIED = 2
} kelvo_consent;

KELVO_EXPORT_C void kelvo_set_consent(kelvo_consent consent);
KELVO_EXPORT_C kelvo_consent kelvo_get_consent(void);
KELVO_EXPORT_C void kelvo_erase(void);
/* Returns every kind of data that may be collected, as a JSON object of objects with "what", "purpose", "stored" and
 * "kept". */
KELVO_EXPORT_C char* kelvo_describe_data(void);
/* Returns the id of this device, NULL until the start-up has it. */
KELVO_EXPORT_C char* kelvo_get_device_id(void);

/* ---- Attributes ----------------------------------------------------------------------------------------------- */

/* A map from keys to values. Calls copy it, so one map serves many calls. */
typedef struct kelvo_attributes kelvo_attributes;

/* Returns an empty map, which `kelvo_attributes_free` releases; NULL if memory is short. */
KELVO_EXPORT_C kelvo_attributes* kelvo_attributes_create(void);
KELVO_EXPORT_C void kelvo_attributes_free(kelvo_attributes* attributes);
/* Set `key`, which keeps its position if it exists. They do nothing if `attributes` or `key` is NULL. */
KELVO_EXPORT_C void kelvo_attributes_set_text(kelvo_attributes* attributes, const char* key, const char* value);
KELVO_EXPORT_C void kelvo_attributes_set_integer(kelvo_attributes* attributes, const char* key, int64_t value);
KELVO_EXPORT_C void kelvo_attributes_set_unsigned(kelvo_attributes* attributes, const char* key, uint64_t value);
KELVO_EXPORT_C void kelvo_attributes_set_number(kelvo_attributes* attributes, const char* key, double value);
KELVO_EXPORT_C void kelvo_attributes_set_bool(kelvo_attributes* attributes, const char* key, bool value);
/* Sets any JSON value, such as a list or an object. Bad JSON costs one ERROR line and changes nothing. */
KELVO_EXPORT_C void kelvo_attributes_set_json(kelvo_attributes* attributes, const char* key, const char* json);

/* ---- Events, errors, screens ---------------------------------------------------------------------------------- */

#define KELVO_FLATTEN 1u /* entries of nested objects become attributes of their own, under keys joined by "_" */

/* Log an event. `name` is required. `flags` is 0 or KELVO_FLATTEN. An app event is stored and sent; a client event is
 * for listeners on this device; an aggregate event is only counted. */
KELVO_EXPORT_C void kelvo_log_app_event(const char* name, const kelvo_attributes* attributes, uint32_t flags);
KELVO_EXPORT_C void kelvo_log_app_event_json(const char* name, const char* json, uint32_t flags);
KELVO_EXPORT_C void kelvo_log_client_event(const char* name, const kelvo_attributes* attributes, uint32_t flags);
KELVO_EXPORT_C void kelvo_log_client_event_json(const char* name, const char* json, uint32_t flags);
KELVO_EXPORT_C void kelvo_log_aggregate_event(const char* name, const kelvo_attributes* attributes, uint32_t flags);
KELVO_EXPORT_C void kelvo_log_aggregate_event_json(const char* name, const char* json, uint32_t flags);

/* Report an error in the host, with its description. */
KELVO_EXPORT_C void kelvo_report_custom_error(const char* error, const kelvo_attributes* attributes);
KELVO_EXPORT_C void kelvo_report_custom_error_json(const char* error, const char* json);

/* Add attributes to the user, or to the current session. */
KELVO_EXPORT_C void kelvo_set_user_custom_info(const kelvo_attributes* attributes);
KELVO_EXPORT_C void kelvo_set_user_custom_info_json(const char* json);
KELVO_EXPORT_C void kelvo_set_session_custom_info(const kelvo_attributes* attributes);
KELVO_EXPORT_C void kelvo_set_session_custom_info_json(const char* json);
KELVO_EXPORT_C void kelvo_set_user_identifier(const char* identifier);

/* Reports that the user now sees the screen `title`, a named screen inside the one that was shown last. */
KELVO_EXPORT_C void kelvo_log_screen(const char* title);
/* Report a screen that is about to appear, or has appeared. Without a title, the class names it. */
KELVO_EXPORT_C void kelvo_will_show(const char* class_name, const char* title);
KELVO_EXPORT_C void kelvo_did_show(const char* class_name, const char* title);
KELVO_EXPORT_C void kelvo_show(const char* name, const char* title); /* both */

/* ---- The application ------------------------------------------------------------------------------------------ */

KELVO_EXPORT_C void kelvo_did_become_active(void);
KELVO_EXPORT_C void kelvo_will_resign_active(void);
KELVO_EXPORT_C void kelvo_log_device_token(const char* token);
KELVO_EXPORT_C void kelvo_log_device_token_data(const void* bytes, size_t size); /* NULL is an empty token */
KELVO_EXPORT_C void kelvo_set_screen_size(float width, float height);            /* in points */
KELVO_EXPORT_C void kelvo_mark_as_react_native(void);
KELVO_EXPORT_C void kelvo_mark_as_cordova(void);

typedef void (*kelvo_callback)(void* context);
/* Runs `task(task_context)` later, exactly once, on the loop's thread. Called on any thread; must return at once. */
typedef void (*kelvo_post_callback)(kelvo_callback task, void* task_context, void* context);
/* Returns whether the calling thread is the loop's thread. Called on any thread. */
typedef bool (*kelvo_is_current_callback)(void* context);

/* Makes the host's main loop the library's main queue. Two NULLs make it a thread of the library again. */
KELVO_EXPORT_C void kelvo_set_main_loop(kelvo_post_callback post, kelvo_is_current_callback is_current, void* context);

/* ---- Flush and ledger ----------------------------------------------------------------------------------------- */

typedef enum kelvo_flush_outcome {
  KELVO_FLUSH_DELIVERED = 0,
  KELVO_FLUSH_DEADLINE = 1,
  KELVO_FLUSH_NO_SERVICE = 2,
  KELVO_FLUSH_REFUSED = 3,
  KELVO_FLUSH_NOT_COLLECTING = 4,
  KELVO_FLUSH_INSIDE_CALLBACK = 5
} kelvo_flush_outcome;

/* As in Flush.h. */
typedef struct kelvo_flush_result {
  size_t size;
  kelvo_flush_outcome outcome;
  int32_t status;
  uint64_t delivered_events;
  uint64_t delivered_chunks;
  uint64_t waiting_events;
  uint64_t waiting_chunks;
  char reason[256]; /* one sentence for people, shortened to fit; empty if delivered */
} kelvo_flush_result;

typedef void (*kelvo_flush_callback)(const kelvo_flush_result* result, void* context);

/* Posts everything that waits. Calls `callback` once, on a library queue (before the start, on the caller's or the
 * start's thread), at the latest after `deadline_ms` milliseconds; never once the process exits. */
KELVO_EXPORT_C void kelvo_flush(int64_t deadline_ms, kelvo_flush_callback callback, void* context);
/* The same. Fills `result` unless it is NULL, and returns its outcome. Blocks: up to a second after the deadline. */
KELVO_EXPORT_C kelvo_flush_outcome kelvo_flush_and_wait(int64_t deadline_ms, kelvo_flush_result* result);

/* What became of events. Ledger.h has the meaning of each count and their sums. */
typedef struct kelvo_ledger {
  size_t size;
  uint64_t logged;
  uint64_t refused_nameless, refused_uncleanable, refused_disabled, refused_terminated, refused_storm;
  uint64_t held;
  uint64_t dropped_before_consent;
  uint64_t ignored;
  uint64_t counted;
  uint64_t for_plugins;
  uint64_t waiting_in_memory;
  uint64_t rescued;
  uint64_t stored;
  uint64_t not_stored;
  /* Of the stored events: */
  uint64_t not_for_upload;
  uint64_t sent;
  uint64_t accepted;
  uint64_t waiting;
  uint64_t evicted_for_space, evicted_for_age;
  uint64_t lost;
} kelvo_ledger;

/* Fills both at the same moment; either may be NULL. */
KELVO_EXPORT_C void kelvo_get_ledger(kelvo_ledger* this_process, kelvo_ledger* since_installation);

/* ---- Services for plug-ins ------------------------------------------------------------------------------------ */

/* Calls `completion` once, on the HTTP callback queue, after the changes of the configuration of `type` are saved or
 * the request has failed. */
KELVO_EXPORT_C void kelvo_get_sync_data(const char* type, const char* version, kelvo_callback completion,
                                        void* context);
/* Return the saved configuration of `type`, and its record of campaigns, as JSON objects. The first returns "{}", the
 * second NULL, if nothing is saved. Block: read a file. */
KELVO_EXPORT_C char* kelvo_get_config(const char* type);
KELVO_EXPORT_C char* kelvo_get_pid_mid_dict(const char* type);
KELVO_EXPORT_C void kelvo_persist_pid_mid_dict(const char* json, const char* type);

typedef enum kelvo_event_type {
  KELVO_EVENT_UNKNOWN = -1,
  KELVO_EVENT_SYSTEM = 0,
  KELVO_EVENT_CE_NAVIGATION = 1,
  KELVO_EVENT_NAVIGATION = 2,
  KELVO_EVENT_USER_INTERACTION = 3,
  KELVO_EVENT_APP = 4,
  KELVO_EVENT_CLIENT = 5,
  KELVO_EVENT_AGGREGATE = 6,
  KELVO_EVENT_PUSH = 7,
  KELVO_EVENT_IN_APP = 8,
  KELVO_EVENT_INLINE_VIEW = 9,
  KELVO_EVENT_NUDGE = 10,
  KELVO_EVENT_INLINE_TEXT = 11,
  KELVO_EVENT_INLINE_COACHMARK = 12,
  KELVO_EVENT_WALKTHROUGH = 13,
  KELVO_EVENT_SCREENSHOT = 14,
  KELVO_EVENT_SURVEY = 15,
  KELVO_EVENT_SESSION = 17,
  KELVO_EVENT_CHUNK = 18,
  KELVO_EVENT_CUSTOM_ERROR = 19,
  KELVO_EVENT_APPLICATION_CRASH = 20
} kelvo_event_type;

/* Returns the name of a type: "System" ... "ApplicationCrash", else "undefined". */
KELVO_EXPORT_C char* kelvo_event_type_name(kelvo_event_type type);
/* Returns the key under which a listener registers for one event; NULL if `identifier` is NULL. */
KELVO_EXPORT_C char* kelvo_identifier_key(kelvo_event_type type, const char* identifier);

/* An event, as a listener gets it. */
typedef struct kelvo_event {
  size_t size;
  const char* name;
  const char* attributes; /* a JSON object */
  kelvo_event_type type;  /* after classification */
  int64_t time;           /* whole seconds since the library was loaded */
} kelvo_event;

typedef void (*kelvo_event_callback)(const kelvo_event* event, void* context);

/* A receiver of events. */
typedef struct kelvo_listener kelvo_listener;

/* Returns a listener, which `kelvo_listener_free` releases; NULL if memory is short. The bus calls `on_event` on its
 * queue, for one event at a time, while the listener is registered; it must not block. `release` (or NULL) is called
 * with `context` once the listener is released and no longer registered, on any thread. */
KELVO_EXPORT_C kelvo_listener* kelvo_listener_create(kelvo_event_callback on_event, kelvo_callback release,
                                                     void* context);
KELVO_EXPORT_C void kelvo_listener_free(kelvo_listener* listener);
/* Register a listener for a type of events, or for a key; or remove it. */
KELVO_EXPORT_C void kelvo_register_for_event_type(kelvo_event_type type, const kelvo_listener* listener);
KELVO_EXPORT_C void kelvo_register_for_event_key(const char* key, const kelvo_listener* listener);
KELVO_EXPORT_C void kelvo_deregister_for_event_type(kelvo_event_type type, const kelvo_listener* listener);
KELVO_EXPORT_C void kelvo_deregister_for_event_key(const char* key, const kelvo_listener* listener);

/* Dispatch an event of a plug-in. PluginServices.h lists the types. */
KELVO_EXPORT_C void kelvo_dispatch_event(kelvo_event_type type, const char* name, const kelvo_attributes* attributes);
KELVO_EXPORT_C void kelvo_dispatch_event_json(kelvo_event_type type, const char* name, const char* json);

KELVO_EXPORT_C void kelvo_save_frequency_info(const char* json, const char* identifier);
/* Returns the saved object, NULL if there is none. Blocks: reads a file. */
KELVO_EXPORT_C char* kelvo_retrieve_frequency_info(const char* identifier);

/* Return how often events were stored since installation: of `count` names as a JSON object (NULL without names), or of
 * one name. Block: read the database. */
KELVO_EXPORT_C char* kelvo_get_lifetime_counts(const char* const* names, size_t count);
KELVO_EXPORT_C int64_t kelvo_get_lifetime_count(const char* name);
/* Returns the id of the current session, NULL before the start-up has begun one. */
KELVO_EXPORT_C char* kelvo_get_session_id(void);
KELVO_EXPORT_C int64_t kelvo_get_lifetime_session_count(void);
KELVO_EXPORT_C int64_t kelvo_get_retention_day(void);

/* The outcome of a request. */
typedef struct kelvo_http_answer {
  size_t size;
  int32_t status;   /* 0 if no response arrived */
  const char* body; /* `body_size` bytes, and a NUL */
  size_t body_size;
  const char* error; /* why no response arrived, else empty */
} kelvo_http_answer;

typedef void (*kelvo_http_callback)(const kelvo_http_answer* answer, void* context);

/* Send a request to the service. `body` and `headers` are JSON objects. `completion` is called once on the HTTP
 * callback queue, or never if the request is refused or the process ends. */
KELVO_EXPORT_C void kelvo_get_data(const char* path, kelvo_http_callback completion, void* context);
KELVO_EXPORT_C void kelvo_post_data(const char* path, const char* body, const char* headers,
                                    kelvo_http_callback completion, void* context);
KELVO_EXPORT_C void kelvo_delete_data(const char* path, const char* headers, kelvo_http_callback completion,
                                      void* context);

/* Calls `callback` on the main queue every `seconds`, until the process ends. */
KELVO_EXPORT_C void kelvo_register_timer(double seconds, kelvo_callback callback, void* context);
/* Calls `callback` once, after `seconds`, on the controller's queue. It must not block. */
KELVO_EXPORT_C void kelvo_execute_after_delay(double seconds, kelvo_callback callback, void* context);

KELVO_EXPORT_C bool kelvo_action_in_progress(void);
KELVO_EXPORT_C void kelvo_set_action_in_progress(bool in_progress);

#ifdef __cplusplus
}
#endif

#endif
