#include "Platform/SystemLog.h"

#include "Platform/Clock.h"

#include <cerrno>  // program_invocation_short_name (glibc)
#include <cstdio>
#include <ctime>
#include <mutex>
#include <unistd.h>

namespace zub {
namespace {

struct LogState {
    std::mutex mutex;
    LogSink sink;
};

LogState& state() {
    static auto* s = new LogState();  // never destroyed: other threads may log during exit
    return *s;
}

std::string processName() {
    return program_invocation_short_name ? program_invocation_short_name : "process";
}

}  // namespace

void SystemLog::write(std::string_view message) {
    const std::int64_t micros = Clock::nowMicros();
    const std::time_t seconds = static_cast<std::time_t>(micros / 1000000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[40];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

    static const std::string* name = new std::string(processName());  // never destroyed, as the state
    std::string line(message);

    LogState& s = state();
    std::lock_guard lock(s.mutex);
    std::fprintf(stderr, "%s.%03d %s[%d] %s\n", stamp, static_cast<int>((micros / 1000) % 1000), name->c_str(),
                 static_cast<int>(getpid()), line.c_str());
    if (s.sink) {
        try {
            s.sink(line);
        } catch (...) {
            // A host's sink must not take the library down with it.
        }
    }
}

void SystemLog::setSink(LogSink sink) {
    LogState& s = state();
    std::lock_guard lock(s.mutex);
    s.sink = std::move(sink);
}

void setLogSink(LogSink sink) {
    SystemLog::setSink(std::move(sink));
}

}  // namespace zub
