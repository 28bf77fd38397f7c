// Waiting for events to reach a collector: flushes the library's report queue and
// polls the collector's database until a condition holds, for a bounded time.
//
//   zub::Value rows = zubtest::waitForStored(collector, [](const zub::Value& rows) {
//       return rows.size() >= 3;
//   });
#pragma once

#include "support/CollectorProcess.h"

#include <ZUBCocoa/ZUBValue.h>

#include <chrono>
#include <functional>
#include <vector>

namespace zubtest {

/// The rows of `collector.storedEvents()` once `done(rows)` holds, or the last
/// rows read when `limit` has passed. When the library sees no network at all it
/// starts no follow-up report cycle after a reply; the wait then starts one
/// itself each round, so that what is waiting still goes out.
zub::Value waitForStored(CollectorProcess& collector, const std::function<bool(const zub::Value&)>& done,
                         std::chrono::seconds limit = std::chrono::seconds(30));

/// The stored event objects (the "event" member of each row) for which `match` holds.
std::vector<zub::Value> storedWhere(const zub::Value& rows, const std::function<bool(const zub::Value&)>& match);

}  // namespace zubtest
