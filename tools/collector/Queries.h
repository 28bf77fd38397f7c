// The query side of the collector: `stats` summarises what arrived, `events`
// exports the stored events. Both open the database read-only, so they can run
// while a collector is writing to it.
#pragma once

#include "Options.h"

#include <ostream>
#include <string>

namespace zubcollector {

/// Prints the summary (a readable table, or one JSON object with --json).
/// Returns the process exit code; errors go to `err`.
int runStats(const StatsOptions& options, std::ostream& out, std::ostream& err);

/// Prints the selected events (a readable table, or a JSON array with --json:
/// each item {"id", "received", "ky", "mid", "et", "si", "ts", "idx", "event"},
/// "event" being the object as the client sent it). Returns the exit code.
int runEvents(const EventsOptions& options, std::ostream& out, std::ostream& err);

}  // namespace zubcollector
