// Start, the lifecycle handlers and flush of the C interface.
#include "CApi/CApiSupport.h"

#include <ZUBCocoa/ZUBDelivery.h>
#include <ZUBCocoa/ZUBPro.h>

#include <chrono>
#include <string>

using zub::capi::guarded;
using zub::capi::requiredText;

namespace {

template <typename Call>
zub_status run(const char* function, Call&& call) {
    return guarded(function, [&] {
        call();
        return ZUB_OK;
    });
}

}  // namespace

extern "C" {

zub_status zub_start(const char* app_key) {
    const char* fn = __func__;
    return guarded(fn, [&] {
        std::string key;
        if (const zub_status s = requiredText(fn, "app_key", app_key, key); s != ZUB_OK) return s;
        ZUBPro::startWithAppKey(std::move(key));
        return ZUB_OK;
    });
}

zub_status zub_on_application_did_become_active(void) {
    return run(__func__, [] { ZUBPro::onApplicationDidBecomeActive(); });
}

zub_status zub_on_did_application_become_active(void) {
    return run(__func__, [] { ZUBPro::onDidApplicationBecomeActive(); });
}

zub_status zub_on_will_application_resign_active(void) {
    return run(__func__, [] { ZUBPro::onWillApplicationResignActive(); });
}

zub_status zub_on_will_application_enter_background(void) {
    return run(__func__, [] { ZUBPro::onWillApplicationEnterBackground(); });
}

zub_status zub_on_will_application_will_terminate(void) {
    return run(__func__, [] { ZUBPro::onWillApplicationWillTerminate(); });
}

zub_status zub_flush(uint32_t timeout_ms) {
    return guarded(__func__, [&] {
        return zub::flush(std::chrono::milliseconds(timeout_ms)) ? ZUB_OK : ZUB_NOT_DELIVERED;
    });
}

}  // extern "C"
