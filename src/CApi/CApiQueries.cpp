// What a C host can read back: device identifiers, online properties, bundle
// information, endpoints, delivery limits and the drop count.
#include "CApi/CApiSupport.h"

#include <ZUBCocoa/ZUBDelivery.h>
#include <ZUBCocoa/ZUBEndpoints.h>
#include <ZUBCocoa/ZUBPlatform.h>
#include <ZUBCocoa/ZUBPro.h>

#include <string>

using zub::capi::copyOut;
using zub::capi::guarded;
using zub::capi::refuse;
using zub::capi::requiredName;
using zub::capi::requiredText;

namespace {

// Clears the output before anything can fail, so that a caller that ignores the
// status never frees a stale pointer.
zub_status prepareOut(const char* function, char** out) {
    if (!out) return refuse(function, ZUB_ERR_NULL_ARGUMENT, "out is NULL");
    *out = nullptr;
    return ZUB_OK;
}

}  // namespace

extern "C" {

zub_status zub_get_device_id(const char* name, char** out) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (const zub_status s = prepareOut(fn, out); s != ZUB_OK) return s;
        std::string key;
        if (const zub_status s = requiredText(fn, "name", name, key); s != ZUB_OK) return s;
        const zub::Value ids = ZUBPro::getDeviceIDs();
        const auto found = ids.find(key);
        if (found == ids.end() || !found->is_string()) {
            return refuse(fn, ZUB_ERR_NOT_FOUND, "no device identifier named " + key);
        }
        return copyOut(fn, found->get<std::string>(), out);
    });
}

zub_status zub_get_device_ids_json(char** out) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (const zub_status s = prepareOut(fn, out); s != ZUB_OK) return s;
        return copyOut(fn, ZUBPro::getDeviceIDs().dump(), out);
    });
}

zub_status zub_get_online_property_json(const char* key, char** out) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (const zub_status s = prepareOut(fn, out); s != ZUB_OK) return s;
        std::string k;
        if (const zub_status s = requiredText(fn, "key", key, k); s != ZUB_OK) return s;
        return copyOut(fn, ZUBPro::getOnlineProperty(k).dump(), out);
    });
}

zub_status zub_get_bundle_info(const char* key, char** out) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (const zub_status s = prepareOut(fn, out); s != ZUB_OK) return s;
        std::string k;
        if (const zub_status s = requiredName(fn, "key", key, k); s != ZUB_OK) return s;
        const std::optional<std::string> value = zub::bundleInfo(k);
        if (!value) return refuse(fn, ZUB_ERR_NOT_FOUND, "no bundle information under " + k);
        return copyOut(fn, *value, out);
    });
}

zub_status zub_get_endpoints(char** report_url, char** mid_url) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (mid_url) *mid_url = nullptr;  // cleared even when report_url is the NULL one
        if (const zub_status s = prepareOut(fn, report_url); s != ZUB_OK) return s;
        if (const zub_status s = prepareOut(fn, mid_url); s != ZUB_OK) return s;
        const zub::Endpoints now = zub::endpoints();
        if (const zub_status s = copyOut(fn, now.reportURL, report_url); s != ZUB_OK) return s;
        if (const zub_status s = copyOut(fn, now.midURL, mid_url); s != ZUB_OK) {
            zub_string_free(*report_url);
            *report_url = nullptr;
            return s;
        }
        return ZUB_OK;
    });
}

zub_status zub_get_delivery_limits(zub_delivery_limits* limits) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (!limits) return refuse(fn, ZUB_ERR_NULL_ARGUMENT, "limits is NULL");
        const zub::DeliveryLimits l = zub::deliveryLimits();
        limits->max_events_in_memory = l.maxEventsInMemory;
        limits->journal_budget_bytes = l.journalBudgetBytes;
        limits->sync_interval_ms = l.syncIntervalMs;
        limits->journal_enabled = l.journalEnabled;
        return ZUB_OK;
    });
}

zub_status zub_get_dropped_event_count(uint64_t* count) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (!count) return refuse(fn, ZUB_ERR_NULL_ARGUMENT, "count is NULL");
        *count = zub::droppedEventCount();
        return ZUB_OK;
    });
}

}  // extern "C"
