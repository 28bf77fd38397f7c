// zub_args: the key-value pairs of a custom event, built from C.
#include "CApi/CApiArgs.h"

#include "CApi/CApiSupport.h"

#include <cmath>
#include <new>
#include <string>

using zub::capi::guarded;
using zub::capi::refuse;
using zub::capi::requiredText;

namespace zub::capi {

zub::Value pairsOf(const zub_args* args) {
    if (!args) return zub::Value();
    std::lock_guard lock(args->mutex);
    return args->pairs;
}

}  // namespace zub::capi

namespace {

// Checks the builder and the key, then stores `value` under the key.
template <typename MakeValue>
zub_status setPair(const char* function, zub_args* args, const char* key, MakeValue&& makeValue) {
    return guarded(function, [&] {
        if (!args) return refuse(function, ZUB_ERR_NULL_ARGUMENT, "args is NULL");
        std::string name;
        if (const zub_status s = requiredText(function, "key", key, name); s != ZUB_OK) return s;
        zub::Value value;
        if (const zub_status s = makeValue(value); s != ZUB_OK) return s;
        std::lock_guard lock(args->mutex);
        args->pairs[name] = std::move(value);
        return ZUB_OK;
    });
}

}  // namespace

extern "C" {

zub_args* zub_args_new(void) {
    return new (std::nothrow) zub_args();
}

zub_status zub_args_from_json(const char* json, zub_args** out) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (!out) return refuse(fn, ZUB_ERR_NULL_ARGUMENT, "out is NULL");
        *out = nullptr;
        std::string text;
        if (const zub_status s = requiredText(fn, "json", json, text); s != ZUB_OK) return s;
        zub::Value parsed = zub::Value::parse(text, nullptr, /*allow_exceptions=*/false);
        if (!parsed.is_object()) return refuse(fn, ZUB_ERR_INVALID_ARGUMENT, "json is not a JSON object");
        auto* args = new zub_args();
        args->pairs = std::move(parsed);
        *out = args;
        return ZUB_OK;
    });
}

void zub_args_free(zub_args* args) {
    delete args;
}

zub_status zub_args_set_string(zub_args* args, const char* key, const char* value) {
    const char* fn = __func__;
    return setPair(fn, args, key, [&](zub::Value& v) {
        std::string text;
        const zub_status s = requiredText(fn, "value", value, text);
        if (s == ZUB_OK) v = std::move(text);
        return s;
    });
}

zub_status zub_args_set_int(zub_args* args, const char* key, int64_t value) {
    const char* fn = __func__;
    return setPair(fn, args, key, [&](zub::Value& v) {
        v = value;
        return ZUB_OK;
    });
}

zub_status zub_args_set_double(zub_args* args, const char* key, double value) {
    const char* fn = __func__;
    return setPair(fn, args, key, [&](zub::Value& v) {
        if (!std::isfinite(value)) return refuse(fn, ZUB_ERR_INVALID_ARGUMENT, "value is not a finite number");
        v = value;
        return ZUB_OK;
    });
}

zub_status zub_args_set_bool(zub_args* args, const char* key, bool value) {
    const char* fn = __func__;
    return setPair(fn, args, key, [&](zub::Value& v) {
        v = value;
        return ZUB_OK;
    });
}

zub_status zub_args_to_json(const zub_args* args, char** out) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        if (!out) return refuse(fn, ZUB_ERR_NULL_ARGUMENT, "out is NULL");
        *out = nullptr;
        if (!args) return refuse(fn, ZUB_ERR_NULL_ARGUMENT, "args is NULL");
        return zub::capi::copyOut(fn, zub::capi::pairsOf(args).dump(), out);
    });
}

}  // extern "C"
