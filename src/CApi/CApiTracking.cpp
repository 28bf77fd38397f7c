// The tracking calls of the C interface: each checks its text, then forwards to
// the facade call of the same name.
#include "CApi/CApiArgs.h"
#include "CApi/CApiSupport.h"

#include <ZUBCocoa/ZUBPro.h>

#include <string>

using zub::capi::guarded;
using zub::capi::optionalText;
using zub::capi::pairsOf;
using zub::capi::requiredName;
using zub::capi::requiredText;

namespace {

// Forwards `call(name)` once `text` passed as a non-empty name.
template <typename Call>
zub_status withName(const char* function, const char* what, const char* text, Call&& call) {
    return guarded(function, [&] {
        std::string name;
        if (const zub_status s = requiredName(function, what, text, name); s != ZUB_OK) return s;
        call(std::move(name));
        return ZUB_OK;
    });
}

// The pairs a timer call keys on: no builder is the same as an empty one, so a
// timer begun without pairs is ended without pairs.
zub::Value timerPairsOf(const zub_args* args) {
    return args ? pairsOf(args) : zub::Value::object();
}

}  // namespace

extern "C" {

zub_status zub_track_page_view_begin(const char* page) {
    return withName(__func__, "page", page, [](std::string p) { ZUBPro::trackPageViewBegin(std::move(p)); });
}

zub_status zub_track_page_view_end(const char* page) {
    return withName(__func__, "page", page, [](std::string p) { ZUBPro::trackPageViewEnd(std::move(p)); });
}

zub_status zub_track_page(const char* page, uint64_t duration) {
    return withName(__func__, "page", page, [&](std::string p) { ZUBPro::trackPage(std::move(p), duration); });
}

zub_status zub_track_active_begin(void) {
    return guarded(__func__, [] {
        ZUBPro::trackActiveBegin();
        return ZUB_OK;
    });
}

zub_status zub_track_active_end(void) {
    return guarded(__func__, [] {
        ZUBPro::trackActiveEnd();
        return ZUB_OK;
    });
}

zub_status zub_track_custom_event(const char* event_id, const zub_args* args) {
    return withName(__func__, "event_id", event_id,
                    [&](std::string id) { ZUBPro::trackCustomEvent(std::move(id), pairsOf(args)); });
}

zub_status zub_track_custom_event_begin(const char* event_id, const zub_args* args) {
    return withName(__func__, "event_id", event_id,
                    [&](std::string id) { ZUBPro::trackCustomEventBegin(std::move(id), timerPairsOf(args)); });
}

zub_status zub_track_custom_event_end(const char* event_id, const zub_args* args) {
    return withName(__func__, "event_id", event_id,
                    [&](std::string id) { ZUBPro::trackCustomEventEnd(std::move(id), timerPairsOf(args)); });
}

zub_status zub_track_custom_event_duration(const char* event_id, const zub_args* args, int64_t duration) {
    return withName(__func__, "event_id", event_id, [&](std::string id) {
        ZUBPro::trackCustomEventDuration(std::move(id), pairsOf(args), duration);
    });
}

zub_status zub_report_lm(const char* account) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        std::string name;
        if (const zub_status s = requiredText(fn, "account", account, name); s != ZUB_OK) return s;
        ZUBPro::reportLM(std::move(name));
        return ZUB_OK;
    });
}

zub_status zub_report_account(const char* account, uint64_t type, const char* ext) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        std::string name;
        if (const zub_status s = requiredText(fn, "account", account, name); s != ZUB_OK) return s;
        zub::OptionalText extension;
        if (const zub_status s = optionalText(fn, "ext", ext, extension); s != ZUB_OK) return s;
        ZUBPro::reportAccount(std::move(name), type, std::move(extension));
        return ZUB_OK;
    });
}

}  // extern "C"
