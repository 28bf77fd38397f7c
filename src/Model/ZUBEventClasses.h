// Registers the library's own event classes with the archive registry, so that
// saved events come back as what they were. Idempotent and thread-safe; the event
// store calls it before it reads a log file.
#pragma once

void registerEventClasses();
