// The settings of the C interface: the facade's setters, the bundle information,
// the privacy choice, the endpoints, the delivery limits and the log sink.
#include "CApi/CApiSupport.h"

#include <ZUBCocoa/ZUBDelivery.h>
#include <ZUBCocoa/ZUBEndpoints.h>
#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPrivacy.h>
#include <ZUBCocoa/ZUBPro.h>

#include <string>

using zub::capi::guarded;
using zub::capi::optionalText;
using zub::capi::refuse;
using zub::capi::requiredName;
using zub::capi::requiredText;

namespace {

// Runs a setter that cannot be misused.
template <typename Call>
zub_status set(const char* function, Call&& call) {
    return guarded(function, [&] {
        call();
        return ZUB_OK;
    });
}

// Forwards an optional text to `call` once it passed the checks.
template <typename Call>
zub_status setText(const char* function, const char* what, const char* text, Call&& call) {
    return guarded(function, [&] {
        zub::OptionalText value;
        if (const zub_status s = optionalText(function, what, text, value); s != ZUB_OK) return s;
        call(std::move(value));
        return ZUB_OK;
    });
}

// The endpoint setters log and keep what is in force when a URL is unusable,
// and say whether they took the URLs.
zub_status endpointsTaken(const char* function, bool taken) {
    if (taken) return ZUB_OK;
    return refuse(function, ZUB_ERR_INVALID_ARGUMENT, "not an http(s) URL with a host; endpoints not changed");
}

}  // namespace

extern "C" {

zub_status zub_set_debug_enable(bool enable) {
    return set(__func__, [&] { ZUBPro::setDebugEnable(enable); });
}

zub_status zub_set_smart_report(bool enable) {
    return set(__func__, [&] { ZUBPro::setSmartReport(enable); });
}

zub_status zub_set_session_timeout_secs(uint64_t seconds) {
    return set(__func__, [&] { ZUBPro::setSessionTimeoutSecs(seconds); });
}

zub_status zub_set_report_strategy(int64_t strategy) {
    return set(__func__, [&] { ZUBPro::setReportStrategy(strategy); });
}

zub_status zub_set_period_secs(uint64_t seconds) {
    return set(__func__, [&] { ZUBPro::setPeriodSecs(seconds); });
}

zub_status zub_set_channel(const char* channel) {
    return setText(__func__, "channel", channel, [](zub::OptionalText t) { ZUBPro::setChannel(std::move(t)); });
}

zub_status zub_set_custom_app_version(const char* version) {
    return setText(__func__, "version", version,
                   [](zub::OptionalText t) { ZUBPro::setCustomAppVersion(std::move(t)); });
}

zub_status zub_set_custom_user_id(const char* user_id) {
    return setText(__func__, "user_id", user_id, [](zub::OptionalText t) { ZUBPro::setCustomUserID(std::move(t)); });
}

zub_status zub_set_bundle_info(const char* key, const char* value) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        std::string k;
        std::string v;
        if (const zub_status s = requiredName(fn, "key", key, k); s != ZUB_OK) return s;
        if (const zub_status s = requiredText(fn, "value", value, v); s != ZUB_OK) return s;
        zub::setBundleInfo(std::move(k), std::move(v));
        return ZUB_OK;
    });
}

zub_status zub_set_openudid_opt_out(bool opt_out) {
    return set(__func__, [&] { zub::setOpenUDIDOptOut(opt_out); });
}

zub_status zub_set_endpoints(const char* report_url, const char* mid_url) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        std::string report;
        std::string mid;
        if (const zub_status s = requiredText(fn, "report_url", report_url, report); s != ZUB_OK) return s;
        if (const zub_status s = requiredText(fn, "mid_url", mid_url, mid); s != ZUB_OK) return s;
        return endpointsTaken(fn, zub::setEndpoints(report, mid));
    });
}

zub_status zub_set_collector_address(const char* base_url) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        std::string base;
        if (const zub_status s = requiredText(fn, "base_url", base_url, base); s != ZUB_OK) return s;
        return endpointsTaken(fn, zub::setCollectorAddress(base));
    });
}

zub_status zub_set_delivery_limits(const zub_delivery_limits* limits) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (!limits) return refuse(fn, ZUB_ERR_NULL_ARGUMENT, "limits is NULL");
        if (limits->max_events_in_memory == 0 || limits->journal_budget_bytes == 0) {
            return refuse(fn, ZUB_ERR_INVALID_ARGUMENT, "a limit of 0 events or 0 bytes");
        }
        zub::DeliveryLimits l;
        l.maxEventsInMemory = static_cast<std::size_t>(limits->max_events_in_memory);
        l.journalBudgetBytes = limits->journal_budget_bytes;
        l.syncIntervalMs = limits->sync_interval_ms;
        l.journalEnabled = limits->journal_enabled;
        zub::setDeliveryLimits(l);
        return ZUB_OK;
    });
}

zub_status zub_set_log_sink(zub_log_sink sink, void* user_data) {
    return set(__func__, [&] {
        if (!sink) {
            zub::setLogSink(nullptr);
            return;
        }
        zub::setLogSink([sink, user_data](const std::string& line) { sink(line.c_str(), user_data); });
    });
}

}  // extern "C"
