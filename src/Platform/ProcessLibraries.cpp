#include "Platform/ProcessLibraries.h"

#include "Common/ZUBProHelper.h"

#include <openssl/crypto.h>

#include <mutex>

namespace zub {
namespace {

bool initializeOnce() {
    static std::once_flag once;
    static bool ok = false;
    std::call_once(once, [] {
        // Only the first initialisation decides whether OpenSSL registers its
        // exit-time cleanup; NO_ATEXIT here means no later call registers it.
        ok = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
    });
    return ok;
}

// Before main (or when a host loads the shared library), ahead of any digest
// or request of ours.
[[maybe_unused]] const bool initializedAtLoad = initializeOnce();

}  // namespace

bool ProcessLibraries::initialize() {
    const bool ok = initializeOnce();
    if (!ok) {
        static std::once_flag reported;
        std::call_once(reported, [] { ZUBProHelper::LogDebug("[ERROR] OpenSSL initialisation failed"); });
    }
    return ok;
}

}  // namespace zub
