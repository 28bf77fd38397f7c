// The event-argument builder of the C interface: a JSON object behind its own
// lock, so that one builder may be filled and used from several threads.
#pragma once

#include <ZUBCocoa/ZUBValue.h>
#include <ZUBCocoa/zub.h>

#include <mutex>

struct zub_args {
    mutable std::mutex mutex;
    zub::Value pairs = zub::Value::object();  // guarded by mutex
};

namespace zub::capi {

/// The pairs a tracking call sends: a copy of the builder's object, or null for a
/// NULL builder (no pairs).
zub::Value pairsOf(const zub_args* args);

}  // namespace zub::capi
