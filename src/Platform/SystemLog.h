// The system log: one line per call on standard error, prefixed with the local
// time and the process name and id, and handed to the installed sink (if any).
// Thread-safe; lines from different threads never interleave.
#pragma once

#include <ZUBCocoa/ZUBPlatform.h>

#include <string>
#include <string_view>

namespace zub {

class SystemLog {
public:
    static void write(std::string_view message);
    static void setSink(LogSink sink);
};

}  // namespace zub
