// Picking events out of a collector's stored rows (CollectorProcess::storedEvents).
//
//   auto pages = zubtest::storedWhere(collector.storedEvents(), [](const zub::Value& e) {
//       return e.value("et", 0) == 1;
//   });
#pragma once

#include "support/CollectorProcess.h"

#include <ZUBCocoa/ZUBValue.h>

#include <functional>
#include <vector>

namespace zubtest {

/// The stored event objects (the "event" member of each row) for which `match` holds.
std::vector<zub::Value> storedWhere(const zub::Value& rows, const std::function<bool(const zub::Value&)>& match);

}  // namespace zubtest
