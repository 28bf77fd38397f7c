/* zub-c-host: a small command-line program in plain C99 that uses ZUBCocoa
 * through its C interface (zub.h), the way a GTK application or any other C host
 * would. One run is one short session of an imaginary document tool: it starts
 * the library, tracks pages, custom events (with a builder and with JSON text),
 * a timer, active time, a messenger and an account login, then flushes, so that
 * everything is at the collector before it ends, and prints the device's mid.
 *
 *   zub-c-host COLLECTOR-URL [--debug]
 *
 * e.g. zub-c-host http://127.0.0.1:47800 with `zub-collector` running there.
 * Exit status: 0 when everything was delivered, 1 when not, 2 on a bad command line.
 */
#include <ZUBCocoa/zub.h>

#include <stdio.h>
#include <string.h>

/* The library's log lines, with the number of lines seen so far. */
static void print_log_line(const char* line, void* user_data) {
    unsigned long* count = (unsigned long*)user_data;
    ++*count;
    fprintf(stderr, "zub-c-host log %lu: %s\n", *count, line);
}

/* Stops at the first refused call: a host would log it and go on. */
static int check(zub_status status, const char* what) {
    if (status == ZUB_OK) return 1;
    fprintf(stderr, "zub-c-host: %s: %s\n", what, zub_status_text(status));
    return 0;
}

/* The pairs of the "export" event, built key by key. */
static zub_args* export_args(void) {
    zub_args* args = zub_args_new();
    if (!args) return NULL;
    if (!check(zub_args_set_string(args, "format", "pdf"), "format") ||
        !check(zub_args_set_int(args, "pages", 12), "pages") ||
        !check(zub_args_set_double(args, "scale", 1.5), "scale") ||
        !check(zub_args_set_bool(args, "color", true), "color")) {
        zub_args_free(args);
        return NULL;
    }
    return args;
}

static int track_session(void) {
    zub_args* args = export_args();
    zub_args* search = NULL;
    int ok = args != NULL;

    ok = ok && check(zub_track_page_view_begin("editor"), "page begin");
    ok = ok && check(zub_track_page_view_end("editor"), "page end");
    ok = ok && check(zub_track_page("settings", 12), "page with duration");
    ok = ok && check(zub_track_active_begin(), "active begin");
    ok = ok && check(zub_track_active_end(), "active end");
    ok = ok && check(zub_track_custom_event("export", args), "export");
    ok = ok && check(zub_track_custom_event_duration("render", args, 3), "render");
    /* The same kind of pairs from JSON text, e.g. handed over by a script. */
    ok = ok && check(zub_args_from_json("{\"query\":\"caf\xc3\xa9\",\"hits\":3}", &search), "search pairs");
    ok = ok && check(zub_track_custom_event("search", search), "search");
    ok = ok && check(zub_track_custom_event("launch", NULL), "launch");
    ok = ok && check(zub_track_custom_event_begin("upload", NULL), "upload begin");
    ok = ok && check(zub_track_custom_event_end("upload", NULL), "upload end");
    ok = ok && check(zub_report_lm("chat-user"), "messenger");
    ok = ok && check(zub_report_account("user@example.com", 2, "sso"), "account");

    zub_args_free(search);
    zub_args_free(args);
    return ok;
}

int main(int argc, char** argv) {
    unsigned long log_lines = 0;
    char* mid = NULL;
    zub_status flushed;

    if (argc < 2 || argc > 3 || (argc == 3 && strcmp(argv[2], "--debug") != 0)) {
        fprintf(stderr, "usage: zub-c-host COLLECTOR-URL [--debug]\n");
        return 2;
    }
    if (argc == 3) {
        zub_set_log_sink(print_log_line, &log_lines);
        zub_set_debug_enable(true);
    }

    /* Launch: who we are, where reports go, then start. Smart reporting is off,
       so events wait for the flush below and go out in a few batches. */
    if (!check(zub_set_bundle_info("CFBundleIdentifier", "com.example.c-host"), "bundle id") ||
        !check(zub_set_bundle_info("CFBundleShortVersionString", "1.2"), "bundle version") ||
        !check(zub_set_collector_address(argv[1]), "collector address") ||
        !check(zub_set_channel("website"), "channel") || !check(zub_set_custom_user_id("user-7"), "user id") ||
        !check(zub_set_smart_report(false), "smart report") || !check(zub_start("c-host-key"), "start")) {
        return 2;
    }

    if (!track_session()) return 1;

    /* A program that ends on its own sends what it tracked before it returns. */
    flushed = zub_flush(60000);
    printf("flushed %d\n", flushed == ZUB_OK ? 1 : 0);
    if (zub_get_device_id("mid", &mid) == ZUB_OK) printf("mid %s\n", mid);
    zub_string_free(mid);
    zub_on_will_application_will_terminate();
    zub_set_log_sink(NULL, NULL);
    return flushed == ZUB_OK ? 0 : 1;
}
