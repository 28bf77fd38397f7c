// The C interface (zub.h) at its boundary: every text and pointer argument of
// every function is tried with NULL, with byte strings that are not UTF-8, with
// "" and with a good value; refusals must come back as the documented status,
// leave outputs NULL and name the function in the debug log, and nothing may
// crash (this file runs under ASan+UBSan with the other tests). Events reaching a
// collector through the C interface are CHost_test's concern.
#include "support/LogCapture.h"

#include <ZUBCocoa/zub.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

using zubtest::LogCapture;

namespace {

// Byte strings that are not UTF-8: a byte no UTF-8 text holds, a stray
// continuation byte, a sequence cut short, an overlong "/", a UTF-16 surrogate,
// and a code point past U+10FFFF.
const std::vector<std::string> kNotUtf8 = {"\xff", "ab\x80", "ab\xe2\x82", "\xc0\xaf", "\xed\xa0\x80",
                                           "\xf4\x90\x80\x80"};

// A result string the library allocated, released at the end of the scope.
struct Owned {
    char* p = reinterpret_cast<char*>(&p);  // a stale pointer: a refusal must reset it
    ~Owned() {
        if (p != reinterpret_cast<char*>(&p)) zub_string_free(p);
    }
    std::string text() const { return p ? std::string(p) : "(null)"; }
};

// One text argument of one function: the call with that argument replaced, and
// what NULL, "" and the good value must give.
struct TextArgument {
    const char* function;
    const char* good;
    zub_status ifNull;
    zub_status ifEmpty;
    std::function<zub_status(const char* text)> call;
};

// A call that returns a string: a refusal must leave the output NULL; a success
// gives `expected` when one is named.
std::function<zub_status(const char*)> returning(zub_status (*call)(const char*, char**),
                                                 const char* expected = nullptr) {
    return [=](const char* s) {
        Owned out;
        const zub_status status = call(s, &out.p);
        EXPECT_EQ(out.p == nullptr, status != ZUB_OK);
        if (status == ZUB_OK && expected) {
            EXPECT_EQ(out.text(), expected);
        }
        return status;
    };
}

}  // namespace

TEST(CApi, EveryFunctionRefusesNullAndBadTextAndSaysWhy) {
    LogCapture log;
    // The library may start below: keep its requests away from any real collector.
    ASSERT_EQ(zub_set_collector_address("http://127.0.0.1:9"), ZUB_OK);
    std::unique_ptr<zub_args, void (*)(zub_args*)> args(zub_args_new(), zub_args_free);
    ASSERT_TRUE(args);

    const char* page = "p\xc3\xa4ge \xf0\x9f\x93\x84";  // "päge 📄": good text beyond ASCII
    const zub_status ok = ZUB_OK, null = ZUB_ERR_NULL_ARGUMENT, invalid = ZUB_ERR_INVALID_ARGUMENT;
    const std::vector<TextArgument> table = {
        {"zub_args_set_string", "key", null, ok, [&](const char* s) { return zub_args_set_string(args.get(), s, "v"); }},
        {"zub_args_set_string", page, null, ok, [&](const char* s) { return zub_args_set_string(args.get(), "key", s); }},
        {"zub_args_set_int", "n", null, ok, [&](const char* s) { return zub_args_set_int(args.get(), s, 7); }},
        {"zub_args_set_double", "x", null, ok, [&](const char* s) { return zub_args_set_double(args.get(), s, 0.5); }},
        {"zub_args_set_bool", "b", null, ok, [&](const char* s) { return zub_args_set_bool(args.get(), s, true); }},
        {"zub_args_from_json", "{\"k\":\"\xc3\xa4\"}", null, invalid,
         [](const char* s) {
             zub_args* out = zub_args_new();  // a refusal must set it to NULL (the builder is freed below)
             zub_args* keep = out;
             const zub_status status = zub_args_from_json(s, &out);
             EXPECT_EQ(out == nullptr, status != ZUB_OK);
             zub_args_free(out);
             zub_args_free(keep);
             return status;
         }},
        {"zub_set_channel", "web", ok, ok, [](const char* s) { return zub_set_channel(s); }},
        {"zub_set_custom_app_version", "2.0", ok, ok, [](const char* s) { return zub_set_custom_app_version(s); }},
        {"zub_set_custom_user_id", page, ok, ok, [](const char* s) { return zub_set_custom_user_id(s); }},
        {"zub_set_bundle_info", "Test.Key", null, invalid, [](const char* s) { return zub_set_bundle_info(s, "v"); }},
        {"zub_set_bundle_info", page, null, ok, [](const char* s) { return zub_set_bundle_info("Test.Key", s); }},
        {"zub_get_bundle_info", "CFBundleIdentifier", null, invalid, returning(zub_get_bundle_info)},
        {"zub_set_endpoints", "http://127.0.0.1:9/mstat/report", null, invalid,
         [](const char* s) { return zub_set_endpoints(s, "http://127.0.0.1:9/?t=ios&ver=2.0"); }},
        {"zub_set_endpoints", "http://127.0.0.1:9/?t=ios&ver=2.0", null, invalid,
         [](const char* s) { return zub_set_endpoints("http://127.0.0.1:9/mstat/report", s); }},
        {"zub_set_collector_address", "http://127.0.0.1:9/", null, invalid,
         [](const char* s) { return zub_set_collector_address(s); }},
        {"zub_start", "table-key", null, ok, [](const char* s) { return zub_start(s); }},
        {"zub_track_page_view_begin", page, null, invalid, [](const char* s) { return zub_track_page_view_begin(s); }},
        {"zub_track_page_view_end", page, null, invalid, [](const char* s) { return zub_track_page_view_end(s); }},
        {"zub_track_page", page, null, invalid, [](const char* s) { return zub_track_page(s, 3); }},
        {"zub_track_custom_event", "export", null, invalid,
         [&](const char* s) { return zub_track_custom_event(s, args.get()); }},
        {"zub_track_custom_event_begin", "upload", null, invalid,
         [&](const char* s) { return zub_track_custom_event_begin(s, args.get()); }},
        {"zub_track_custom_event_end", "upload", null, invalid,
         [&](const char* s) { return zub_track_custom_event_end(s, args.get()); }},
        {"zub_track_custom_event_duration", "render", null, invalid,
         [&](const char* s) { return zub_track_custom_event_duration(s, args.get(), 4); }},
        {"zub_report_lm", "chat-user", null, ok, [](const char* s) { return zub_report_lm(s); }},
        {"zub_report_account", "user@example.com", null, ok, [](const char* s) { return zub_report_account(s, 2, "e"); }},
        {"zub_report_account", "sso", ok, ok, [](const char* s) { return zub_report_account("user", 2, s); }},
        {"zub_get_device_id", "mid", null, ZUB_ERR_NOT_FOUND, returning(zub_get_device_id)},
        {"zub_get_online_property_json", "greeting", null, ok, returning(zub_get_online_property_json, "\"\"")},
    };

    // A refusal returns its status and writes "[ERROR]<function>: ..." to the debug log.
    auto expectRefusal = [&](const TextArgument& row, const char* text, zub_status expected, const std::string& what) {
        log.clear();
        EXPECT_EQ(row.call(text), expected) << row.function << " with " << what;
        // A refusal (negative status) names its function in the log.
        EXPECT_TRUE(expected >= 0 || log.contains(std::string("[ERROR]") + row.function + ": ")) << "no reason said";
    };
    for (const TextArgument& row : table) {
        expectRefusal(row, nullptr, row.ifNull, "NULL");
        for (std::size_t i = 0; i < kNotUtf8.size(); ++i) {
            expectRefusal(row, kNotUtf8[i].c_str(), ZUB_ERR_INVALID_UTF8, "bad text #" + std::to_string(i));
        }
        expectRefusal(row, "", row.ifEmpty, "\"\"");
        expectRefusal(row, row.good, ZUB_OK, std::string("\"") + row.good + "\"");
    }
    // Only the accepted pairs reached the builder, in the order of their first
    // setting (the key "" is JSON's too: each row's "" call set it again).
    Owned pairs;
    EXPECT_EQ(zub_args_to_json(args.get(), &pairs.p), ZUB_OK);
    EXPECT_EQ(pairs.text(), "{\"\":true,\"key\":\"p\xc3\xa4ge \xf0\x9f\x93\x84\",\"n\":7,\"x\":0.5,\"b\":true}");

    // Pointers that are not text: the builder, results, limits. NULL pairs are "no pairs".
    Owned a, b;
    zub_delivery_limits limits{};
    std::uint64_t count = 0;
    const std::vector<std::pair<const char*, std::function<zub_status()>>> pointers = {
        {"zub_args_set_string", [] { return zub_args_set_string(nullptr, "k", "v"); }},
        {"zub_args_set_int", [] { return zub_args_set_int(nullptr, "k", 1); }},
        {"zub_args_set_double", [] { return zub_args_set_double(nullptr, "k", 1.0); }},
        {"zub_args_set_bool", [] { return zub_args_set_bool(nullptr, "k", false); }},
        {"zub_args_to_json", [&] { return zub_args_to_json(nullptr, &a.p); }},
        {"zub_args_to_json", [&] { return zub_args_to_json(args.get(), nullptr); }},
        {"zub_args_from_json", [] { return zub_args_from_json("{}", nullptr); }},
        {"zub_get_bundle_info", [] { return zub_get_bundle_info("CFBundleIdentifier", nullptr); }},
        {"zub_get_device_id", [] { return zub_get_device_id("mid", nullptr); }},
        {"zub_get_device_ids_json", [] { return zub_get_device_ids_json(nullptr); }},
        {"zub_get_online_property_json", [] { return zub_get_online_property_json("k", nullptr); }},
        {"zub_get_endpoints", [&] { return zub_get_endpoints(nullptr, &b.p); }},
        {"zub_get_endpoints", [&] { return zub_get_endpoints(&a.p, nullptr); }},
        {"zub_set_delivery_limits", [] { return zub_set_delivery_limits(nullptr); }},
        {"zub_get_delivery_limits", [] { return zub_get_delivery_limits(nullptr); }},
        {"zub_get_dropped_event_count", [] { return zub_get_dropped_event_count(nullptr); }}};
    for (const auto& [function, call] : pointers) {
        log.clear();
        EXPECT_EQ(call(), ZUB_ERR_NULL_ARGUMENT) << function;
        EXPECT_TRUE(log.contains(std::string("[ERROR]") + function + ": ")) << function;
    }
    EXPECT_TRUE(a.p == nullptr && b.p == nullptr);
    EXPECT_EQ(zub_track_custom_event("launch", nullptr), ZUB_OK);
    EXPECT_EQ(zub_track_custom_event_begin("timer", nullptr), ZUB_OK);
    EXPECT_EQ(zub_track_custom_event_end("timer", nullptr), ZUB_OK);
    EXPECT_FALSE(log.contains("null key")) << "a timer begun without pairs ends without pairs";
    EXPECT_EQ(zub_track_custom_event_duration("render", nullptr, 2), ZUB_OK);
    zub_args_free(nullptr);
    zub_string_free(nullptr);

    // Values that cannot travel as JSON, and limits the library cannot work with.
    EXPECT_EQ(zub_args_set_double(args.get(), "nan", std::nan("")), ZUB_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(zub_args_set_double(args.get(), "inf", HUGE_VAL), ZUB_ERR_INVALID_ARGUMENT);
    zub_args* parsed = nullptr;
    for (const char* notAnObject : {"[1,2]", "\"text\"", "{\"k\":", "null"}) {
        EXPECT_EQ(zub_args_from_json(notAnObject, &parsed), ZUB_ERR_INVALID_ARGUMENT) << notAnObject;
        EXPECT_EQ(parsed, nullptr);
    }
    ASSERT_EQ(zub_get_delivery_limits(&limits), ZUB_OK);
    const zub_delivery_limits before = limits;
    limits.max_events_in_memory = 0;
    EXPECT_EQ(zub_set_delivery_limits(&limits), ZUB_ERR_INVALID_ARGUMENT);
    limits = before;
    limits.journal_budget_bytes = 0;
    EXPECT_EQ(zub_set_delivery_limits(&limits), ZUB_ERR_INVALID_ARGUMENT);
    ASSERT_EQ(zub_get_delivery_limits(&limits), ZUB_OK);
    EXPECT_TRUE(limits.max_events_in_memory == before.max_events_in_memory &&
                limits.journal_budget_bytes == before.journal_budget_bytes);
    EXPECT_TRUE(zub_get_dropped_event_count(&count) == ZUB_OK && count == 0u);
    EXPECT_STREQ(zub_status_text(12345), "unknown status");
}
