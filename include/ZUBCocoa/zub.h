/* zub.h: the C interface of the ZUBCocoa analytics library.
 *
 * Plain C99, usable from C and C++, and from every language that calls C (Python
 * through ctypes: the zubcocoa module; Rust, Go, ...). It covers what a host
 * application does with the library: settings, start, the lifecycle handlers,
 * tracking, account and messenger reports, flush, online properties, the device
 * identifiers, the privacy opt-out, the endpoints and the debug-log sink. It sits
 * on the C++ facade (ZUBPro.h and its companions) and behaves as it does; the
 * notes on each call below say only what the C form adds.
 *
 *   zub_set_bundle_info("CFBundleIdentifier", "com.example.editor");
 *   zub_start("your-app-key");
 *
 *   zub_args* args = zub_args_new();
 *   zub_args_set_string(args, "format", "pdf");
 *   zub_args_set_int(args, "pages", 12);
 *   zub_track_custom_event("export", args);
 *   zub_args_free(args);
 *
 *   zub_flush(5000);   (a program that ends on its own: send now, wait at most 5 s)
 *
 * Rules every function follows:
 *   - Thread-safe: any function may be called from any thread at any time.
 *   - Never aborts and never lets a C++ exception out: each returns a zub_status
 *     (ZUB_OK, or a negative code naming the misuse), and a refused call also
 *     writes the reason to the debug log (zub_set_debug_enable).
 *   - Strings are NUL-terminated UTF-8. Text that is not UTF-8 is refused with
 *     ZUB_ERR_INVALID_UTF8 and nothing is done.
 *   - NULL means absent. Where the library gives "absent" a meaning, the call
 *     says so (a NULL channel sends no channel, NULL event arguments send no
 *     pairs) and returns ZUB_OK. Where absent means nothing (a page name, an event
 *     identifier, a key, a URL, the application key, an output pointer), the call
 *     does nothing and returns ZUB_ERR_NULL_ARGUMENT.
 *   - Arguments are copied: they may be freed once the call returns.
 *   - Strings the library returns (through `char** out`) belong to the caller,
 *     who releases them with zub_string_free. On an error *out is set to NULL.
 *   - Tracking calls return at once: the event is built on the calling thread and
 *     handed to the library's report queue. What the library can only find out
 *     later (a page ended that was never begun, an unknown timer) is written to
 *     the debug log, not returned.
 */
#ifndef ZUBCOCOA_ZUB_H
#define ZUBCOCOA_ZUB_H

#include <ZUBCocoa/ZUBExport.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- results ---------------------------------------------------------------- */

typedef enum zub_status {
    ZUB_OK = 0,
    /* zub_flush only: the time ran out, or some events cannot be sent now (no
       mid yet, the collector unreachable, the periodic strategy); they are kept
       and sent later. */
    ZUB_NOT_DELIVERED = 1,
    ZUB_ERR_NULL_ARGUMENT = -1,    /* a required pointer was NULL */
    ZUB_ERR_INVALID_UTF8 = -2,     /* a string was not UTF-8 */
    ZUB_ERR_INVALID_ARGUMENT = -3, /* empty name, malformed JSON or URL, NaN, ... */
    ZUB_ERR_NOT_FOUND = -4,        /* the value asked for does not exist */
    ZUB_ERR_NO_MEMORY = -5,
    ZUB_ERR_INTERNAL = -6          /* the library failed; the debug log says why */
} zub_status;

/* A short English description of a status ("ok", "null argument", ...); a static
   string, never NULL, not to be freed. */
ZUB_EXPORT const char* zub_status_text(int status);

/* The library's version, e.g. "1.0.0"; a static string, not to be freed. */
ZUB_EXPORT const char* zub_version(void);

/* Releases a string the library returned. NULL is ignored. */
ZUB_EXPORT void zub_string_free(char* string);

/* ---- event arguments ------------------------------------------------------------ */

/* The key-value pairs of a custom event, built up before the tracking call. Keys
   keep the order of their first setting; setting a key again replaces its value
   in place. A builder may be used for any number of calls and from several
   threads (its own lock keeps it consistent). */
typedef struct zub_args zub_args;

/* A new, empty builder, or NULL when out of memory. Release it with zub_args_free. */
ZUB_EXPORT zub_args* zub_args_new(void);
/* Parses a JSON object text ("{\"format\":\"pdf\",\"pages\":12}") into a new builder
   stored in *out. Anything but a JSON object is ZUB_ERR_INVALID_ARGUMENT. */
ZUB_EXPORT zub_status zub_args_from_json(const char* json, zub_args** out);
/* Releases a builder, once no call is using it any more. NULL is ignored. */
ZUB_EXPORT void zub_args_free(zub_args* args);

ZUB_EXPORT zub_status zub_args_set_string(zub_args* args, const char* key, const char* value);
ZUB_EXPORT zub_status zub_args_set_int(zub_args* args, const char* key, int64_t value);
/* NaN and infinities cannot travel as JSON: ZUB_ERR_INVALID_ARGUMENT. */
ZUB_EXPORT zub_status zub_args_set_double(zub_args* args, const char* key, double value);
ZUB_EXPORT zub_status zub_args_set_bool(zub_args* args, const char* key, bool value);
/* The pairs as compact JSON text (for logs and tests). */
ZUB_EXPORT zub_status zub_args_to_json(const zub_args* args, char** out);

/* ---- settings: before or after the start; they last for the process ------------ */

ZUB_EXPORT zub_status zub_set_debug_enable(bool enable);
ZUB_EXPORT zub_status zub_set_smart_report(bool enable);
ZUB_EXPORT zub_status zub_set_session_timeout_secs(uint64_t seconds);
/* 1 every event at once; 5 periodic; 8 (default) at start and activation. */
ZUB_EXPORT zub_status zub_set_report_strategy(int64_t strategy);
ZUB_EXPORT zub_status zub_set_period_secs(uint64_t seconds);
/* NULL: no channel is sent. */
ZUB_EXPORT zub_status zub_set_channel(const char* channel);
/* NULL: the bundle's version is sent again. */
ZUB_EXPORT zub_status zub_set_custom_app_version(const char* version);
/* NULL: no user id is sent. */
ZUB_EXPORT zub_status zub_set_custom_user_id(const char* user_id);

/* One entry of the host's bundle information; the library reads
   "CFBundleIdentifier" and "CFBundleShortVersionString". Set them before the start.
   An empty key is ZUB_ERR_INVALID_ARGUMENT. */
ZUB_EXPORT zub_status zub_set_bundle_info(const char* key, const char* value);
/* The entry (with the defaults applied) in *out; ZUB_ERR_NOT_FOUND when unset. */
ZUB_EXPORT zub_status zub_get_bundle_info(const char* key, char** out);

/* true: report forty "0" characters instead of the shared device identifier
   (stored with the application's settings). Call at each launch, before the start. */
ZUB_EXPORT zub_status zub_set_openudid_opt_out(bool opt_out);

/* Where reports and the device registration go (absolute http:// or https:// URLs
   with a host). A URL that is not one is ZUB_ERR_INVALID_ARGUMENT, and the
   endpoints in force stay (the status tells whether the URLs given are those in
   force when the call returns). Best set before the start. */
ZUB_EXPORT zub_status zub_set_endpoints(const char* report_url, const char* mid_url);
/* Both endpoints of a collector at "http://host:port". */
ZUB_EXPORT zub_status zub_set_collector_address(const char* base_url);
/* The URLs in force, each in a string of its own. */
ZUB_EXPORT zub_status zub_get_endpoints(char** report_url, char** mid_url);

/* Bounds on what the library keeps while events cannot be sent (ZUBDelivery.h). */
typedef struct zub_delivery_limits {
    uint64_t max_events_in_memory;  /* default 10000 */
    uint64_t journal_budget_bytes;  /* default 64 MiB */
    uint32_t sync_interval_ms;      /* default 200; 0 syncs after every filed group */
    bool journal_enabled;           /* default true */
} zub_delivery_limits;

/* Call before the start. 0 for either size is ZUB_ERR_INVALID_ARGUMENT. */
ZUB_EXPORT zub_status zub_set_delivery_limits(const zub_delivery_limits* limits);
ZUB_EXPORT zub_status zub_get_delivery_limits(zub_delivery_limits* limits);
/* Events dropped since the process started because the journal was full. */
ZUB_EXPORT zub_status zub_get_dropped_event_count(uint64_t* count);

/* Receives every line the library writes to its log (debug lines only after
   zub_set_debug_enable(true)), without a trailing newline, with the user data given
   here. It runs on whichever thread logs, one line at a time; it must return
   quickly and must not call the library. NULL removes the sink. Once this returns,
   the sink it replaced is no longer running and is never called again. */
typedef void (*zub_log_sink)(const char* line, void* user_data);
ZUB_EXPORT zub_status zub_set_log_sink(zub_log_sink sink, void* user_data);

/* ---- start and lifecycle ------------------------------------------------------ */

/* Starts (or restarts) the library with the application key. A NULL key is
   ZUB_ERR_NULL_ARGUMENT and nothing starts. */
ZUB_EXPORT zub_status zub_start(const char* app_key);

/* The five lifecycle handlers; the host calls them from its own application events:
     returns to the foreground   zub_on_application_did_become_active
     gets focus                  zub_on_did_application_become_active
     loses focus                 zub_on_will_application_resign_active
     goes to the background      zub_on_will_application_enter_background
     quits                       zub_on_will_application_will_terminate */
ZUB_EXPORT zub_status zub_on_application_did_become_active(void);
ZUB_EXPORT zub_status zub_on_did_application_become_active(void);
ZUB_EXPORT zub_status zub_on_will_application_resign_active(void);
ZUB_EXPORT zub_status zub_on_will_application_enter_background(void);
ZUB_EXPORT zub_status zub_on_will_application_will_terminate(void);

/* Sends what can be sent now and makes the journal durable; waits at most
   timeout_ms. ZUB_OK when every accepted event was acknowledged by the collector,
   ZUB_NOT_DELIVERED otherwise. Call from the host's thread, not from the log sink. */
ZUB_EXPORT zub_status zub_flush(uint32_t timeout_ms);

/* ---- tracking ---------------------------------------------------------------- */

/* Page names and event identifiers must be non-empty: NULL is
   ZUB_ERR_NULL_ARGUMENT, "" is ZUB_ERR_INVALID_ARGUMENT. */
ZUB_EXPORT zub_status zub_track_page_view_begin(const char* page);
ZUB_EXPORT zub_status zub_track_page_view_end(const char* page);
/* A page with a duration the host measured (seconds). */
ZUB_EXPORT zub_status zub_track_page(const char* page, uint64_t duration);

ZUB_EXPORT zub_status zub_track_active_begin(void);
ZUB_EXPORT zub_status zub_track_active_end(void);

/* A custom event now. NULL args: no pairs are sent. */
ZUB_EXPORT zub_status zub_track_custom_event(const char* event_id, const zub_args* args);
/* A timer for the identifier and these pairs; only an end with the same pairs ends
   it. For both timer calls NULL args is the same as an empty builder, so a timer
   begun without pairs is ended without pairs. */
ZUB_EXPORT zub_status zub_track_custom_event_begin(const char* event_id, const zub_args* args);
/* Ends the timer begun with the same identifier and pairs and reports the event. */
ZUB_EXPORT zub_status zub_track_custom_event_end(const char* event_id, const zub_args* args);
/* A custom event with a duration the host measured (seconds; 0 sends none). */
ZUB_EXPORT zub_status zub_track_custom_event_duration(const char* event_id, const zub_args* args,
                                                      int64_t duration);

/* The user's messenger account. */
ZUB_EXPORT zub_status zub_report_lm(const char* account);
/* The user's account; `type` travels as the event's type. NULL ext: none is sent. */
ZUB_EXPORT zub_status zub_report_account(const char* account, uint64_t type, const char* ext);

/* ---- queries ----------------------------------------------------------------- */

/* One device identifier: "mid" ("" until the device is registered), "ifa", "oia",
   "ifv", "oid", or "rvt" once a push token is stored. ZUB_ERR_NOT_FOUND for others. */
ZUB_EXPORT zub_status zub_get_device_id(const char* name, char** out);
/* All of them as a JSON object text. */
ZUB_EXPORT zub_status zub_get_device_ids_json(char** out);
/* A property of the configuration the server pushed, as JSON text ("\"\"" when
   there is none). */
ZUB_EXPORT zub_status zub_get_online_property_json(const char* key, char** out);

#ifdef __cplusplus
}
#endif

#endif /* ZUBCOCOA_ZUB_H */
