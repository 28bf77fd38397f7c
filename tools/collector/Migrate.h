// `zub-collector migrate --from FILE --to postgresql://...`: copies an SQLite
// collector database into PostgreSQL, so that a collector that outgrew one
// machine keeps what it stored.
//
// Devices and configuration holdings are merged (a device's first and last
// sightings widen, identifiers fill in); events are copied in chunks, each chunk
// in one transaction together with how far the copy has come (table `migrated`,
// per source file) and the dashboard's summaries of those events. A copy that is
// interrupted resumes after its last whole chunk; one run again copies nothing
// twice; an event whose identity the target already holds (it was sent again to
// a collector there) is not copied. Events keep the time they were received and
// get new ids.
#pragma once

#include "Options.h"

#include <ostream>

namespace zubcollector {

/// Runs the copy; the exit code. Progress and the result go to `out`, errors to `err`.
int runMigrate(const MigrateOptions& options, std::ostream& out, std::ostream& err);

}  // namespace zubcollector
